#!/usr/bin/env bash
# In a machine whose kernel has an NFS client: a tree that is changed where it is served from. The
# mount shows each change as soon as the client asks again, which it does after a second.
#
#   kernel_outside.sh TOOL [3|4.0|4.1]
version=${2:-3}
name=kernel-outside-$version
. "$(dirname "$0")/kernel_mount.sh"
tree=$work/tree
mkdir -p $tree/d/e $tree/moving/below
for file in f d/f d/e/f moving/below/f; do echo one >$tree/$file; done

serve_and_mount $tree rw --rw
umount $mount || fail "umount"
mount_served rw $mount actimeo=1

# The client's second, the server's moment, and an emulated machine.
soon=6
# soon_true WHAT COMMAND...: it becomes true in time.
soon_true() {
  local what=$1 begin=$SECONDS
  shift
  until "$@" 2>/dev/null; do
    [ $((SECONDS - begin)) -lt $soon ] || fail "$what was not seen within $soon s"
    sleep 0.1
  done
}
content() { [ "$(cat "$mount/$1")" = "$2" ]; }
has() { [ "$(stat -c "$2" "$mount/$1")" = "$3" ]; }
shows() { [ "$(ls $mount/$1 | tr '\n' ' ')" = "$2" ]; }
gone() { ! stat "$mount/$1" >/dev/null 2>&1; }
# What the client has in its caches before the change.
look() { find $mount -type f -exec cat {} + >/dev/null; ls -lR $mount >/dev/null; }

step "files"
look
exec 3<$mount/d/f
echo two >>$tree/d/f
soon_true "an append" content d/f "$(printf 'one\ntwo')"
echo new >$tree/d/f
soon_true "a truncation" content d/f new
for value in abc def ghi; do # of one size, and within a second
  look
  echo $value >$tree/d/f
  soon_true "another content [$value]" content d/f $value
done
is "the open file" ghi "$(cat <&3)"
exec 3<&-
chmod 0600 $tree/d/f
soon_true "a mode" has d/f %a 600

step "names"
look
echo replaced >$tree/d/.f
mv $tree/d/.f $tree/d/f
soon_true "a replacement" content d/f replaced
mkdir $tree/d/made
echo fresh >$tree/d/made/file
soon_true "a new directory" content d/made/file fresh
soon_true "its name" shows d "e f made "
rm -r $tree/d/made
soon_true "a removal" gone d/made
soon_true "the names that are left" shows d "e f "

step "directories that move"
look
exec 3<$mount/moving/below/f
mv $tree/moving $tree/d/moved
soon_true "a move" content d/moved/below/f one
soon_true "the old place" gone moving
is "a file that is open below" one "$(cat <&3)"
exec 3<&-
echo more >>$tree/d/moved/below/f
soon_true "an append below" content d/moved/below/f "$(printf 'one\nmore')"
mkdir -p $tree/moving/below
echo successor >$tree/moving/below/f
soon_true "a successor" content moving/below/f successor
soon_true "what moved" content d/moved/below/f "$(printf 'one\nmore')"

step "both sides in turn"
for round in 1 2 3 4 5; do
  echo "client $round" >$mount/f
  is "what the client wrote" "client $round" "$(cat $tree/f)"
  echo "local $round" >$tree/f
  soon_true "an answer" content f "local $round"
done

step "a client's own writing keeps its cache"
reads() { awk -v want="$1:" '$1 == want { print $2; exit }' /proc/self/mountstats; }
# Replies to several WRITEs that the client takes out of their order make it read once more, whoever
# the host is; what is told as a change by others makes it do so each time.
is_kept() {
  local before
  head -c 8000000 /dev/urandom >$work/data
  before=$(reads READ)
  cp $work/data $mount/data
  cmp $work/data $mount/data || fail "the data differ"
  [ $(($(reads READ) - before)) -le 2 ]
}
for try in $(seq 12); do
  ! is_kept || break
  [ $try -lt 12 ] || fail "what the client has just written is read again each time"
done

unmount_and_stop
step "passed"
