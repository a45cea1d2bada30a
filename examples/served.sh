# To be sourced by a check of an example:  start PROGRAM ARGUMENT...  serves in the background until the
# script ends, with what it says on standard error in $work/log;  at PATH  is the address of a file for
# the clients of libnfs;  expect WHAT GOT WANTED  compares.
set -euo pipefail
work=$(mktemp -d)
trap 'exec 3>&-; wait; rm -rf "$work"' EXIT

start() {
  mkfifo "$work/input"
  "$@" <"$work/input" >"$work/output" 2>"$work/log" &
  served=$!
  exec 3>"$work/input"
  for _ in $(seq 200); do [ -s "$work/output" ] && break; sleep 0.05; done
  url=$(cat "$work/output")
  [ -n "$url" ] || { echo "The example did not start:"; cat "$work/log"; exit 1; }
}

# Version 4 has no MOUNT program, and the client has to be told.
at() { echo "${url%%\?*}$1?${url#*\?}$([[ $url != *mountport=0 ]] || echo "&version=4")"; }

names() { nfs-ls "$(at "$1")" | awk '{ print $NF }' | sort | paste -sd ' '; }

expect() {
  [ "$2" = "$3" ] || { echo "$1: [$2] instead of [$3]"; cat "$work/log"; exit 1; }
}

# Ends the example, which has to leave without a failure.
finish() {
  exec 3>&-
  wait "$served"
}
