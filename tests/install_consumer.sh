#!/usr/bin/env bash
# Installs the build tree into a scratch prefix, then builds and runs a small
# consumer against it twice: through find_package and through pkg-config.
set -euo pipefail
build_dir=$1
source_dir=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

cmake --install "$build_dir" --prefix "$scratch/prefix" >/dev/null

cmake -S "$source_dir/tests/consumer" -B "$scratch/cmake-build" -G Ninja \
  -DCMAKE_PREFIX_PATH="$scratch/prefix" >/dev/null
cmake --build "$scratch/cmake-build" >/dev/null
LD_LIBRARY_PATH="$(dirname "$(find "$scratch/prefix" -name 'libcrrecord.so' | head -1)")" \
  "$scratch/cmake-build/consumer"

pcdir=$(dirname "$(find "$scratch/prefix" -name crrecord.pc | head -1)")
libdir=$(PKG_CONFIG_PATH="$pcdir" pkg-config --variable=libdir crrecord)
# shellcheck disable=SC2046
g++ -std=c++17 "$source_dir/tests/consumer/main.cpp" -o "$scratch/pc-consumer" \
  $(PKG_CONFIG_PATH="$pcdir" pkg-config --cflags --libs crrecord)
LD_LIBRARY_PATH="$libdir" "$scratch/pc-consumer"
