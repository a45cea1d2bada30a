#!/usr/bin/env bash
# In a machine whose kernel has an NFS client: mounts what the tool serves, with nobody asked for
# ports, compares the whole tree by ordinary programs and leaves nothing behind.
#
#   kernel_client.sh TOOL
set -euo pipefail
cd "$(dirname "$0")"
tool=$1
work=/run/kernel-client
server=
finish() {
  # The mount goes first: a client whose server is gone waits for it.
  if mountpoint -q $work/mount; then umount -f -l $work/mount || true; fi
  if [ -n "$server" ] && kill -0 "$server" 2>/dev/null; then kill "$server"; wait "$server" || true; fi
  rm -rf $work
}
trap finish EXIT
step() { echo "kernel client: $*"; }
fail() { echo "kernel client: FAILED: $*" >&2; [ ! -e $work/errors ] || cat $work/errors >&2; exit 1; }
until_true() { for _ in $(seq 200); do "$@" && return; sleep 0.05; done; return 1; }

mkdir -p $work/mount
# Emulation is slow: the crowd is listed, the rest is compared.
python3 - $work/tree <<'PYTHON'
import pathlib, sys
import support
tree = pathlib.Path(sys.argv[1])
tree.mkdir()
support.crowded_directory(tree / "crowded", 5000)
support.small_tree(tree / "compared")
support.odd_tree(tree / "compared/odd")
(tree / "compared/big").write_bytes(support.pattern(16 << 20))
PYTHON

"$tool" serve $work/tree >$work/announcement 2>$work/errors &
server=$!
until_true grep -q '^ready$' $work/announcement || fail "the tool did not get ready"
value() { sed -n "s/^$1 //p" $work/announcement; }

step "mounting"
dmesg --clear
mount -t nfs -o "ro,vers=3,proto=tcp,nolock,port=$(value nfs-port),mountport=$(value mount-port)" \
  "$(value address):$(value export)" $work/mount || fail "mount"
grep " $work/mount nfs ro," /proc/mounts

step "listing"
[ "$(ls -U -A $work/mount/crowded | wc -l)" = 5000 ] || fail "5,000 entries are listed as another number"
listing() { (cd "$1" && find . '(' -type d -printf '%P %m %U %G\n' ')' -o -printf '%P %y %m %U %G %n %s %l\n') | LC_ALL=C sort; }
listing $work/tree/compared >$work/expected
listing $work/mount/compared >$work/found
diff $work/expected $work/found || fail "the listings differ"

step "comparing"
# -x: two pipes are never the same to diff.
diff -r --no-dereference -x 'a pipe' $work/tree/compared $work/mount/compared || fail "the trees differ"

step "copying"
cp -a $work/mount/compared $work/copy
diff -r --no-dereference -x 'a pipe' $work/tree/compared $work/copy || fail "the copy differs"

step "changing"
if touch $work/mount/compared/new 2>/dev/null; then fail "a read-only mount took a new file"; fi
df $work/mount >/dev/null || fail "df"

step "unmounting"
timeout 60 umount $work/mount || fail "umount"
kill "$server"
wait "$server" || fail "the tool ended with status $?"
server=
if dmesg | grep -i -E 'nfs|rpc|error|BUG|WARN'; then fail "the kernel has something to say"; fi
step "passed"
