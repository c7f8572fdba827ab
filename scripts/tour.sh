#!/usr/bin/env bash
# Command 1: install what is missing, build both ABIs, run the tour on each.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
bash scripts/build.sh dev dev-i386
for preset in dev dev-i386; do
  echo "=== tour ($preset)"
  "build/$preset/examples/tour"
done
