# Sourced by run.sh and packages.sh: builds and runs the caller of one ABI
# against an installed tree, once with find_package(zelkit3) and once with
# pkg-config, and checks that each found that ABI's own files.
# check_callers TAG ABI PREFIX LIBDIR LD_PATH SOURCE_DIR CXX WORK_DIR
check_callers() {
  local tag=$1 abi=$2 prefix=$3 libdir=$4 ld_path=$5 src=$6 cxx=$7 work=$8
  local toolchain=() m32=() found pc_libdir flags
  if [[ $abi == i386 ]]; then
    toolchain=(-DCMAKE_TOOLCHAIN_FILE="$src/cmake/i386.toolchain.cmake")
    m32=(-m32 -msse2 -mfpmath=sse)
  fi
  cmake -S "$src/tests/consumer/project" -B "$work/build-$abi" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_COMPILER="$cxx" "${toolchain[@]}" >/dev/null
  found=$(grep '^zelkit3_DIR:' "$work/build-$abi/CMakeCache.txt" | cut -d= -f2)
  if [[ $found != "$libdir/cmake/zelkit3" ]]; then
    echo "$tag: FAIL the $abi caller found the package in $found" >&2
    exit 1
  fi
  cmake --build "$work/build-$abi" >/dev/null
  LD_LIBRARY_PATH=$ld_path "$work/build-$abi/consumer"
  echo "$tag: $abi find_package caller ok (package in ${libdir#"$prefix"/}/cmake)"

  pc_libdir=$(PKG_CONFIG_LIBDIR=$libdir/pkgconfig pkg-config --variable=libdir zelkit3)
  if [[ $(cd "$pc_libdir" && pwd) != "$libdir" ]]; then
    echo "$tag: FAIL zelkit3.pc of $abi names libdir $pc_libdir" >&2
    exit 1
  fi
  flags=$(PKG_CONFIG_LIBDIR=$libdir/pkgconfig pkg-config --cflags --libs zelkit3)
  # shellcheck disable=SC2086
  "$cxx" "${m32[@]}" -std=c++11 "$src/tests/consumer/project/main.cpp" $flags -o "$work/pc-$abi"
  LD_LIBRARY_PATH=$ld_path "$work/pc-$abi"
  echo "$tag: $abi pkg-config caller ok"
}
