#!/usr/bin/env bash
# Lays one directory over another and looks at them with a client.
. "$(dirname "$0")/served.sh"
mkdir -p "$work"/{upper,lower}/both "$work/upper/mixed" "$work/lower/below"
echo upper >"$work/upper/hides"
echo lower >"$work/lower/hides"
echo lower >"$work/lower/shows"
echo a file >"$work/lower/mixed"
echo upper >"$work/upper/both/a"
echo lower >"$work/lower/both/b"
echo lower >"$work/lower/below/deep"
start "$1" "$work/upper" "$work/lower"
expect "the root" "$(names /)" "below both hides mixed shows"
expect "a directory of both" "$(names both)" "a b"
expect "a file that is hidden" "$(nfs-cat "$(at hides)")" upper
expect "a file that shows" "$(nfs-cat "$(at shows)")" lower
expect "a file of the upper directory" "$(nfs-cat "$(at both/a)")" upper
expect "a file of the lower directory" "$(nfs-cat "$(at both/b)")" lower
expect "a file below the lower tree's own" "$(nfs-cat "$(at below/deep)")" lower
expect "a directory over a file" "$(names mixed)" ""
! nfs-cp "$work/upper/hides" "$(at new)" >"$work/new" 2>&1 || { echo "new can be written"; exit 1; }
expect "the upper directory" "$(cd "$work/upper" && find . -type f | sort | paste -sd ' ')" "./both/a ./hides"
finish
