#!/usr/bin/env bash
# Makes the worked examples of docs/formats.md with crrec, and checks that
# the hex dumps printed there are still what crrec and the library produce.
#
#   docs/formats_examples.sh CRREC OUTDIR              make the example files
#   docs/formats_examples.sh CRREC OUTDIR FORMATS_MD   ... and compare every
#                                                      dump in FORMATS_MD
#
# In formats.md a dump is a fenced block right after a line
# "<!-- dump FILE -->"; it holds `od -A x -t x1 -v -w16 FILE` without the
# closing offset line.
set -euo pipefail

if [ $# -lt 2 ] || [ $# -gt 3 ]; then
  echo "usage: $0 CRREC OUTDIR [FORMATS_MD]" >&2
  exit 2
fi
case $1 in
  */*) crrec=$(realpath "$1") ;;
  *) crrec=$(command -v "$1") ;;
esac
formats=${3:+$(realpath "$3")}
out=$2
mkdir -p "$out"
cd "$out"

# A 1,500-byte input cut into two fixed-size segments of 1024 and 476 bytes,
# one per 1 KiB container (DCIDs 64 and 65), with fixed times.
"$crrec" gen small.bin --size 1500 --seed 1
common=(--fptype 2 --chunker fixed --segment-size 1024 --container-size 1K --time 1700000000)
for t in 0 1 2 3 5; do
  "$crrec" build small.bin -q --dotype "$t" "${common[@]}" --taskid 42 --dsid 7 \
    -o "do$t.stored" -s "do$t.ser"
done
"$crrec" convert do3.stored --to stored --network-order -o do3.net
"$crrec" build small.bin -q --dotype 4 "${common[@]}" --bloom-bytes 8 -o do4.stored -s do4.ser

# The segment DB record of the first segment, referred to by two tasks and
# by the DO record above (its digest).
digest=$("$crrec" digest do3.stored | awk '{ sub(/^[0-9]+:/, "", $1); print $1 }')
# The segment's CRC-32, as crrec stores the file's: gzip's trailer holds it.
crc=$(head -c 1024 small.bin | gzip -c | tail -c 8 | od -A n -t u4 -N 4 | tr -d ' ')
cat >so.json <<EOF
{
  "form": "segment-db", "byte_order": "host",
  "flags": 2, "unused": 0, "checktime": 1700000000, "reserved1": 0,
  "DCID": 64, "fileID": 0, "size": 1024, "CRC": $crc,
  "key": "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f01",
  "fptype": 2, "cryptoMode": 1, "pad": 0, "keyIndex": 258, "reserved2": 0,
  "taskids": [42, 43], "fingerprints": ["$digest"], "trailer": "0000000000000000"
}
EOF
"$crrec" convert so.json --to stored --host-order -o so.stored
"$crrec" convert so.json --to stored --network-order -o so.net
"$crrec" convert so.json --to serialized -o so.ser

[ $# -eq 3 ] || exit 0

dump() { od -A x -t x1 -v -w16 "$1" | sed '$d'; }

failed=0
checked=0
while IFS= read -r name; do
  expected=$(awk -v marker="<!-- dump $name -->" '
    $0 == marker { found = 1; next }
    found && /^```/ { if (inside) exit; inside = 1; next }
    inside { print }
  ' "$formats")
  if [ "$expected" != "$(dump "$name")" ]; then
    echo "formats.md: the dump of $name is not what crrec makes now:" >&2
    diff <(printf '%s\n' "$expected") <(dump "$name") >&2 || true
    failed=1
  fi
  checked=$((checked + 1))
done < <(sed -n 's/^<!-- dump \(.*\) -->$/\1/p' "$formats")
if [ "$checked" -eq 0 ]; then
  echo "formats.md has no dump to check" >&2
  exit 1
fi
[ "$failed" -eq 0 ] || exit 1
echo "formats.md: $checked dumps match"
