#!/usr/bin/env bash
# In a machine whose kernel has an NFS client: mounts what the tool serves, with nobody asked for
# ports, compares the whole tree by ordinary programs and leaves nothing behind.
#
#   kernel_client.sh TOOL [3|4.0|4.1 [--classic]]
version=${2:-3}
profile=${3:-}
name=kernel-client-$version$profile
. "$(dirname "$0")/kernel_mount.sh"

mkdir -p $work
# Emulation is slow: the crowd is listed, the rest is compared.
crowd=5000
if [ $version != 3 ]; then crowd=1000; fi
python3 - $work/tree $crowd <<'PYTHON'
import pathlib, sys
import support
tree = pathlib.Path(sys.argv[1])
tree.mkdir()
support.crowded_directory(tree / "crowded", int(sys.argv[2]))
support.small_tree(tree / "compared")
support.odd_tree(tree / "compared/odd")
(tree / "compared/big").write_bytes(support.pattern(16 << 20))
PYTHON
serve_and_mount $work/tree ro

step "listing"
[ "$(ls -U -A $mount/crowded | wc -l)" = $crowd ] || fail "$crowd entries are listed as another number"

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
