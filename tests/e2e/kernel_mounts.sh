#!/usr/bin/env bash
# In a machine whose kernel has an NFS client: the tool mounts by itself, each way of ending it frees
# the mount point, and nothing stays behind.
#
#   kernel_mounts.sh TOOL MOUNTS_IN_ONE_PROCESS
name=kernel-mounts
. "$(dirname "$0")/kernel_mount.sh"
several=$2
tree=$work/tree
at=$work/at
declare -A process
# The tool unmounts when it is told to end.
finish() { kill $(jobs -p) 2>/dev/null || true; }

# mount_at POINT SOURCE [OPTION...]: mounts on $at/POINT in the background, and waits for the answer.
mount_at() {
  local point=$1 source=$2
  shift 2
  mkdir -p $at/$point
  "$tool" mount $source $at/$point "$@" >$work/said.$point 2>$work/errors.$point &
  process[$point]=$!
  until_true answered $point || fail "$point: no answer"
  is "the mount on $point" "mounted $at/$point" "$(cat $work/said.$point)"
  is_mounted $at/$point || fail "$point: not mounted"
}
gone() { ! kill -0 $1 2>/dev/null; }
answered() { [ -s $work/said.$1 ] || gone ${process[$1]}; }
# Never looks at the directory itself: with a server that is gone it would wait.
is_mounted() { awk '$3 ~ /^nfs/ { print $2 }' /proc/mounts | grep -Fxq -e "$1"; }

# ended POINT: what mounted there has ended well and said nothing more. Of several processes only one
# can have the port-map service name its ports, and the others say so.
ended() {
  local status=0
  until_true gone ${process[$1]} || fail "$1: the process goes on"
  wait ${process[$1]} || status=$?
  is "the status of $1" 0 $status
  if is_mounted $at/$1; then fail "$1: still mounted"; fi
  is "what $1 complains of" "" "$(grep -v 'warning\] RPC: failed to' $work/errors.$1 || true)"
  unset "process[$1]"
}

# Everything that a mount could leave behind.
traces() {
  cat /proc/mounts
  ip -o address show dev lo
  ls -A /run/nfslib 2>/dev/null || true
  awk '$4 == "0A" || $4 == "07" { print $2 }' /proc/net/tcp /proc/net/udp | LC_ALL=C sort
  pgrep -l 'nfslib|mounts_' || true
  rpcinfo -p 127.0.0.1 2>/dev/null || true
}
nothing_left() { is "what is there after $1" "$before" "$(traces)"; }

list() { "$tool" list >$work/list || fail "list"; }
# listed POINT SOURCE STATE [VERSION]: with version 3 unless given.
listed() {
  grep -Fxq "$2"$'\t'"$at/$1"$'\t'"${4:-3}"$'\t'"${process[$1]}"$'\t'"$3" $work/list ||
    fail "not listed: $* in: $(cat $work/list)"
}
# Ask the server again.
forget() { echo 3 >/proc/sys/vm/drop_caches; }

mkdir -p $at "$tree/a directory/below"
head -c 700001 /dev/urandom >$tree/large
echo "a few words" >"$tree/a directory/below/Grüße"
ln -s "a directory/below" $tree/link
find $tree -exec touch -h -d '2014-05-06 07:08:09 UTC' {} +
dmesg --clear

# three_at_once OPTION OPTION: or "", for the second of them, for the others.
three_at_once() {
  local served=$work/served
  mkdir $served
  echo "from behind" >$served/behind
  mount_at read $tree $2
  mount_at write $served --rw $1
  mount_at memory memory:64M --rw $2
  list
  listed read $tree served
  listed write $served served
  listed memory memory:64M served

  same_trees $tree $at/read "read-only"
  if touch $at/read/new 2>/dev/null; then fail "a read-only mount took a new file"; fi
  is "a file from behind" "from behind" "$(cat $at/write/behind)"
  cp -a $tree $at/write/copy
  cp -a $tree $at/memory/copy
  same_trees $tree $served/copy "written, as it is served"

  # The others go on when one ends.
  kill ${process[read]}
  ended read
  forget
  same_trees $tree $at/write/copy "written"
  "$tool" unmount $at/write || fail "unmount"
  ended write
  forget
  same_trees $tree $at/memory/copy "in memory"
  kill ${process[memory]}
  ended memory
  rm -r $served
}

two_in_one_process() {
  mkdir -p $at/{one,two}
  coproc "$several" $at/one $at/two 2>$work/errors.several
  local host=$COPROC_PID in=${COPROC[1]} out=${COPROC[0]} said
  answer() { read -r -t 60 said <&$out && is "the host" $1 "$said"; }
  answer mounted || fail "two mounts in one process"
  cp -a $tree/large $at/one/first
  cp -a $tree/large $at/two/second
  is "the first tree" first "$(ls $at/one)"
  echo >&$in
  answer unmounted || fail "the end of the first mount"
  if is_mounted $at/one; then fail "the first is still mounted"; fi
  forget
  is "the second tree" second "$(ls $at/two)"
  cmp $tree/large $at/two/second || fail "the second tree without the first"
  echo >&$in
  answer unmounted || fail "the end of the second mount"
  wait $host || fail "the host ended with status $?"
}

