#!/usr/bin/env bash
# run.sh EXAMPLE FILE TEXT: starts an example, which prints the address of its share, and checks that a
# client reads TEXT from FILE there. The example ends with its standard input.
set -euo pipefail
command -v nfs-cat >/dev/null || { echo "skipped: the package libnfs-utils is missing"; exit 77; }
coproc HOST { exec "$1"; }
host=$HOST_PID
trap 'kill $host 2>/dev/null || true' EXIT
read -r -t 20 -u "${HOST[0]}" url || { echo "the example did not start" >&2; exit 1; }
text=$(nfs-cat "${url/\/\?//$2?}")
[ "$text" = "$3" ] || { echo "read: $text" >&2; exit 1; }
exec {HOST[1]}>&-
wait "$host"
