#!/usr/bin/env bash
# Reads the files of the example with a client, and compares every byte with what they ought to be.
. "$(dirname "$0")/served.sh"
cd "$(dirname "$0")"
lines=$(cat generated_files.cpp read_only.h serve.h | wc -l)
[ "$lines" -lt 120 ] || { echo "The smallest host has $lines lines: make it smaller."; exit 1; }
grep -q "; $lines lines with its headers" ../README.md || { echo "README.md: it has $lines lines"; exit 1; }
start "$1"
expect "the listing" "$(names /)" "digits.txt letters.txt"
nfs-cat "$(at letters.txt)" >"$work/letters"
cmp "$work/letters" <(yes abcdefghijklmnopqrstuvwxyz | head -n 10000)
nfs-cat "$(at digits.txt)" >"$work/digits"
cmp "$work/digits" <(yes 0123456789 | head -n 10000)
! nfs-cat "$(at absent.txt)" >"$work/absent" 2>&1 || { echo "absent.txt can be read"; exit 1; }
! nfs-cp "$work/digits" "$(at new.txt)" >"$work/new" 2>&1 || { echo "new.txt can be written"; exit 1; }
finish