for rpcbind in without with; do
  if [ $rpcbind = with ]; then
    mkdir -p /run/rpcbind
    rpcbind -w -f &
    until_true rpcinfo -p 127.0.0.1 >/dev/null 2>&1 || fail "rpcbind does not run"
  fi
  before=$(traces)
  step "three processes, $rpcbind rpcbind"
  # Each kind with an address of its own and without.
  if [ $rpcbind = with ]; then three_at_once "" --alias; else three_at_once --alias ""; fi
  nothing_left "three mounts"
  step "one process with two mounts, $rpcbind rpcbind"
  two_in_one_process
  nothing_left "two mounts in one process"
done

step "20 rounds in the background"
mkdir $at/round
for round in $(seq 20); do
  # The answer would not end while the process in the background held on to it.
  said=$("$tool" mount $tree $at/round --daemon $([ $((round % 2)) = 0 ] || echo --alias) 2>$work/errors) ||
    fail "mount --daemon"
  is "round $round" "mounted $at/round" "$said"
  cmp "$tree/a directory/below/Grüße" $at/round/link/Grüße || fail "round $round"
  "$tool" unmount $at/round || fail "unmount in round $round"
  if is_mounted $at/round; then fail "still mounted in round $round"; fi
done
nothing_left "20 rounds"

step "in use"
mkdir $at/busy
echo "what was here" >$at/busy/underneath
mount_at busy $tree
(
  cd "$at/busy/a directory"
  exec 3<below/Grüße
  touch $work/sitting
  until_true test -e $work/left
) &
sitting=$!
until_true test -e $work/sitting || fail "nobody sits in the mount"
"$tool" unmount $at/busy || fail "unmount of what is in use"
is "the directory below" underneath "$(timeout 10 ls $at/busy)"
ended busy
touch $work/left
wait $sitting || fail "who sat in the mount"
nothing_left "a mount that was in use"

step "umount by hand"
mount_at manual $tree
umount $at/manual || fail "umount"
ended manual
nothing_left "umount by hand"

step "odd mount points"
mkdir $work/odd
cd $work/odd
# What the shell would run leaves a file in its current directory.
for point in "two words" "quote'\"" '$(touch ran)' '`touch ran`' 'semi;touch ran;' 'and&touch ran' '$HOME' \
  'back\slash' 'star*' $'new\nline' -dash; do
  mkdir -- "$point"
  said=$("$tool" mount $tree --daemon -- "$point" 2>$work/errors) || fail "mount on [$point]"
  is "the mount" "mounted $point" "$said"
  cmp $tree/link/Grüße "./$point/link/Grüße" || fail "[$point]"
  "$tool" unmount -- "$point" || fail "unmount of [$point]"
  rmdir -- "./$point" || fail "[$point] is not free"
done
is "what a shell has run" "" "$(ls -A)"
mkdir target
ln -s target link
"$tool" mount $tree link --daemon >/dev/null || fail "mount on a link"
is_mounted $work/odd/target || fail "a mount on a link"
"$tool" unmount link || fail "unmount of a link"
rmdir target || fail "the target of a link is not free"
cd $work
nothing_left "odd mount points"

step "version 4"
mount_at four $tree --nfs-version 4
list
listed four $tree served 4
same_trees $tree $at/four "version 4"
kill ${process[four]}
ended four
nothing_left "version 4"

step "version 3 where 4 cannot be mounted"
quiet_kernel
rmmod nfsv4 || fail "rmmod"
mount_at fallback $tree --nfs-version 4
list
listed fallback $tree served
same_trees $tree $at/fallback "after the fallback"
is "the warning" "nfslib: NFS version 4 could not be mounted; this is version 3." "$(cat $work/errors.fallback)"
kill ${process[fallback]}
: >$work/errors.fallback
ended fallback
nothing_left "the fallback"

step "a mount whose process was killed"
mount_at killed $tree --alias
kill -KILL ${process[killed]}
wait ${process[killed]} 2>/dev/null || true
list
listed killed $tree "process gone, still mounted"
mount_at beside $tree --alias
same_trees $tree $at/beside "beside the remains"
"$tool" unmount $at/killed || fail "unmount of the remains"
if is_mounted $at/killed; then fail "the remains are still mounted"; fi
kill ${process[beside]}
ended beside
mount_at killed $tree --alias
same_trees $tree $at/killed "where the remains were"
kill ${process[killed]}
ended killed
nothing_left "the remains"
step "passed"
