#!/usr/bin/env bash
# In a machine whose kernel has an NFS client: mounts what the tool serves, with nobody asked for
# ports, compares the whole tree by ordinary programs and leaves nothing behind.
#
#   kernel_client.sh TOOL
name=kernel-client
. "$(dirname "$0")/kernel_mount.sh"

mkdir -p $work
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
serve_and_mount $work/tree ro

step "listing"
[ "$(ls -U -A $mount/crowded | wc -l)" = 5000 ] || fail "5,000 entries are listed as another number"

step "comparing"
same_trees $work/tree/compared $mount/compared "the mount"

step "copying"
cp -a $mount/compared $work/copy
same_trees $work/tree/compared $work/copy "the copy"

step "changing"
if touch $mount/compared/new 2>/dev/null; then fail "a read-only mount took a new file"; fi
df $mount >/dev/null || fail "df"

unmount_and_stop
step "passed"
