#!/usr/bin/env bash
# In a machine whose kernel has an NFS client: the tool mounts an archive, which shows what was packed,
# to many readers at once, and refuses changes.
#
#   kernel_archive.sh TOOL
name=kernel-archive
. "$(dirname "$0")/kernel_mount.sh"
tree=$work/tree

step "packing"
mkdir -p $mount $tree/{many,deep/er/and/deeper,empty}
for size in 0 1 4095 4096 4097 65536 1048577 9000000; do
  head -c $size /dev/urandom >$tree/of-$size
done
for number in $(seq 300); do echo "file $number" >$tree/many/$number; done
echo bottom >$tree/deep/er/and/deeper/file
ln $tree/of-4096 $tree/deep/hard
ln -s ../of-1 $tree/deep/soft
mkfifo "$tree/a pipe"
truncate -s 3000000 $tree/hole
echo end >>$tree/hole
chmod 4711 $tree/of-1
chown 12:34 $tree/of-4097
touch -d @1000000000 $tree/of-0 $tree/empty
tar -C $tree --sparse -c . | zstd -q >$work/packed.tar.zst

step "mounting"
dmesg --clear
"$tool" mount $work/packed.tar.zst $mount --nfs-version 4 >$work/said 2>$work/errors &
server=$!
until_true grep -q '^mounted' $work/said || fail "it is not mounted"

step "comparing"
same_trees $tree $mount "the archive"
echo 3 >/proc/sys/vm/drop_caches
readers=()
for file in $tree/of-*; do
  cmp $file $mount/${file##*/} &
  readers+=($!)
done
for reader in "${readers[@]}"; do wait $reader || fail "a file differs when all are read at once"; done
is "what the tool complains of" "" "$(cat $work/errors)"
if echo x >$mount/new; then fail "a file could be made"; fi 2>/dev/null
if rm -f $mount/of-1; then fail "a file could be removed"; fi 2>/dev/null
same_trees $tree $mount "after the attempts to change it"

step "ending"
kill $server
wait $server || fail "the tool ended with status $?"
server=
if mountpoint -q $mount; then fail "still mounted"; fi
quiet_kernel
