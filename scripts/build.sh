#!/usr/bin/env bash
# Configures and builds the given presets (default: dev and dev-i386).
set -euo pipefail
cd "$(dirname "$0")/.."
presets=("$@")
((${#presets[@]})) || presets=(dev dev-i386)
for preset in "${presets[@]}"; do
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
done
