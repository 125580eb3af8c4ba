#!/usr/bin/env bash
# Installs the built tree into a scratch prefix and builds a consumer against it,
# once through the CMake package and once through pkg-config.
set -euo pipefail
build_dir=$1
source_dir=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
libdir=$(find "$work/prefix" -name 'libnetloop.so*' -printf '%h\n' | head -n 1)

cmake -S "$source_dir/tests/install/consumer" -B "$work/cmake-build" \
      -DCMAKE_PREFIX_PATH="$work/prefix" -DEXAMPLE="$source_dir/examples/repeating_timer.cpp" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
LD_LIBRARY_PATH="$libdir" "$work/cmake-build/consumer" >/dev/null

# One of the examples, built the plain way an application would build it.
export PKG_CONFIG_PATH="$libdir/pkgconfig"
g++ -std=c++17 "$source_dir/examples/repeating_timer.cpp" -o "$work/pc-example" -pthread \
    $(pkg-config --cflags --libs netloop)
LD_LIBRARY_PATH="$libdir" "$work/pc-example" >/dev/null
