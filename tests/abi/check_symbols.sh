#!/usr/bin/env bash
# Compares the dynamic symbols that libzelkit3 defines with the stored lists:
# tests/abi/symbols/<family>.txt for both ABIs and <family>.<arch>.txt for one.
# Usage: check_symbols.sh <library> <symbols-dir> <arch>
set -euo pipefail
lib=$1 dir=$2 arch=$3

mangled=$(nm -D --defined-only "$lib")
actual=$(nm -DC --defined-only "$lib" | sed -E 's/^[0-9a-fA-F]+ [A-Za-z] //' \
  | grep -vxE '_init|_fini|_edata|_end|__bss_start' | LC_ALL=C sort -u)

lists=()
for f in "$dir"/*.txt; do
  base=$(basename "$f" .txt)
  case "$base" in
    *.i386|*.x86_64) [[ "$base" == *".$arch" ]] && lists+=("$f") ;;
    *) lists+=("$f") ;;
  esac
done
expected=$(cat "${lists[@]}" | grep -vE '^\s*(#|$)' | LC_ALL=C sort -u)

status=0
missing=$(LC_ALL=C comm -23 <(echo "$expected") <(echo "$actual"))
extra=$(LC_ALL=C comm -13 <(echo "$expected") <(echo "$actual"))
if [[ -n "$missing" ]]; then
  printf 'not exported but listed:\n%s\n' "$missing"; status=1
fi
if [[ -n "$extra" ]]; then
  printf 'exported but not listed:\n%s\n' "$extra"; status=1
fi
# The event objects are internal: callers see only void*.
if grep -E 'CBaseHandle|CWinEventHandle' <<<"$actual"; then
  echo "internal event classes are exported"; status=1
fi
# DWORD arguments are unsigned long on both ABIs ("m" in the mangled name).
# (grep reads a variable, not a pipe from nm: with pipefail, grep -q stopping
# early would kill nm with SIGPIPE and fail the check at random.)
if ! grep -q ' _ZN7zelkit38win_emul19WaitForSingleObjectEPvm$' <<<"$mangled"; then
  echo "WaitForSingleObject(void*, unsigned long) has the wrong mangled name"; status=1
fi
[[ $status == 0 ]] && echo "exported surface matches ($(wc -l <<<"$actual") symbols)"
exit $status
