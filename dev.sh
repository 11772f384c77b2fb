#!/usr/bin/env bash
# Set-up, build and run crrecord on Debian 12.
#
#   ./dev.sh demo   install what is missing, build, run the main job
#   ./dev.sh test   install what is missing, build, run the whole test suite
#                   (plain build, then again under AddressSanitizer + UBSan)
#
# Packages are installed with apt-get only when missing, so a second run
# goes straight to the build.
set -euo pipefail
cd "$(dirname "$0")"

PACKAGES=(
  g++ cmake ninja-build pkg-config ccache
  libssl-dev libboost-dev
  libgtest-dev libgmock-dev
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

build() {  # build DIR [cmake options...]
  local dir=$1
  shift
  cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
  cmake --build "$dir" -j"$(nproc)"
}

jobs=$(nproc)
command=${1:-demo}
case "$command" in
  demo)
    install_missing
    build build -DCRRECORD_BUILD_TESTS=OFF
    ./build/examples/build_record
    ;;
  test)
    install_missing
    build build
    ctest --test-dir build --output-on-failure -j"$jobs"
    build build-sanitize -DCRRECORD_SANITIZE=ON -DCRRECORD_BUILD_EXAMPLES=OFF
    ctest --test-dir build-sanitize --output-on-failure -j"$jobs"
    ;;
  *)
    echo "usage: $0 [demo|test]" >&2
    exit 2
    ;;
esac
