#!/usr/bin/env bash
# Extracts the Debian packages of scripts/package.sh into a temporary root
# (dpkg-deb -x, no installation) and builds and runs callers against it, with
# find_package(zelkit3) and with pkg-config.
# Usage: packages.sh <packages-dir> <source-dir> <x86_64|i386|all> <c++ compiler> [version]
# Exit 77 (a skip for ctest) when the packages have not been built.
set -euo pipefail
# shellcheck source=callers.sh
source "$(dirname "$0")/callers.sh"
pkgs=$1 src=$2 which=$3 cxx=$4
version=${5:-$(sed -n 's/^project(zelkit3 VERSION \([0-9.]*\).*/\1/p' "$src/CMakeLists.txt")}
soversion=${version%%.*}

debs=()
for arch in amd64 i386; do
  for pkg in "libzelkit3-$soversion" libzelkit3-dev; do
    debs+=("$pkgs/${pkg}_${version}_${arch}.deb")
  done
done
for deb in "${debs[@]}"; do
  if [[ ! -f $deb ]]; then
    echo "packages: SKIPPED: $deb is missing; run scripts/package.sh first" \
         "(scripts/test.sh does)"
    exit 77
  fi
done

tmp=$(mktemp -d "${TMPDIR:-/tmp}/zk3-packages.XXXXXX")
trap 'rm -rf "$tmp"' EXIT
root=$tmp/root
for deb in "${debs[@]}"; do dpkg-deb -x "$deb" "$root"; done

fail() { echo "packages: FAIL $*" >&2; exit 1; }

# Multi-Arch: same packages must agree byte for byte on every path they share.
for pkg in "libzelkit3-$soversion" libzelkit3-dev; do
  for arch in amd64 i386; do
    dpkg-deb --info "$pkgs/${pkg}_${version}_${arch}.deb" md5sums |
      grep -v -e '-linux-gnu/' | sort >"$tmp/$pkg.$arch.md5"
  done
  cmp -s "$tmp/$pkg.amd64.md5" "$tmp/$pkg.i386.md5" ||
    fail "$pkg: the amd64 and i386 packages differ in shared files"
done
# Stale packages would test old code: their headers must be this tree's.
for h in "$src"/include/zelkit3/*.h; do
  cmp -s "$h" "$root/usr/include/zelkit3/$(basename "$h")" ||
    fail "usr/include/zelkit3/$(basename "$h") differs from the source tree; run scripts/package.sh again"
done

arches=("$which")
[[ $which == all ]] && arches=(x86_64 i386)
ld_path=$root/usr/lib/i386-linux-gnu:$root/usr/lib/x86_64-linux-gnu
for abi in "${arches[@]}"; do
  if [[ $abi == i386 ]]; then multiarch=i386-linux-gnu; else multiarch=x86_64-linux-gnu; fi
  libdir=$root/usr/lib/$multiarch
  soname=$(readelf -d "$libdir/libzelkit3.so.$soversion" | sed -n 's/.*SONAME.*\[\(.*\)\]/\1/p')
  [[ $soname == "libzelkit3.so.$soversion" ]] || fail "$abi: SONAME is '$soname'"
  [[ $(readlink -f "$libdir/libzelkit3.so") == $(readlink -f "$libdir/libzelkit3.so.$soversion") ]] ||
    fail "$abi: libzelkit3.so does not lead to the library"

  check_callers packages "$abi" "$root/usr" "$libdir" "$ld_path" "$src" "$cxx" "$tmp"
done
echo "packages: ${arches[*]} checked against $(basename "$pkgs")/*_${version}_*.deb"
