#!/usr/bin/env bash
# Line and branch coverage of the library (src/ and platform/src/) by the
# whole test suite, as gcovr measures it. Needs gcovr (`./dev.sh coverage`
# installs it).
#
#   scripts/coverage.sh [BUILD_DIR]   (default build-coverage)
#
# Fails when line coverage falls below 95% or branch coverage below 85%.
#
# Branches: gcc gives every call that may throw an extra branch to its
# exception edge, and some to code it can never reach; neither is a decision
# of the code, so they are left out (--exclude-throw-branches,
# --exclude-unreachable-branches). A throw written in the code, and every
# allocation-failure branch, is a branch of its own and stays counted.
set -euo pipefail
cd "$(dirname "$0")/.."

dir=${1:-build-coverage}
jobs=$(nproc)

cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCRRECORD_COVERAGE=ON \
  -DCRRECORD_BUILD_TESTS=ON -DCRRECORD_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$dir" -j"$jobs"
# Counts of an earlier run would add up with this one's.
find "$dir" -name '*.gcda' -delete
# The install check builds a consumer against the installed package, which
# says nothing about the library's own code.
# A failing test still leaves its counts: report them, then fail.
tests=0
ctest --test-dir "$dir" --output-on-failure --no-tests=error -j"$jobs" -E '^install_consumer$' || tests=$?

gcovr --root . --object-directory "$dir" \
  --filter 'src/' --filter 'platform/src/' \
  --exclude-throw-branches --exclude-unreachable-branches \
  --txt "$dir/coverage-lines.txt" --print-summary \
  --fail-under-line 95 --fail-under-branch 85 | tee "$dir/coverage-summary.txt"
gcovr --root . --object-directory "$dir" \
  --filter 'src/' --filter 'platform/src/' \
  --exclude-throw-branches --exclude-unreachable-branches \
  --branches --txt "$dir/coverage-branches.txt"
echo "per-file reports: $dir/coverage-lines.txt, $dir/coverage-branches.txt"
if [ "$tests" -ne 0 ]; then
  echo "coverage: some tests failed" >&2
  exit "$tests"
fi
