#!/usr/bin/env bash
# crrec as a process: real files, pipes, exit status through the shell,
# outputs written under a temporary name and renamed, streams bounded by
# their first bytes. The command-line test runs the rest in process.
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

# expect CODE LINE CMD...: exit CODE and exactly LINE on standard error.
expect() {
  local code=$1 line=$2
  shift 2
  timeout 20 "$@" >out.txt 2>err.txt
  local got=$?
  [ "$got" -eq "$code" ] && [ "$(cat err.txt)" = "$line" ] ||
    fail "$* exited $got, said '$(head -c 300 err.txt)'; expected $code, '$line'"
}

# Through pipes the same bytes as through files.
"$crrec" gen - --size 1M --seed 7 | tee in.bin | "$crrec" build - -q -o pipe.stored || fail "pipe"
expect 0 "" "$crrec" build in.bin -q -o r.stored -s r.ser -j r.json
cmp -s pipe.stored r.stored || fail "a pipe and a file built different records"
"$crrec" convert - --to json <r.stored | cmp -s - r.json || fail "convert from stdin to stdout"
"$crrec" convert r.json --to serialized -o - | "$crrec" verify -q --fptype 2 - ||
  fail "serialized through a pipe does not verify"

# A stream is refused once its first bytes bound it, not read to its end.
expect 1 "crrec: /dev/zero: more bytes than any record that begins with these bytes (56 at most)" \
  "$crrec" verify /dev/zero

# Failed writes exit 1 with one line, standard output too; an output that
# exists keeps its content, and no temporary file is left behind.
echo old >kept
for args in "digest r.stored" "show r.stored" "verify r.stored" "gen - --size 1K" \
  "build in.bin -q -j -" "--version"; do
  # shellcheck disable=SC2086
  "$crrec" $args >/dev/full 2>err.txt
  code=$?
  [ "$code" -eq 1 ] && [ "$(wc -l <err.txt)" -eq 1 ] &&
    grep -qx "crrec: .*: No space left on device" err.txt || fail "$args >/dev/full: exit $code"
done
expect 1 "crrec: /dev/full: cannot write: No space left on device" \
  "$crrec" build in.bin -q -o kept -s /dev/full
expect 2 "crrec: missing: cannot open: No such file or directory" "$crrec" build missing -q -o kept
[ "$(cat kept)" = old ] || fail "kept was overwritten"
left=$(ls -A | grep -vx 'in.bin\|pipe.stored\|r.stored\|r.ser\|r.json\|kept\|out.txt\|err.txt')
[ -z "$left" ] || fail "left behind: $left"

"$crrec" --version | grep -qx "crrec [0-9]*\.[0-9]*\.[0-9]*" || fail "--version"
mkdir demo && (cd demo && "$crrec" >../out.txt) || fail "demo exited $?"
grep -q "sample.serialized: sound" out.txt || fail "demo: $(tail -3 out.txt)"

echo "crrec e2e: $failed failed"
[ "$failed" -eq 0 ]
