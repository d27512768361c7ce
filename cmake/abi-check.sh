#!/bin/sh
# abi-check.sh ABIDIFF DESCRIPTION LIBRARY
# Compares the library's exported interface with the committed description.
# Any difference fails: abidiff counts a record that grows or a parameter that
# changes type as a change, not as an incompatible one, and either breaks the
# runtime's calls.
set -u
abidiff=$1 description=$2 library=$3
"$abidiff" --no-added-syms "$description" "$library"
rc=$?
if [ "$rc" -ne 0 ]; then
    echo "abidiff exit status $rc: $library differs from $description"
    echo "(a change made on purpose: cmake --build <build> --target abi-update)"
    echo "0 passed, 1 failed"
    exit 1
fi
echo "interface of $(basename "$library") as described in $(basename "$description")"
echo "1 passed, 0 failed"
