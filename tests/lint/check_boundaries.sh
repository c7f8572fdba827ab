#!/usr/bin/env bash
# Checks the layering of the sources and the build files:
# - a family's file includes no other family's internal header: families
#   meet only through src/base/ and the public headers (the load hooks,
#   src/frame/hooks.cpp, may include each family's load_steps.h);
# - src/base/ includes no family's internal header;
# - no build file globs its sources: every source is listed by name.
# Usage: check_boundaries.sh SOURCE_DIR
set -euo pipefail
cd "$1"
families="frame win_emul text threads rwlock filesystem date"
fail=0

while IFS= read -r -d '' file; do
  own=${file#src/}
  own=${own%%/*}
  while IFS= read -r included; do
    other=${included%%/*}
    [[ " $families " == *" $other "* ]] || continue  # base/, zelkit3/, system headers
    [[ $other == "$own" ]] && continue
    if [[ $file == src/frame/hooks.cpp && $included == */load_steps.h ]]; then continue; fi
    echo "FAIL: $file includes \"$included\", an internal header of $other"
    fail=1
  done < <(sed -n 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"\([^"]*\)".*/\1/p' "$file")
done < <(find src -type f \( -name '*.cpp' -o -name '*.h' \) -print0 | sort -z)

while IFS= read -r -d '' file; do
  if grep -nE '^[^#]*file\((GLOB|GLOB_RECURSE)[[:space:]]' "$file"; then
    echo "FAIL: $file globs files; list the sources by name"
    fail=1
  fi
done < <(find . -path ./build -prune -o -type f \( -name CMakeLists.txt -o -name '*.cmake' \) -print0)

((fail == 0)) && echo "boundaries: every family keeps to itself, every source is listed"
exit "$fail"
