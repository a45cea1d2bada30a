#!/usr/bin/env bash
# Shows what this is for: builds the release, serves a directory, and has a client that is not ours
# list it and read every file, each byte compared with the original.
#
#   scripts/demo.sh [DIRECTORY]       /usr/include unless given
#
# Installs what is missing (as root). Serves on a loopback network of its own, so that nothing is
# reachable from outside and nothing on this machine is in the way.
set -euo pipefail
here=$(pwd)
cd "$(dirname "$0")/.."
project=$PWD

say() { printf '\n%s\n' "$*"; }
fail() { echo "demo: $*" >&2; exit 1; }
# A line that is written over while a person watches, and written now and then into a file.
if [ -t 1 ]; then every=1 line='\r\033[K%s' end='\n'; else every=10 line='%s\n' end=''; fi

# ---- Second part, inside the private network

serve_and_compare() {
  local directory=$1 tool=$project/build/release/bin/nfslib
  server=
  work=$(mktemp -d)
  finish() {
    [ -z "$server" ] || { kill "$server" && wait "$server"; } 2>/dev/null || true
    rm -rf "$work"
  }
  trap finish EXIT
  trap 'exit 130' INT
  trap 'exit 143' TERM

  say "Serving $directory"
  "$tool" serve "$directory" --log-level warn >"$work/announcement" 2>"$work/errors" &
  server=$!
  for _ in $(seq 200); do
    grep -q '^ready$' "$work/announcement" && break
    kill -0 $server 2>/dev/null || fail "the tool ended: $(cat "$work/errors")"
    sleep 0.05
  done
  grep -q '^ready$' "$work/announcement" || fail "the tool did not get ready within 10 seconds"
  value() { sed -n "s/^$1 //p" "$work/announcement"; }
  local export_url ports
  export_url="nfs://$(value address)$(value export)"
  ports="?nfsport=$(value nfs-port)&mountport=$(value mount-port)"
  echo "  as $export_url, ports $(value nfs-port) and $(value mount-port)"

  say "Listing it with nfs-ls"
  # Types, permissions and names. nfs-ls shows neither set-id nor sticky bits and no special files.
  (cd "$directory" && find . -mindepth 1 '(' -type f -o -type d -o -type l ')' -printf '%M %P\n') |
    sed -E 's/^(.{3})s/\1x/; s/^(.{3})S/\1-/; s/^(.{6})s/\1x/; s/^(.{6})S/\1-/; s/^(.{9})t/\1x/; s/^(.{9})T/\1-/' |
    LC_ALL=C sort >"$work/expected"
  nfs-ls -R "$export_url/$ports" >"$work/listing" ||
    fail "nfs-ls could not list the share: $(tail -n 1 "$work/listing")"
  sed -nE 's/^([-dl].{9}) +[0-9]+ +[0-9]+ +[0-9]+ +[0-9]+ \/*/\1 /p' "$work/listing" |
    LC_ALL=C sort >"$work/listed"
  diff "$work/expected" "$work/listed" >"$work/difference" ||
    fail "the listing differs from the directory: $(head -n 5 "$work/difference")"
  echo "  $(wc -l <"$work/listed") objects, the same names, types and permissions as in the directory"

  say "Reading every file through libnfs and comparing it with the original"
  "$project/build/release/bin/libnfs_compare" --progress "$export_url/$ports" "$directory" \
    2>"$work/difference" || fail "the comparison failed: $(cat "$work/difference")"

  kill $server
  wait $server || fail "the tool ended with status $?"
  server=
  mount_and_compare "$directory" "$tool"
  say "Every file of $directory came through NFS as it is there: every byte is equal."
}

# Where the kernel has an NFS client, ordinary programs see the directory as well.
mount_and_compare() {
  local directory=$1 tool=$2
  modprobe -q nfs 2>/dev/null || true
  # In a user namespace root is root of little.
  if [ "$(id -u)" != 0 ] || [ "$(awk '{ print $3 }' /proc/self/uid_map)" != 4294967295 ] ||
    ! command -v mount.nfs >/dev/null || ! grep -q '^nodev\snfs$' /proc/filesystems; then
    say "Not mounting it: that takes root, mount.nfs and an NFS client in the kernel"
    return
  fi
  say "Mounting it and comparing it with diff"
  mkdir "$work/mount"
  "$tool" mount "$directory" "$work/mount" >"$work/announcement" 2>"$work/errors" &
  server=$!
  for _ in $(seq 600); do
    grep -q '^mounted' "$work/announcement" && break
    kill -0 $server 2>/dev/null || fail "the tool ended: $(cat "$work/errors")"
    sleep 0.05
  done
  diff -r --no-dereference "$directory" "$work/mount" >"$work/difference" ||
    fail "the mounted directory differs: $(head -n 5 "$work/difference")"
  kill $server
  wait $server || fail "the tool ended with status $?"
  server=
  echo "  no difference"
}

if [ "${1:-}" = --serve-and-compare ]; then
  serve_and_compare "$2"
  exit
fi

# ---- First part

directory=${1:-/usr/include}
directory=$(cd "$here" && realpath -e "$directory" 2>/dev/null) || fail "there is no $1"
[ -d "$directory" ] || fail "$directory is not a directory"

scripts/packages.sh demo

say "Building the release (about a minute from scratch)"
if command -v ccache >/dev/null; then export CMAKE_CXX_COMPILER_LAUNCHER=ccache; fi
mkdir -p build/logs
log=build/logs/demo-build.log
cmake --preset release >"$log" 2>&1 || { tail -n 20 "$log" >&2; fail "the build could not be set up"; }
cmake --build --preset release -j "$(nproc)" 2>&1 | tee -a "$log" |
  awk -v every=$((every == 1 ? 1 : 25)) -v line="$line" '
    match($0, /^\[[0-9]+\/[0-9]+\]/) {
      split(substr($0, 2, RLENGTH - 2), step, "/")
      if (step[1] % every == 0 || step[1] == step[2]) { printf line, "  step " step[1] " of " step[2]; fflush() }
    }' || { tail -n 30 "$log" >&2; fail "the build failed"; }
printf "$end"
c++ -std=c++20 -O2 tests/e2e/libnfs_compare.cpp -lnfs -o build/release/bin/libnfs_compare >>"$log" 2>&1 ||
  { tail -n 30 "$log" >&2; fail "the comparing client could not be built"; }

tests/support/private_network.sh scripts/demo.sh --serve-and-compare "$directory"
say "To have it mounted: sudo build/release/bin/nfslib mount $directory /mnt"
