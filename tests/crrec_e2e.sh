#!/usr/bin/env bash
# crrec end to end: build records from a generated multi-megabyte file with
# each chunker, DO types 0, 1, 2, 3 and 5 and fingerprint types 1 and 3; show
# and verify them; convert stored <-> serialized <-> JSON and compare bytes;
# refuse a truncated, a bit-flipped and an empty input with exit 1 and a
# one-line reason; and fail with exit 1 when standard output cannot be written.
#
#   crrec_e2e.sh CRREC WORKDIR
set -u
crrec=$1
work=$2
rm -rf "$work"
mkdir -p "$work"
cd "$work" || exit 2

passed=0
failed=0
fail() {
  echo "FAILED: $*"
  failed=$((failed + 1))
}

# ok CMD...: must exit 0.
ok() {
  if "$@" >out.txt 2>err.txt; then
    passed=$((passed + 1))
  else
    fail "$* (exit $?): $(head -c 300 err.txt)"
  fi
}

# same A B: identical bytes.
same() {
  if cmp -s "$1" "$2"; then passed=$((passed + 1)); else fail "$1 and $2 differ"; fi
}

# refused CODE FILE [LINE] -- CMD...: exits CODE with exactly one line on
# stderr, "crrec: FILE: reason" (or exactly LINE when given), nothing else.
refused() {
  local code=$1 file=$2 line=""
  shift 2
  if [ "$1" != "--" ]; then line=$1; shift; fi
  shift
  "$@" >out.txt 2>err.txt
  local got=$?
  local lines
  lines=$(wc -l <err.txt)
  if [ "$got" -ne "$code" ]; then
    fail "$* exited $got, expected $code: $(head -c 300 err.txt)"
  elif [ "$lines" -ne 1 ]; then
    fail "$*: $lines lines on stderr: $(head -c 300 err.txt)"
  elif [ -n "$line" ] && [ "$(cat err.txt)" != "$line" ]; then
    fail "$*: said '$(cat err.txt)', expected '$line'"
  elif [ -z "$line" ] && ! grep -q "^crrec: $file: ." err.txt; then
    fail "$*: said '$(cat err.txt)', not naming $file"
  else
    passed=$((passed + 1))
  fi
}

# flip FILE OFFSET: flips the lowest bit of one byte in place.
flip() {
  local b
  b=$(od -An -tu1 -j "$2" -N1 "$1" | tr -d ' ')
  # shellcheck disable=SC2059
  printf "$(printf '\\%03o' $((b ^ 1)))" | dd of="$1" bs=1 seek="$2" conv=notrunc status=none
}

ok "$crrec" gen input.bin --size 4M --seed 7
[ "$(wc -c <input.bin)" -eq 4194304 ] || fail "gen wrote $(wc -c <input.bin) bytes"

# chunker dotype fptype
configs="fixed:0:1 fixed:0:3 fixed:1:1 fixed:1:3 fixed:3:1 cdc:2:1 cdc:2:3 cdc:3:1 cdc:3:3 cdc:5:1 cdc:5:3"
for config in $configs; do
  IFS=: read -r chunker dotype fptype <<<"$config"
  r="r_${chunker}_${dotype}_${fptype}"
  types=(--dotype "$dotype" --fptype "$fptype")
  ok "$crrec" build input.bin --chunker "$chunker" "${types[@]}" --container-size 1M \
    --time 1700000000 --taskid 42 --no-progress -o "$r.stored" -s "$r.ser" -j "$r.json"
  grep -q "bytes       4194304" out.txt || fail "$r: summary: $(cat out.txt)"

  ok "$crrec" show "$r.stored"
  grep -q "dotype     $dotype" out.txt || fail "$r: show: $(head -c 300 out.txt)"
  ok "$crrec" show "$r.ser" "${types[@]}" --all
  ok "$crrec" verify "$r.stored"
  grep -q "^$r.stored: sound" out.txt || fail "$r: verify: $(cat out.txt)"
  ok "$crrec" verify "$r.ser" "${types[@]}"
  ok "$crrec" verify "$r.json"

  # stored -> serialized is what build serialized.
  ok "$crrec" convert "$r.stored" --to serialized -o "$r.ser2"
  same "$r.ser" "$r.ser2"
  # serialized -> stored -> serialized.
  ok "$crrec" convert "$r.ser" "${types[@]}" --to stored -o "$r.st3"
  ok "$crrec" convert "$r.st3" --to serialized -o "$r.ser3"
  same "$r.ser" "$r.ser3"
  # stored -> JSON -> stored, and build's JSON is the same JSON.
  ok "$crrec" convert "$r.stored" --to json -o "$r.json2"
  same "$r.json" "$r.json2"
  ok "$crrec" convert "$r.json2" --to stored -o "$r.st4"
  same "$r.stored" "$r.st4"
  # serialized -> JSON -> serialized.
  ok "$crrec" convert "$r.ser" "${types[@]}" --to json -o "$r.sjson"
  ok "$crrec" convert "$r.sjson" --to serialized -o "$r.ser5"
  same "$r.ser" "$r.ser5"
  # host -> network -> JSON -> network -> host, for one type of each chunker.
  if [ "$config" = fixed:1:3 ] || [ "$config" = cdc:5:1 ]; then
    ok "$crrec" show "$r.stored" --text
    ok "$crrec" convert "$r.stored" --to stored --network-order -o "$r.net"
    ok "$crrec" verify "$r.net"
    ok "$crrec" convert "$r.net" --to json -o "$r.njson"
    ok "$crrec" convert "$r.njson" --to stored -o "$r.net2"
    same "$r.net" "$r.net2"
    ok "$crrec" convert "$r.net" --to stored --host-order -o "$r.host"
    same "$r.stored" "$r.host"
  fi

  # The digest does not depend on the form.
  if [ "$dotype" != 0 ]; then
    ok "$crrec" digest "$r.stored"
    d1=$(cut -d' ' -f1 out.txt)
    ok "$crrec" digest "$r.ser" "${types[@]}"
    d2=$(cut -d' ' -f1 out.txt)
    [ -n "$d1" ] && [ "$d1" = "$d2" ] || fail "$r: digests '$d1' and '$d2'"
  fi
