#!/usr/bin/env bash
# crrec as a process: real files, pipes, exit status through the shell and
# streams bounded by their first bytes. The command-line test runs the rest
# in process.
#
#   crrec_e2e.sh CRREC WORKDIR
set -u
crrec=$1
work=$2
rm -rf "$work"
mkdir -p "$work"
cd "$work" || exit 2
failed=0
fail() {
  echo "FAILED: $*"
  failed=$((failed + 1))
}

# Through pipes the same bytes as through files (the times fixed: a build
# stamps the current second otherwise).
"$crrec" gen - --size 1M --seed 7 | tee in.bin |
  "$crrec" build - -q --time 1700000000 -o pipe.stored || fail "pipe"
"$crrec" build in.bin -q --time 1700000000 -o r.stored -s r.ser -j r.json || fail "build"
cmp -s pipe.stored r.stored || fail "a pipe and a file built different records"
"$crrec" convert - --to json <r.stored | cmp -s - r.json || fail "convert from stdin to stdout"
"$crrec" convert r.json --to serialized -o - | "$crrec" verify -q --fptype 2 - ||
  fail "serialized through a pipe does not verify"

# A stream is refused once its first bytes bound it, not read to its end.
timeout 20 "$crrec" verify /dev/zero 2>err.txt
[ $? -eq 1 ] && grep -qx "crrec: /dev/zero: more bytes than any record that begins with these \
bytes (56 at most)" err.txt || fail "/dev/zero: $(head -c 300 err.txt)"

# Failed writes to standard output exit 1 with one line.
for args in "digest r.stored" "show r.stored" "verify r.stored" "gen - --size 1K" \
  "build in.bin -q -j -" "--version"; do
  # shellcheck disable=SC2086
  "$crrec" $args >/dev/full 2>err.txt
  code=$?
  [ "$code" -eq 1 ] && [ "$(wc -l <err.txt)" -eq 1 ] &&
    grep -qx "crrec: .*: No space left on device" err.txt || fail "$args >/dev/full: exit $code"
done

"$crrec" --version | grep -qx "crrec [0-9]*\.[0-9]*\.[0-9]*" || fail "--version"
mkdir demo && (cd demo && "$crrec" >../out.txt) || fail "demo exited $?"
grep -q "sample.serialized: sound" out.txt || fail "demo: $(tail -3 out.txt)"

echo "crrec e2e: $failed failed"
[ "$failed" -eq 0 ]
