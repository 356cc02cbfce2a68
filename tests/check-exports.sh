#!/usr/bin/env bash
# Compares the dynamic symbols that a shared library defines with the intended list.
# Usage: check-exports.sh LIBRARY EXPECTED-LIST
# The list holds demangled names, one a line; lines starting with # are comments. Symbols that a
# sanitizer adds to an instrumented build are not part of the interface and are left out.
set -euo pipefail
lib=$1
expected=$2
actual=$(nm -D --defined-only "$lib" | awk '{print $3}' | grep -v -E '^(_init|_fini|_edata|_end|__bss_start)$' \
  | grep -v -E "^__(odr_asan|asan|ubsan|tsan)" | c++filt | LC_ALL=C sort -u)
wanted=$(grep -v -E '^\s*(#|$)' "$expected" | LC_ALL=C sort -u)
extra=$(LC_ALL=C comm -23 <(printf '%s\n' "$actual") <(printf '%s\n' "$wanted"))
missing=$(LC_ALL=C comm -13 <(printf '%s\n' "$actual") <(printf '%s\n' "$wanted"))
status=0
if [ -n "$extra" ]; then
  echo "Exported but not part of the interface:"; printf '  %s\n' "$extra"; status=1
fi
if [ -n "$missing" ]; then
  echo "Part of the interface but not exported:"; printf '  %s\n' "$missing"; status=1
fi
[ $status -eq 0 ] && echo "$(printf '%s\n' "$actual" | wc -l) exported symbols, as intended."
exit $status
