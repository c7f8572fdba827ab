#!/usr/bin/env bash
# Checks the lock annotations with clang's -Wthread-safety: every library
# source must compile without a warning, and a caller that touches guarded
# data without its lock must be warned (so the annotations are really live).
# Usage: check_lock_annotations.sh CLANGXX SOURCE_DIR [extra flags...]
set -euo pipefail
clangxx=$1
root=$2
shift 2
flags=(-std=c++17 -fsyntax-only -Wthread-safety -Werror -I"$root/include" -I"$root/src"
       -DZK3_BUILDING_LIBRARY "$@")

# Two at a time: each file takes about a second.
find "$root/src" -name '*.cpp' -print0 | sort -z |
  xargs -0 -n 4 -P 2 "$clangxx" "${flags[@]}"

probe=$(mktemp --suffix=.cpp)
trap 'rm -f "$probe"' EXIT
cat >"$probe" <<'CPP'
#include "zelkit3/performance.h"
void touchWithoutLock() { zelkit3::PerformanceLogger::getInstance()->mRecords.clear(); }
CPP
if out=$("$clangxx" "${flags[@]}" "$probe" 2>&1); then
  echo "FAIL: guarded data was touched without its lock and clang said nothing"
  exit 1
fi
if ! grep -q "requires holding mutex" <<<"$out"; then
  echo "FAIL: the probe failed for another reason:"
  echo "$out"
  exit 1
fi
echo "lock annotations: clean, and live"
