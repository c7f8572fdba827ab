#!/usr/bin/env bash
# Builds both ABIs in release and writes four Debian packages to
# build/packages/:
#   libzelkit3-3_<version>_{amd64,i386}.deb     the library (Section libs)
#   libzelkit3-dev_<version>_{amd64,i386}.deb   headers, .so link, CMake
#                                               package, .pc (Section libdevel)
# All four are Multi-Arch: same, so both ABIs install side by side.
# Then it extracts them into a temporary root and builds and runs a caller of
# each ABI against it (skipped with --no-check: scripts/test.sh leaves that to
# its ctest run), and runs lintian if it is installed (an error fails).
# Needs: cmake, g++-multilib, binutils, dpkg (no debhelper). Not root.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
check=1
[[ ${1:-} == --no-check ]] && check=0

version=$(sed -n 's/^project(zelkit3 VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
soversion=${version%%.*}
runtime=libzelkit3-$soversion
dev=libzelkit3-dev
maintainer="libzelkit3 maintainers <maintainers@users.noreply.c-seed-ce5b8992.example>"
out=build/packages
work=build/packaging

# Every time stamp in the packages is the last commit's (or, outside git,
# the top CMakeLists.txt's), so that the same tree gives the same packages.
if [[ -z ${SOURCE_DATE_EPOCH:-} ]]; then
  SOURCE_DATE_EPOCH=$(git log -1 --format=%ct 2>/dev/null || stat -c %Y CMakeLists.txt)
fi
export SOURCE_DATE_EPOCH
umask 022

rm -rf "$work" "$out"
mkdir -p "$work" "$out"

# The Debian changelog and the upstream one, identical for both ABIs (a
# Multi-Arch: same package must ship the same bytes in shared paths).
{
  echo "zelkit3 ($version) unstable; urgency=medium"
  echo
  echo "  * Release $version of libzelkit3 (libzelkit3.so.$soversion); see changelog.gz."
  echo
  echo " -- $maintainer  $(LC_ALL=C date -u -R -d "@$SOURCE_DATE_EPOCH")"
} | gzip -9n >"$work/changelog.Debian.gz"
gzip -9n <CHANGELOG.md >"$work/changelog.gz"

# The lowest package version that provides every symbol version the library
# takes from a system library, read from dpkg's symbols files of this host:
# symbol versions are the same on amd64 and i386.
min_version() {  # <package> <tag prefix regex> <tags...>
  local pkg=$1 prefix=$2 best="" tag v
  shift 2
  local symbols
  symbols=$(ls /var/lib/dpkg/info/"$pkg":*.symbols /var/lib/dpkg/info/"$pkg".symbols 2>/dev/null | head -n 1)
  for tag in "$@"; do
    [[ $tag =~ ^$prefix ]] || continue
    v=$(awk -v t="$tag" '$1 == t "@" t {print $2; exit}' "$symbols" 2>/dev/null || true)
    if [[ -z $v ]]; then
      case $tag in
        GLIBC_*) v=${tag#GLIBC_} ;;   # i386-only base versions (2.0, 2.1 ...)
        GCC_*) v=${tag#GCC_} ;;
        *) echo "package: no version known for $tag of $pkg" >&2; exit 1 ;;
      esac
    fi
    if [[ -z $best ]] || dpkg --compare-versions "$v" gt "$best"; then best=$v; fi
  done
  echo "$best"
}

runtime_depends() {  # <library>
  local lib=$1 deps=() soname pkg prefix tags
  for soname in $(objdump -p "$lib" | awk '$1 == "NEEDED" {print $2}'); do
    case $soname in
      libc.so.6 | libm.so.6 | ld-linux*.so.2) pkg=libc6 prefix=GLIBC_ ;;
      libstdc++.so.6) pkg=libstdc++6 prefix='(GLIBCXX_|CXXABI_)' ;;
      libgcc_s.so.1) pkg=libgcc-s1 prefix=GCC_ ;;
      *) echo "package: no Debian package known for $soname" >&2; exit 1 ;;
    esac
    tags=$(objdump -p "$lib" | awk -v s="$soname" '
      /required from/ {cur = ($3 == s ":")} cur && NF == 4 && $4 ~ /_/ {print $4}')
    # shellcheck disable=SC2086
    deps+=("$pkg (>= $(min_version "$pkg" "$prefix" $tags))")
  done
  # One entry per package, with the highest bound (libc6 comes from several sonames).
  printf '%s\n' "${deps[@]}" | sort -t'(' -k1,1 -k2,2V | awk -F' [(]' '
    {last[$1] = $0; if (!($1 in seen)) {order[++n] = $1; seen[$1] = 1}}
    END {for (i = 1; i <= n; i++) printf "%s%s", (i > 1 ? ", " : ""), last[order[i]]; print ""}'
}

installed_size() {  # <dir>: KiB as dpkg counts it, each file rounded up
  find "$1" -mindepth 1 -not -path "$1/DEBIAN*" -printf '%y %s\n' |
    awk '{ if ($1 == "f") n += int(($2 + 1023) / 1024); else n += 1 } END {print n}'
}

