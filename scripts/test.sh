#!/usr/bin/env bash
# Command 2: install what is missing, build both ABIs, run every test on each.
# Further presets may be named (asan, asan-i386, tsan); default dev dev-i386.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
presets=("$@")
((${#presets[@]})) || presets=(dev dev-i386)
ipc_before=$(ipcs -s | awk '$1 ~ /^0x/ {print $2}' | sort)
for preset in "${presets[@]}"; do
  bash scripts/build.sh "$preset"
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
