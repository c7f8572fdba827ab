#!/usr/bin/env bash
# Fuzzes the TZif parser with libFuzzer, outside the CMake build.
# Usage: scripts/fuzz-date.sh [seconds] [workdir]   (default 60 s, /tmp/zk3-fuzz-date)
# The corpus is seeded with the crafted regression files of tests/date/data/
# and with the system's zone files. A finding leaves crash-* files in the
# workdir and a non-zero exit status.
set -euo pipefail
seconds=${1:-60}
work=${2:-/tmp/zk3-fuzz-date}
root=$(cd "$(dirname "$0")/.." && pwd)
mkdir -p "$work/corpus"

clang++ -std=c++17 -g -O1 -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=undefined \
  -msse2 -I"$root/include" -I"$root/src" \
  "$root/tests/date/fuzz/tzif_fuzz.cpp" \
  "$root/src/date/tzif_parser.cpp" "$root/src/date/civil.cpp" \
  "$root/src/date/zone_rules.cpp" "$root/src/date/serial.cpp" \
  -o "$work/tzif_fuzz"

cp "$root"/tests/date/data/corpus/* "$work/corpus/" 2>/dev/null || true
for zone in America/New_York Europe/London Australia/Sydney America/Sao_Paulo Asia/Kolkata UTC; do
  cp "/usr/share/zoneinfo/$zone" "$work/corpus/$(echo "$zone" | tr / _)"
done

cd "$work"
./tzif_fuzz -max_total_time="$seconds" -max_len=4096 -print_final_stats=1 corpus
