#!/usr/bin/env bash
# Writes to the example with a client, reads it back, and asks for more than it has room for.
. "$(dirname "$0")/served.sh"
start "$1"
expect "the empty tree" "$(names /)" ""
head -c 1000000 /dev/urandom >"$work/random"
nfs-cp "$work/random" "$(at random)" >"$work/copy"
nfs-cat "$(at random)" >"$work/back"
cmp "$work/random" "$work/back"
echo short >"$work/short"
nfs-cp "$work/short" "$(at short)" >"$work/copy"
expect "a second file" "$(nfs-cat "$(at short)")" short
expect "the listing" "$(names /)" "random short"
head -c 17000000 /dev/zero >"$work/large"
! nfs-cp "$work/large" "$(at large)" >"$work/copy" 2>&1 || { echo "more fits than there is room"; exit 1; }
finish
