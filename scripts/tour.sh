#!/usr/bin/env bash
# Command 1: install what building the library needs, build the library and
# the tour for both ABIs (release, no tests, no benchmarks), run the tour on each.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh tour
for preset in lib lib-i386; do
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" --target tour
done
for preset in lib lib-i386; do
  echo "=== tour ($preset)"
  "build/$preset/examples/tour"
done
