#!/usr/bin/env bash
# In a machine whose kernel has an NFS client: ordinary programs change a writable mount, and what
# they did is compared through the mount and where it is served from.
#
#   kernel_writer.sh TOOL [3|4.0|4.1 [--classic]]
version=${2:-3}
profile=${3:-}
name=kernel-writer-$version$profile
. "$(dirname "$0")/kernel_mount.sh"

tree=$work/tree
original=$work/original
mkdir -p $tree
# The crowd is there before anybody looks. Times of whole seconds survive every copy.
crowd=3000
if [ $version != 3 ]; then crowd=300; fi # which differs in nothing but the protocol
python3 - $original $tree/crowded $crowd <<'PYTHON'
import os, pathlib, sys
import support
support.small_tree(pathlib.Path(sys.argv[1]))
for number, name in enumerate(sorted(support.names_below(sys.argv[1]))):
    time = 1_400_000_000 + number
    os.utime(os.path.join(sys.argv[1], name), (time, time), follow_symlinks=False)
support.crowded_directory(pathlib.Path(sys.argv[2]), int(sys.argv[3]))
PYTHON
serve_and_mount $tree rw --rw
# From here on the client has to ask for every name and every byte.
forget() {
  umount $mount || fail "umount"
  mount_served rw
}

step "cp -a"
cp -a $original $mount/copied
forget
same_trees $original $mount/copied "copied, through the mount"
same_trees $original $tree/copied "copied, as it is served"

step "tar"
tar -C $original -cf $work/archive.tar .
mkdir $mount/extracted
tar -C $mount/extracted -xpf $work/archive.tar
forget
tar -C $mount/extracted --compare -f $work/archive.tar || fail "tar sees differences"
same_trees $original $tree/extracted "extracted"

step "rsync"
rsync -aH $original/ $mount/synchronised/
forget
changes=$(rsync -naciH --delete $original/ $mount/synchronised/) || fail "rsync -nac"
is "rsync" "" "$changes"
echo changed >>$original/sizes/3
rm $original/names/plain
rsync -aH --delete $original/ $mount/synchronised/
same_trees $original $tree/synchronised "synchronised"

step "git"
export GIT_CONFIG_NOSYSTEM=1 GIT_CONFIG_GLOBAL=$work/gitconfig
git config --global user.name Tester
git config --global user.email tester@localhost
git config --global safe.directory '*'
repository=$mount/repository
git init -q -b main $repository
in_git() { git -C $repository "$@"; }
commit() { in_git add -A; in_git commit -q -m "$1"; }
cp -r $original/names $original/links $repository
commit "names and links"
in_git checkout -q -b side
for i in 1 2 3; do echo "side $i" >$repository/side$i; done
commit "a branch"
in_git checkout -q main
in_git mv names renamed
echo more >>$repository/renamed/a#b
commit "renamed"
in_git merge -q --no-edit side
forget
in_git fsck --full --strict 2>$work/said || fail "git fsck: $(cat $work/said)"
changes=$(in_git status --porcelain) || fail "git status"
is "git status" "" "$changes"
is "commits" 4 "$(in_git rev-list --count main)"
git clone -q $repository $mount/cloned
git -C $mount/cloned gc -q --prune=now || fail "git gc"
git -C $mount/cloned fsck --full 2>$work/said || fail "git fsck of the clone: $(cat $work/said)"
git -C $tree/repository fsck --full 2>$work/said || fail "git fsck where it is served: $(cat $work/said)"

step "mv of what is in use"
mkdir -p $mount/busy/inner
cp $original/sizes/1048577 $mount/busy/inner/large
echo before >$mount/busy/inner/file
forget
(
  cd $mount/busy/inner
  exec 3<>file 4<large
  read -r first <&3
  touch $work/ready
  until_true test -e $work/moved
  echo "after $first" >&3
  cmp - $original/sizes/1048577 <&4
  echo beside >beside
  ls >$work/listed
) &
worker=$!
until_true test -e $work/ready || fail "nobody is busy"
mv $mount/busy $mount/moved
mv $mount/moved/inner/file $mount/moved/inner/renamed
mkdir $mount/busy
echo another >$mount/busy/file
touch $work/moved
wait $worker || fail "the process in the moved directory failed"
is "the moved file" "before after before" "$(echo $(cat $tree/moved/inner/renamed))"
is "the moved directory" "beside large renamed" "$(echo $(ls $tree/moved/inner))"
is "the moved directory's listing" "beside large renamed" "$(echo $(cat $work/listed))"
is "its successor" file "$(ls $tree/busy)"

