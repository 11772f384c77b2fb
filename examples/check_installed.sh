#!/usr/bin/env bash
# Builds the Debian packages, unpacks them into a scratch root, and builds and
# runs the examples against that install, the way a user of the packages
# would: once through find_package(crrecord) and once through pkg-config.
# Every example's output must equal examples/expected/<name>.txt, and the
# packaged crrec must run and say its version, and its manual page and bash
# completion must work.
#
#   examples/check_installed.sh BUILD_DIR
#
# BUILD_DIR is a configured, built tree (configure it with
# -DCMAKE_INSTALL_PREFIX=/usr for the multiarch library directory Debian
# uses). Needs dpkg-dev (dpkg-shlibdeps), file, cmake, pkg-config, g++ and man.
set -euo pipefail

if [ $# -ne 1 ]; then
  echo "usage: $0 BUILD_DIR" >&2
  exit 2
fi
build_dir=$(cd "$1" && pwd)
examples_dir=$(cd "$(dirname "$0")" && pwd)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

echo "== packages"
(cd "$build_dir" && cpack -G DEB -B "$scratch/packages" >"$scratch/cpack.log" 2>&1) || {
  cat "$scratch/cpack.log" >&2
  exit 1
}
shopt -s nullglob
debs=("$scratch"/packages/*.deb)
if [ ${#debs[@]} -eq 0 ]; then
  echo "cpack produced no package" >&2
  exit 1
fi
root=$scratch/root
for deb in "${debs[@]}"; do
  echo "$(dpkg-deb -f "$deb" Package) $(dpkg-deb -f "$deb" Version): $(dpkg-deb -f "$deb" Depends)"
  dpkg-deb -x "$deb" "$root"
done

libdir=$(dirname "$(find "$root/usr/lib" -name 'libcrrecord.so.*' -type f | head -1)")
pcdir=$(dirname "$(find "$root/usr/lib" -name crrecord.pc | head -1)")
if [ ! -d "$libdir" ] || [ ! -d "$pcdir" ]; then
  echo "the packages hold no library or no crrecord.pc" >&2
  exit 1
fi
# The runtime package carries the versioned library that the SONAME names.
soname=$(objdump -p "$libdir/libcrrecord.so.1" | awk '$1 == "SONAME" { print $2 }')
if [ "$soname" != "libcrrecord.so.1" ]; then
  echo "libcrrecord's SONAME is '$soname', expected libcrrecord.so.1" >&2
  exit 1
fi

run_examples() {  # DIR: the directory holding the example programs
  local failed=0
  for expected in "$examples_dir"/expected/*.txt; do
    local name
    name=$(basename "$expected" .txt)
    LD_LIBRARY_PATH="$libdir" bash "$examples_dir/check_output.sh" "$1/$name" "$expected" ||
      failed=1
  done
  return $failed
}

echo "== examples through find_package(crrecord)"
cmake -S "$examples_dir" -B "$scratch/cmake-build" -G Ninja \
  -DCMAKE_PREFIX_PATH="$root/usr" -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF >/dev/null
cmake --build "$scratch/cmake-build" >/dev/null
# The programs must use the unpacked library, not one of the build tree.
ldd "$scratch/cmake-build/add_references" | grep -q "$root" || {
  echo "the examples were not linked against the unpacked package" >&2
  exit 1
}
run_examples "$scratch/cmake-build"

echo "== examples through pkg-config"
mkdir -p "$scratch/pc-build"
for expected in "$examples_dir"/expected/*.txt; do
  name=$(basename "$expected" .txt)
  # shellcheck disable=SC2046
  g++ -std=c++17 -Wall -Wextra -Werror "$examples_dir/$name.cpp" -o "$scratch/pc-build/$name" \
    $(PKG_CONFIG_PATH="$pcdir" pkg-config --cflags --libs crrecord)
done
run_examples "$scratch/pc-build"

if [ -x "$root/usr/bin/crrec" ]; then
  echo "== the packaged crrec"
  version=$(LD_LIBRARY_PATH="$libdir" "$root/usr/bin/crrec" --version)
  if [ "$version" != "crrec $(dpkg-deb -f "$scratch"/packages/crrec_*.deb Version)" ]; then
    echo "crrec --version says '$version', not the package's version" >&2
    exit 1
  fi
  # The manual page renders without a warning.
  warnings=$(man --warnings -l "$root/usr/share/man/man1/crrec.1"* 2>&1 >/dev/null)
  if [ -n "$warnings" ]; then
    echo "crrec.1: $warnings" >&2
    exit 1
  fi
  # The completion completes a command.
  completed=$(bash -c 'source "$1"; COMP_WORDS=(crrec ve); COMP_CWORD=1; _crrec
                       echo "${COMPREPLY[*]}"' _ "$root/usr/share/bash-completion/completions/crrec")
  if [ "$completed" != verify ]; then
    echo "the completion of 'crrec ve' is '$completed', not 'verify'" >&2
    exit 1
  fi
  echo "$version runs; its manual page and completion work"
fi
echo "installed packages: all checks passed"
