#!/usr/bin/env bash
# Installs what libzelkit3 needs to build, test and benchmark on Debian 12.
# Idempotent: installs only the packages that are missing. Run as root.
set -euo pipefail

packages=(
  cmake make g++ g++-multilib         # toolchain for x86_64 and i386 (-m32)
  libboost-dev                        # shared_ptr, weak_ptr, noncopyable; Asio and Interprocess peers
  googletest                          # sources, built per ABI from /usr/src/googletest
  libbenchmark-dev                    # Google Benchmark (x86_64)
  tzdata                              # zone files under /usr/share/zoneinfo
  libhowardhinnant-date-dev libabsl-dev  # peers of the date benchmarks
  binutils util-linux pkgconf         # nm for the symbol test, ipcs for the lock tests, the consumer test
  clang clang-tidy                    # lint tests: lock annotations (-Wthread-safety), clang-tidy
)
if [[ "${ZK3_FUZZ:-0}" == 1 ]]; then
  packages+=(libclang-rt-14-dev)
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if ((${#missing[@]})); then
  echo "setup: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
else
  echo "setup: everything is installed"
fi
