#!/usr/bin/env bash
# Installs the build tree into a temporary prefix and builds a caller against
# it twice: with find_package(zelkit3) and with pkg-config.
# Usage: run.sh <build-dir> <source-dir> <arch> <c++ compiler>
set -euo pipefail
build=$1 src=$2 arch=$3 cxx=$4
tmp=$(mktemp -d "${TMPDIR:-/tmp}/zk3-consumer.XXXXXX")
trap 'rm -rf "$tmp"' EXIT

cmake --install "$build" --prefix "$tmp/prefix" >/dev/null
libdir=$(dirname "$(find "$tmp/prefix" -name 'libzelkit3.so' | head -n 1)")

toolchain=()
m32=()
if [[ $arch == i386 ]]; then
  toolchain=(-DCMAKE_TOOLCHAIN_FILE="$src/cmake/i386.toolchain.cmake")
  m32=(-m32 -msse2 -mfpmath=sse)
fi
cmake -S "$src/tests/consumer/project" -B "$tmp/build" -DCMAKE_PREFIX_PATH="$tmp/prefix" \
  -DCMAKE_CXX_COMPILER="$cxx" "${toolchain[@]}" >/dev/null
cmake --build "$tmp/build" >/dev/null
LD_LIBRARY_PATH="$libdir" "$tmp/build/consumer"
echo "find_package consumer: ok"


flags=$(PKG_CONFIG_LIBDIR="$libdir/pkgconfig" pkg-config --cflags --libs zelkit3)
# shellcheck disable=SC2086
"$cxx" "${m32[@]}" -std=c++11 "$src/tests/consumer/project/main.cpp" $flags -o "$tmp/pc-consumer"
LD_LIBRARY_PATH="$libdir" "$tmp/pc-consumer"
echo "pkg-config consumer: ok"