finish() {  # <package dir> <package> <deb arch>: docs, md5sums, time stamps, build
  local dir=$1 pkg=$2 debarch=$3 doc
  doc=$dir/usr/share/doc/$pkg
  mkdir -p "$doc"
  install -m 0644 packaging/copyright "$doc/copyright"
  install -m 0644 "$work/changelog.Debian.gz" "$work/changelog.gz" "$doc/"
  (cd "$dir" && find . -path ./DEBIAN -prune -o -type f -printf '%P\n' | LC_ALL=C sort |
     xargs md5sum) >"$dir/DEBIAN/md5sums"
  sed -i "s/^Installed-Size: .*/Installed-Size: $(installed_size "$dir")/" "$dir/DEBIAN/control"
  chmod 0644 "$dir/DEBIAN/"*
  find "$dir" -type d -exec chmod 0755 {} +
  find "$dir" -exec touch -h -d "@$SOURCE_DATE_EPOCH" {} +
  dpkg-deb --build --root-owner-group "$dir" "$out/${pkg}_${version}_${debarch}.deb" >/dev/null
  echo "package: $out/${pkg}_${version}_${debarch}.deb"
}

about=" libzelkit3 lets code written against Win32 run on POSIX: events and waits,
 tick and performance counters and the _s runtime functions under their
 Win32 names, thread, thread-pool and timer classes, a cross-process
 read-write lock on System V semaphores, OLE dates with time-zone
 conversion, a multi-encoding string, file helpers, assertions, a logger
 holder and a performance report."
description_runtime="Win32-style portability and utility library for Linux
$about
 .
 This package contains the shared library."
description_dev="Win32-style portability and utility library for Linux - development files
$about
 .
 This package contains the headers, the CMake package and the pkg-config
 file. Install it for each architecture you build for."

# control DIR PACKAGE DEPENDS SECTION DESCRIPTION: writes DIR/DEBIAN/control
# for one package of the architecture $debarch (Installed-Size is filled in
# by finish).
control() {
  cat >"$1/DEBIAN/control" <<CONTROL
Package: $2
Source: zelkit3
Version: $version
Architecture: $debarch
Multi-Arch: same
Maintainer: $maintainer
Installed-Size: 0
Depends: $3
Section: $4
Priority: optional
Description: $5
CONTROL
}

for preset in lib lib-i386; do
  if [[ $preset == lib-i386 ]]; then debarch=i386 multiarch=i386-linux-gnu; else debarch=amd64 multiarch=x86_64-linux-gnu; fi
  echo "=== build ($preset)"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" --target zelkit3
  stage=$root/$work/stage-$debarch
  DESTDIR=$stage cmake --install "build/$preset" --prefix /usr >/dev/null
  libdir=usr/lib/$multiarch
  [[ -f $stage/$libdir/libzelkit3.so.$version ]] || { echo "package: no library in $stage/$libdir" >&2; exit 1; }

  # The runtime package: the library under its full name and the SONAME link.
  rt=$work/$runtime-$debarch
  mkdir -p "$rt/DEBIAN" "$rt/$libdir"
  install -m 0644 "$stage/$libdir/libzelkit3.so.$version" "$rt/$libdir/"
  strip --strip-unneeded --remove-section=.comment --remove-section=.note "$rt/$libdir/libzelkit3.so.$version"
  ln -s "libzelkit3.so.$version" "$rt/$libdir/libzelkit3.so.$soversion"
  soname=$(objdump -p "$rt/$libdir/libzelkit3.so.$version" | awk '$1 == "SONAME" {print $2}')
  [[ $soname == "libzelkit3.so.$soversion" ]] || { echo "package: SONAME is $soname" >&2; exit 1; }
  control "$rt" "$runtime" "$(runtime_depends "$rt/$libdir/libzelkit3.so.$version")" libs \
    "$description_runtime"
  echo "libzelkit3 $soversion $runtime (>= $version)" >"$rt/DEBIAN/shlibs"
  echo "activate-noawait ldconfig" >"$rt/DEBIAN/triggers"
  finish "$rt" "$runtime" "$debarch"

  # The development package: headers, the link for -lzelkit3, CMake and pkg-config.
  dv=$work/$dev-$debarch
  mkdir -p "$dv/DEBIAN" "$dv/$libdir" "$dv/usr/include"
  cp -R "$stage/usr/include/zelkit3" "$dv/usr/include/"
  ln -s "libzelkit3.so.$soversion" "$dv/$libdir/libzelkit3.so"
  cp -R "$stage/$libdir/cmake" "$stage/$libdir/pkgconfig" "$dv/$libdir/"
  find "$dv/usr" -type f -exec chmod 0644 {} +
  control "$dv" "$dev" "$runtime (= $version), libboost-dev" libdevel "$description_dev"
  finish "$dv" "$dev" "$debarch"
done

if ((check)); then
  echo "=== check: callers of both ABIs against the extracted packages"
  bash tests/consumer/packages.sh "$out" "$root" all "$(command -v c++ || command -v g++)"
fi

if command -v lintian >/dev/null; then
  echo "=== lintian"
  lintian --fail-on error --info "$out"/*.deb && echo "lintian: no error"
else
  echo "=== lintian is not installed (apt-get install lintian): not run"
fi
