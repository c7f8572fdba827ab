#!/usr/bin/env bash
# Installs this build tree into a temporary prefix, side by side with the
# other ABI's tree when it has been built, and builds and runs a caller of
# each installed ABI twice: with find_package(zelkit3) and with pkg-config.
# Usage: run.sh <build-dir> <source-dir> <arch: x86_64|i386> <c++ compiler>
#
# The other ABI's tree is the sibling build directory: build/dev-i386 for
# build/dev, build/dev for build/dev-i386 (any <name> and <name>-i386). It is
# installed as it stands, without being rebuilt. When it is missing, only
# this ABI is checked and the test says so on its output.
set -euo pipefail
# shellcheck source=callers.sh
source "$(dirname "$0")/callers.sh"
build=$(cd "$1" && pwd) src=$2 arch=$3 cxx=$4
tmp=$(mktemp -d "${TMPDIR:-/tmp}/zk3-consumer.XXXXXX")
trap 'rm -rf "$tmp"' EXIT
prefix=$tmp/prefix

multiarch() { [[ $1 == i386 ]] && echo i386-linux-gnu || echo x86_64-linux-gnu; }
elf_class() { [[ $1 == i386 ]] && echo ELF32 || echo ELF64; }

name=$(basename "$build")
if [[ $arch == i386 ]]; then
  other=x86_64 sibling=$(dirname "$build")/${name%-i386}
else
  other=i386 sibling=$(dirname "$build")/$name-i386
fi

arches=()
if [[ -f $sibling/cmake_install.cmake ]] && compgen -G "$sibling/src/libzelkit3.so.*" >/dev/null; then
  cmake --install "$sibling" --prefix "$prefix" >/dev/null
  arches+=("$other")
  echo "consumer: $other installed first from $sibling (as built, not rebuilt)"
else
  echo "consumer: NOTE no built $other tree at $sibling: only $arch is checked;"
  echo "          build both ABIs (scripts/test.sh does) to check them side by side"
fi
cmake --install "$build" --prefix "$prefix" >/dev/null
arches+=("$arch")

# Nothing may sit in the ABI-neutral lib/: that is where two ABIs collide.
if compgen -G "$prefix/lib/libzelkit3*" >/dev/null || [[ -d $prefix/lib/cmake || -d $prefix/lib/pkgconfig ]]; then
  echo "consumer: FAIL files installed directly under lib/:" >&2
  ls -la "$prefix/lib" >&2
  exit 1
fi

# The loader skips a library of the wrong ELF class, so one LD_LIBRARY_PATH
# with both directories serves both callers: each must still find its own.
ld_path=$prefix/lib/$(multiarch i386):$prefix/lib/$(multiarch x86_64)

for abi in "${arches[@]}"; do
  libdir=$prefix/lib/$(multiarch "$abi")
  for f in "$libdir/libzelkit3.so.3" "$libdir/cmake/zelkit3/zelkit3Config.cmake" \
           "$libdir/pkgconfig/zelkit3.pc"; do
    [[ -e $f ]] || { echo "consumer: FAIL $f is missing" >&2; exit 1; }
  done
  class=$(readelf -h "$libdir/libzelkit3.so.3" | awk '/Class:/ {print $2}')
  if [[ $class != "$(elf_class "$abi")" ]]; then
    echo "consumer: FAIL $libdir/libzelkit3.so.3 is $class" >&2
    exit 1
  fi

  check_callers consumer "$abi" "$prefix" "$libdir" "$ld_path" "$src" "$cxx" "$tmp"
done
echo "consumer: checked ${arches[*]} in one prefix"
