#!/usr/bin/env bash
# Set-up, build and run crrecord on Debian 12.
#
#   ./dev.sh demo   install what is missing, build (in build-demo), run the main job
#   ./dev.sh test   install what is missing, build, run the whole test suite
#                   (plain build, then again under AddressSanitizer + UBSan,
#                   the thread test under ThreadSanitizer, and each fuzz
#                   target for a bounded run); builds the API reference and
#                   the Debian packages, and runs the examples against them;
#                   builds the benchmarks without running them
#   ./dev.sh coverage  install what is missing (gcovr too), build with
#                   coverage, run the tests, print line and branch coverage
#
# Packages are installed with apt-get only when missing, so a second run
# goes straight to the build.
set -euo pipefail
cd "$(dirname "$0")"

PACKAGES=(
  g++ cmake ninja-build pkg-config ccache
  libssl-dev libboost-dev
  libgtest-dev libgmock-dev
  libcli11-dev nlohmann-json3-dev
  clang libclang-rt-14-dev
  zlib1g-dev libbenchmark-dev libprotobuf-dev protobuf-compiler
)

install_missing() {
  local missing=()
  for p in "${PACKAGES[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
      missing+=("$p")
    fi
  done
  if [ ${#missing[@]} -gt 0 ]; then
    local sudo=""
    [ "$(id -u)" -ne 0 ] && sudo="sudo"
    echo "== installing: ${missing[*]}"
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
  fi
}

jobs=$(nproc)

build() {  # build DIR [cmake options...]
  local dir=$1
  shift
  cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
}

# Every option a command relies on is said on each configure: a build folder
# configured earlier, by hand or by another command, keeps its cache, and a
# cached OFF would otherwise silently drop what this command is meant to run.
# A run that finds no test fails (--no-tests=error).
SUITE=(-DCRRECORD_BUILD_TESTS=ON -DCRRECORD_BUILD_TOOLS=ON -DCRRECORD_BUILD_FUZZERS=OFF
       -DCRRECORD_COVERAGE=OFF -DCRRECORD_TSAN=OFF)
run_tests() {  # run_tests DIR
  ctest --test-dir "$1" --output-on-failure --no-tests=error -j"$jobs"
}

command=${1:-demo}
case "$command" in
  demo)
    install_missing
    # A folder of its own: the test suite's folder keeps its tests.
    build build-demo -DCRRECORD_BUILD_TESTS=OFF -DCRRECORD_BUILD_TOOLS=ON \
      -DCRRECORD_BUILD_EXAMPLES=OFF -DCRRECORD_SANITIZE=OFF
    ./build-demo/tools/crrec
    ;;
  test)
    PACKAGES+=(doxygen dpkg-dev file man-db)
    install_missing
    # Prefix /usr: the packages install into Debian's multiarch libdir.
    # The benchmarks are built here too, not run (bench/report.py runs them).
    build build "${SUITE[@]}" -DCMAKE_INSTALL_PREFIX=/usr -DCRRECORD_BUILD_BENCHMARKS=ON \
      -DCRRECORD_BUILD_EXAMPLES=ON -DCRRECORD_SANITIZE=OFF
    run_tests build
    cmake --build build --target docs
    examples/check_installed.sh build
    build build-sanitize "${SUITE[@]}" -DCRRECORD_SANITIZE=ON -DCRRECORD_BUILD_EXAMPLES=OFF
    run_tests build-sanitize
    # Only the thread test under ThreadSanitizer: it is the one that runs
    # the library on several threads, and the others would double CI time.
    cmake -S . -B build-tsan -G Ninja -DCRRECORD_TSAN=ON -DCRRECORD_SANITIZE=OFF \
      -DCRRECORD_BUILD_TESTS=ON -DCRRECORD_BUILD_TOOLS=OFF -DCRRECORD_BUILD_EXAMPLES=OFF >/dev/null
    cmake --build build-tsan --target thread_test -j"$jobs"
    ./build-tsan/tests/thread_test
    # Each fuzz target for a bounded number of inputs, built with clang.
    fuzz/run.sh build-fuzz
    ;;
  coverage)
    PACKAGES+=(gcovr)
    install_missing
    scripts/coverage.sh build-coverage
    ;;
  *)
    echo "usage: $0 [demo|test|coverage]" >&2
    exit 2
    ;;
esac
