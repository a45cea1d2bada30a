#!/usr/bin/env bash
# Starts the example and reads one of its files with a client.
set -euo pipefail
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkfifo "$work/input"
"$1" <"$work/input" >"$work/output" &
exec 3>"$work/input"
for _ in $(seq 200); do [ -s "$work/output" ] && break; sleep 0.05; done
url=$(cat "$work/output")
[ "$(nfs-cat "${url%%\?*}hello.txt?${url#*\?}")" = "Hello from a program's own tree." ]
[ "$(nfs-ls "$url" | wc -l)" = 2 ]
exec 3>&-  # ends the example
wait $!
