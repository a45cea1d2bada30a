#!/usr/bin/env bash
# In a machine whose kernel has an NFS client: what only version 4 has. Processes that read open
# files in turn, two mounts that see each other's changes, and the minor versions that a client may
# ask for.
#
#   kernel_version4.sh TOOL [--classic]
profile=${2:-}
name=kernel-version4$profile
version=4.0
. "$(dirname "$0")/kernel_mount.sh"
tree=$work/tree
second=$work/second

mkdir -p $tree $second
python3 - $tree <<'PYTHON'
import pathlib, sys
import support
tree = pathlib.Path(sys.argv[1])
for number in range(10):
    (tree / f"turn{number}").write_bytes(support.pattern(640 << 10, number + 1))
for number in range(300):
    (tree / f"listed {number:03}").touch()
(tree / "directory/inner").mkdir(parents=True)
(tree / "directory/inner/link").symlink_to("../../turn1")
PYTHON

serve_and_mount $tree rw --rw

# Each process has all ten files open; every READ names another file than the one before it, and
# goes to the server. They end, and close, one after the other.
step "ten files read in turn by ten processes"
python3 - $mount $tree <<'PYTHON' || fail "reading in turn"
import os, sys
import support
mount, tree = sys.argv[1:]
BLOCK = 64 << 10
def read_in_turn(process):
    expected = [os.open(f"{tree}/turn{i}", os.O_RDONLY) for i in range(10)]
    files = [os.open(f"{mount}/turn{i}", os.O_RDONLY | os.O_DIRECT) for i in range(10)]
    for turn in range(10 + process):
        number, offset = (process + 3 * turn) % 10, turn * 7 % 10 * BLOCK
        assert os.pread(files[number], BLOCK, offset) == os.pread(expected[number], BLOCK, offset), \
            f"process {process} got something else in turn {turn}"
    for file in files[process:] + files[:process]:
        os.close(file)
children = []
for process in range(10):
    if (child := os.fork()) == 0:
        try:
            read_in_turn(process)
        except BaseException as error:
            print(error, file=sys.stderr, flush=True)
            os._exit(1)
        os._exit(0)
    children.append(child)
assert [os.waitpid(child, 0)[1] for child in children] == [0] * 10
PYTHON

step "two mounts of one export"
mount_served rw $second nosharecache
is "the mounts" 2 "$(grep -c " $work/[a-z]* nfs4 " /proc/mounts)"
# Times have whole seconds on the wire, and they tell a client that it has to ask again.
next_second() { local now=$(date +%s); until_true later_than $now; }
later_than() { [ $(date +%s) -gt $1 ]; }
echo one >$mount/shared
is "what the first wrote" one "$(cat $second/shared)"
next_second
echo two >>$second/shared
is "what the second added" "one two" "$(echo $(cat $mount/shared))"
next_second
echo three >$mount/shared
is "what the first put in its place" three "$(cat $second/shared)"
next_second
mv $mount/shared $mount/moved
mkdir $mount/made
until_true [ -d $second/made ] || fail "the second does not see a new directory"
is "after a rename" three "$(cat $second/moved)"
rm $second/moved
rmdir $second/made
until_true [ ! -e $mount/moved ] || fail "the first still sees a removed file"
umount $second || fail "umount"
unmount_and_stop

# In the classic profile opening a file takes the client up to five seconds from minor version 1 on.
for version in 4.1 4; do
  serve_and_mount $tree rw --rw
  step "version $version: list, read, write, compare"
  listing $tree >$work/expected
  listing $mount >$work/found
  diff $work/expected $work/found || fail "the listings differ"
  is "a link" ../../turn1 "$(readlink $mount/directory/inner/link)"
  cmp $tree/turn3 $mount/turn3 || fail "a file differs"
  mkdir $mount/new
  cat $tree/turn* >$mount/new/written
  mv $mount/new $mount/renamed
  cat $tree/turn* | cmp - $tree/renamed/written || fail "what was written differs"
  rm -r $mount/renamed
  is "what is left" "$(cd $tree && ls)" "$(cd $mount && ls)"
  unmount_and_stop
done
step "passed"
