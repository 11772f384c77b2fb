#!/usr/bin/env bash
# Builds the fuzz targets with clang (ASan + UBSan + libFuzzer) and runs each
# over its seed corpus, its stored crash inputs and its dictionary.
#
#   fuzz/run.sh [BUILD_DIR [libFuzzer options...]]
#
# Without options each target runs a bounded number of inputs, as CI does.
# New inputs go to a scratch directory, never into fuzz/corpus; an input that
# breaks a target is kept under BUILD_DIR/fuzz-artifacts/ and the script
# fails. A long run of one target, as fuzz/README.md describes it:
#   build-fuzz/fuzz/<target>_fuzzer -max_total_time=600 ... (see there)
set -euo pipefail
cd "$(dirname "$0")/.."

dir=${1:-build-fuzz}
[ $# -gt 0 ] && shift
options=("$@")
[ ${#options[@]} -eq 0 ] && options=(-runs=100000 -max_total_time=60)

# The tool is built too: crrec_load fuzzes its readers.
cmake -S . -B "$dir" -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCRRECORD_BUILD_FUZZERS=ON \
  -DCRRECORD_BUILD_TESTS=OFF -DCRRECORD_BUILD_TOOLS=ON -DCRRECORD_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$dir" -j"$(nproc)"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
artifacts="$dir/fuzz-artifacts"
mkdir -p "$artifacts"
for source in fuzz/*_fuzzer.cpp; do
  name=$(basename "$source" _fuzzer.cpp)
  seeds=("fuzz/corpus/$name")
  [ -d "fuzz/crashes/$name" ] && seeds+=("fuzz/crashes/$name")
  mkdir -p "$work/$name"
  if ! "$dir/fuzz/${name}_fuzzer" "$work/$name" "${seeds[@]}" -dict="fuzz/$name.dict" \
      -malloc_limit_mb=64 -rss_limit_mb=2560 -timeout=25 -artifact_prefix="$artifacts/$name-" \
      "${options[@]}" >"$work/$name.log" 2>&1; then
    tail -n 60 "$work/$name.log"
    echo "== $name: failed; the input is kept in $artifacts" >&2
    exit 1
  fi
  echo "== $name: $(grep -E '^Done [0-9]+ runs' "$work/$name.log")"
done