step "a file that is open and removed"
mkdir $mount/held
python3 - $mount/held $tree/held <<'PYTHON' || fail "the removed file"
import os, sys
import support
mount, tree = sys.argv[1:]
file = os.open(mount + "/file", os.O_RDWR | os.O_CREAT)
os.write(file, b"written before")
os.fsync(file)
os.unlink(mount + "/file")
def served(prefix):
    names = os.listdir(tree)
    assert [name.startswith(prefix) for name in names] == [True], names
    with open(os.path.join(tree, names[0]), "rb") as held:
        return held.read()
assert served(".nfs") == b"written before"
os.pwrite(file, b"later", 8)
os.fsync(file)
os.posix_fadvise(file, 0, 0, os.POSIX_FADV_DONTNEED)
assert os.pread(file, 100, 0) == b"written latere", os.pread(file, 100, 0)
assert served(".nfs") == b"written latere"
assert not os.path.exists(mount + "/file")
os.close(file)
support.wait_until(lambda: os.listdir(tree) == [], 5, "the end of the removed file")
assert os.listdir(mount) == [], os.listdir(mount)
PYTHON

step "sqlite3"
# The classic profile has no locks, and only version 3 can leave them to the client.
locks=unix
if [ -n "$profile" ] && [ $version != 3 ]; then locks=unix-none; fi
{
  echo "create table t (n integer primary key, text); create index i on t (text);"
  for begin in $(seq 0 30 299); do
    echo "begin;"
    for n in $(seq $begin $((begin + 29))); do echo "insert into t values ($n, 'row ' || ($n * 7919 % 1000));"; done
    echo "commit;"
  done
  echo "begin; delete from t; rollback; delete from t where n % 10 = 0;"
} | sqlite3 -bail -vfs $locks $mount/database
forget
for database in $mount/database $tree/database; do
  is "$database" "ok 270 $((299 * 150 - 10 * 435))" "$(echo $(sqlite3 -readonly -vfs $locks -separator ' ' $database \
    'pragma integrity_check; select count(*), sum(n) from t;'))"
done

step "links, appending, sizes, modes and times"
mkdir $mount/small
cd $mount/small
echo one >file
ln file linked
echo two >>linked
is "through the other name" "one two 2" "$(echo $(cat file) $(stat -c %h file))"
is "inode" "$(stat -c %i $tree/small/file)" "$(stat -c %i $tree/small/linked)"
rm file
is "the name that is left" "one two 1" "$(echo $(cat $tree/small/linked) $(stat -c %h linked))"
(for i in $(seq 100); do echo "first $i" >>appended; done) &
writer=$!
for i in $(seq 100); do echo "second $i" >>appended; done
wait $writer || fail "appending"
for writer in first second; do
  is "$writer" "$(seq 100 | md5sum)" "$(sed -n "s/^$writer //p" $tree/small/appended | md5sum)"
done
cp $original/sizes/65537 cut
truncate -s 1000 cut
truncate -s 100000 cut
{ head -c 1000 $original/sizes/65537; head -c 99000 /dev/zero; } >$work/expected
cmp $work/expected $tree/small/cut || fail "truncate, as it is served"
cd $work
forget
cd $mount/small
cmp $work/expected cut || fail "truncate, through the mount"
chmod 2751 cut
touch -d '2001-02-03 04:05:06 UTC' cut
is "mode and time" "2751 981173106" "$(stat -c '%a %Y' $tree/small/cut)"
chmod 640 cut
is "a mode alone" "640 981173106 100000" "$(stat -c '%a %Y %s' $tree/small/cut)"
chown 12:34 cut
is "owner" "12 34 640" "$(stat -c '%u %g %a' $tree/small/cut)"
if rmdir $mount/small 2>/dev/null; then fail "rmdir of what has entries"; fi
is "after a refusal" 100000 "$(stat -c %s $tree/small/cut)"
cd $work

step "rm -rf"
rm -rf $mount/crowded $mount/repository
[ ! -e $tree/crowded ] && [ ! -e $tree/repository ] || fail "rm -rf left something"
rm -rf $mount/*
left=$(ls -A $tree && ls -A $mount) || fail "ls"
is "what is left" "" "$left"

unmount_and_stop
step "passed"
