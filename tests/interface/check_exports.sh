#!/bin/sh
# The library's dynamic symbol table must hold exactly the documented routines:
# every one of them, and nothing else (no C++ symbols, no state variables).
set -eu
lib=$1
list=$2
want=$(mktemp) got=$(mktemp)
trap 'rm -f "$want" "$got"' EXIT
grep -E '^[A-Za-z_]' "$list" | sort -u >"$want"
# Defined dynamic symbols, minus the version node the linker adds.
"${NM:-nm}" -D --defined-only "$lib" | awk '{print $NF}' | grep -v -E '^(KPLC|VERS_)' | sed 's/@.*//' | sort -u >"$got"
if ! diff -u "$want" "$got"; then
    echo "exported symbols differ from $list (- missing, + unexpected)"
    echo "0 passed, 1 failed"
    exit 1
fi
nontext=$("${NM:-nm}" -D --defined-only "$lib" | awk '$2 !~ /^[TtWw]$/ {print $NF}')
if [ -n "$nontext" ]; then
    echo "exported symbols that are not routines: $nontext"
    echo "0 passed, 1 failed"
    exit 1
fi
echo "$(wc -l <"$want") routines exported, nothing else"
echo "1 passed, 0 failed"
