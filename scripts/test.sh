#!/usr/bin/env bash
# Command 2: install what is missing, build both ABIs, make the Debian
# packages, run every test on each ABI.
# Further presets may be named (asan, asan-i386, tsan); default dev dev-i386.
# All presets are built before any test runs, so that the consumer test of
# each ABI finds the other ABI's tree and installs both side by side.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh test
presets=("$@")
((${#presets[@]})) || presets=(dev dev-i386)
ipc_before=$(ipcs -s | awk '$1 ~ /^0x/ {print $2}' | sort)
for preset in "${presets[@]}"; do
  bash scripts/build.sh "$preset"
done
# The package test (label "package") runs outside the sanitizers only; it
# checks the packages made here, so that it never checks stale ones.
for preset in "${presets[@]}"; do
  if [[ $preset != asan* && $preset != tsan* ]]; then
    echo "=== packages"
    bash scripts/package.sh --no-check
    break
  fi
done
for preset in "${presets[@]}"; do
  echo "=== tests ($preset)"
  ctest --preset "$preset"
done
# The tests remove every semaphore set they make, also when they fail.
ipc_after=$(ipcs -s | awk '$1 ~ /^0x/ {print $2}' | sort)
leaked=$(comm -13 <(echo "$ipc_before") <(echo "$ipc_after") | grep . || true)
if [[ -n "$leaked" ]]; then
  echo "test: semaphore sets left behind: $leaked" >&2
  exit 1
fi