done

# A record from content-defined segments dedups the repeated regions.
ok "$crrec" build input.bin --no-progress
grep -q "dedup ratio 1\.[1-9]" out.txt || fail "cdc dedup: $(cat out.txt)"

# Damaged inputs.
r=r_cdc_3_1
size=$(wc -c <"$r.stored")
head -c $((size - 1)) "$r.stored" >trunc.stored
refused 1 trunc.stored \
  "crrec: trunc.stored: Invalid DO record: recsize $size, size $((size - 1)) (status 32)" -- \
  "$crrec" verify trunc.stored
refused 1 trunc.stored -- "$crrec" convert trunc.stored --to json

ssize=$(wc -c <"$r.ser")
head -c $((ssize - 3)) "$r.ser" >trunc.ser
refused 1 trunc.ser -- "$crrec" verify trunc.ser
refused 1 trunc.ser -- "$crrec" verify trunc.ser --dotype 3 --fptype 1
refused 1 trunc.ser -- "$crrec" show trunc.ser --dotype 3 --fptype 1

cp "$r.ser" flip.ser
flip flip.ser $((ssize / 2))
refused 1 flip.ser -- "$crrec" verify flip.ser
grep -q "is not the Adler-32 of the body" err.txt || fail "flip.ser: $(cat err.txt)"

# In the stored form the unique-DCID list is sealed by its own checksum.
cp "$r.stored" flip.stored
flip flip.stored $((size - 10 - 8))
refused 1 flip.stored -- "$crrec" verify flip.stored

# A segment's DCID changed by hand: the unique-DCID list no longer agrees.
sed 's/"dcid": 64,/"dcid": 99,/' "$r.json" >edited.json
refused 1 edited.json -- "$crrec" verify edited.json

: >empty.bin
refused 1 empty.bin "crrec: empty.bin: empty file" -- "$crrec" verify empty.bin
refused 1 empty.bin -- "$crrec" show empty.bin
refused 1 empty.bin -- "$crrec" build empty.bin --no-progress

# Usage errors exit 2 (the command-line test has the rest).
refused 2 input.bin \
  "crrec: input.bin: DO types 0 and 1 derive segment sizes from one segment size: use --chunker fixed" -- \
  "$crrec" build input.bin --dotype 0 --chunker cdc

# An output that cannot be written fails every command, standard output too.
for args in "digest $r.stored" "show $r.stored" "verify $r.stored" "gen - --size 1K" \
  "build input.bin -q -j -" "--version"; do
  # shellcheck disable=SC2086
  "$crrec" $args >/dev/full 2>err.txt
  code=$?
  if [ "$code" -eq 1 ] && [ "$(wc -l <err.txt)" -eq 1 ] &&
    grep -qx "crrec: .*: No space left on device" err.txt; then
    passed=$((passed + 1))
  else
    fail "$args >/dev/full: exit $code: $(head -c 300 err.txt)"
  fi
done
"$crrec" --version | grep -qx "crrec [0-9]*\.[0-9]*\.[0-9]*" || fail "--version: $("$crrec" --version)"

# The demo job runs and is sound.
ok "$crrec"
grep -q "sample.serialized: sound" out.txt || fail "demo: $(tail -5 out.txt)"

echo "crrec e2e: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
