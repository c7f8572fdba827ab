#!/usr/bin/env bash
# Installs the Debian 12 packages that libzelkit3 needs; run as root.
# Usage: setup.sh [tour|test]   (default test)
#   tour: what building the library and the examples needs;
#   test: that, plus what the tests, the benchmarks and the packaging need.
# Idempotent: installs only the packages that are missing. Prints one line;
# apt's own output goes to build/setup.log, whose tail is shown on failure.
set -euo pipefail
cd "$(dirname "$0")/.."
level=${1:-test}

packages=(
  cmake make g++ g++-multilib         # toolchain for x86_64 and i386 (-m32)
  libboost-dev                        # shared_ptr, weak_ptr, noncopyable (public headers)
  tzdata                              # zone files under /usr/share/zoneinfo
)
if [[ $level == test ]]; then
  packages+=(
    googletest                        # sources, built per ABI from /usr/src/googletest
    libbenchmark-dev                  # Google Benchmark (x86_64)
    libhowardhinnant-date-dev libabsl-dev  # peers of the date benchmarks
    binutils util-linux pkgconf       # nm, readelf, objdump, strip; ipcs; the consumer tests
    clang clang-tidy                  # lint tests: lock annotations (-Wthread-safety), clang-tidy
    locales                           # fr_FR sources: the escape test compiles an ISO-8859-1 locale
  )
elif [[ $level != tour ]]; then
  echo "usage: setup.sh [tour|test]" >&2
  exit 2
fi
if [[ "${ZK3_FUZZ:-0}" == 1 ]]; then
  packages+=(libclang-rt-14-dev)
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if ((${#missing[@]} == 0)); then
  echo "setup: everything for '$level' is installed"
  exit 0
fi
if ((EUID != 0)); then
  echo "setup: missing ${missing[*]}; installing them needs root (apt-get)" >&2
  exit 1
fi
mkdir -p build
log=build/setup.log
printf 'setup: installing %d package(s) for %s (%s) ... ' "${#missing[@]}" "$level" "$log"
export DEBIAN_FRONTEND=noninteractive
if { echo "== $(date -u +%FT%TZ) setup $level: ${missing[*]}"
     apt-get update -q && apt-get install -y -q --no-install-recommends "${missing[@]}"; } >>"$log" 2>&1; then
  echo "done"
else
  echo "FAILED; the end of $log:"
  tail -n 25 "$log"
  exit 1
fi
