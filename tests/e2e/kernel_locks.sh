#!/usr/bin/env bash
# In a machine whose kernel has an NFS client: locks of version 4, between processes, between mounts
# and between clients; and a client that is cut off while it has some.
#
#   kernel_locks.sh TOOL [4.0|4.1]
version=${2:-4.1}
name=kernel-locks-$version
. "$(dirname "$0")/kernel_mount.sh"
tree=$work/tree
twin=$work/twin     # another mount of the same client
second=$work/second # another client, which comes through a relay
relay=
finish_relay() {
  [ -z "$relay" ] || kill -CONT $relay 2>/dev/null || true
  if mountpoint -q $second; then umount -f -l $second || true; fi
  if mountpoint -q $twin; then umount -f -l $twin || true; fi
  finish
  [ -z "$relay" ] || { kill -KILL $relay && wait $relay; } 2>/dev/null || true
}
trap finish_relay EXIT

mkdir -p $tree $twin $second
serve_and_mount $tree rw --rw --lease 10
mount_served rw $twin
python3 - $(value address) $(value nfs-port) $work/relay-port <<'PYTHON' &
import asyncio, sys
address, port, told = sys.argv[1:]
async def copy(reader, writer):
    while data := await reader.read(1 << 16):
        writer.write(data)
        await writer.drain()
    writer.close()
async def relay(reader, writer):
    beyond = await asyncio.open_connection(address, int(port))
    await asyncio.gather(copy(reader, beyond[1]), copy(beyond[0], writer), return_exceptions=True)
async def main():
    server = await asyncio.start_server(relay, "127.0.0.1", 0)
    with open(told, "w") as file:
        print(server.sockets[0].getsockname()[1], file=file)
    await server.serve_forever()
asyncio.run(main())
PYTHON
relay=$!
until_true test -s $work/relay-port || fail "the relay did not get ready"
# A client is told from another by its host's name.
unshare --uts bash -c "hostname another-client && mount -t nfs \
  -o rw,vers=$version,proto=tcp,port=$(cat $work/relay-port),wsize=524288 \
  127.0.0.1:$(value export) $second" || fail "mounting by another client"
# Directories may be kept for a while: what is asked for by name is there from the start.
touch $tree/locked $tree/ranges $tree/lost

step "flock"
for other in $mount $twin $second; do
  flock -n $mount/locked sh -c "! flock -n $other/locked true" || fail "two have the lock, one by $other"
  flock -n $other/locked true || fail "flock by $other, when it is free"
  flock -s $mount/locked flock -n -s $other/locked true || fail "two shared locks, one by $other"
done
flock $mount/locked sh -c "touch $work/held; sleep 3; touch $work/released" &
holder=$!
until_true test -e $work/held || fail "nobody has the lock"
flock $second/locked test -e $work/released || fail "a lock that is waited for"
wait $holder

step "ranges"
python3 - $mount $twin $second <<'PYTHON' || fail "the ranges"
import fcntl, multiprocessing, os, sys
mounts = sys.argv[1:]
def may(path, kind, start, length):
    """Whether another process could lock the range."""
    def attempt():
        file = os.open(path, os.O_RDWR)
        try:
            fcntl.lockf(file, kind | fcntl.LOCK_NB, length, start)
        except (BlockingIOError, PermissionError):
            os._exit(1)
        os._exit(0)
    child = multiprocessing.get_context("fork").Process(target=attempt)
    child.start()
    child.join()
    return child.exitcode == 0
EXCLUSIVE, SHARED, FREE = fcntl.LOCK_EX, fcntl.LOCK_SH, fcntl.LOCK_UN
file = os.open(mounts[0] + "/ranges", os.O_RDWR)
def check(kind, expected):
    for mount in mounts:
        got = [may(mount + "/ranges", kind, start, 10) for start in range(0, 100, 10)]
        assert got == [bool(int(digit)) for digit in expected], (mount, kind, got)
fcntl.lockf(file, EXCLUSIVE, 60, 20)
check(SHARED, "1100000011")
fcntl.lockf(file, FREE, 10, 40)                    # split
check(SHARED, "1100100011")
fcntl.lockf(file, SHARED, 20, 60)                  # made weaker at the end
check(SHARED, "1100101111")
check(EXCLUSIVE, "1100100011")
fcntl.lockf(file, EXCLUSIVE, 0, 40)                # joined, to the end of the file and beyond
check(SHARED, "1100000000")
fcntl.lockf(file, FREE, 0, 0)
check(EXCLUSIVE, "1111111111")
os.close(file)
PYTHON

# Four processes add to one counter each, a transaction a time.
writers() { # JOURNAL DATABASE...
  local journal=$1 database
  shift
  sqlite3 $1 "pragma journal_mode = $journal; create table t (writer, n);" >/dev/null || fail "sqlite3"
  local children=() number=0
  for database in "$@"; do
    number=$((number + 1))
    (
      for n in $(seq 15); do
        sqlite3 -bail -cmd '.timeout 60000' $database \
          "begin immediate; insert into t select $number, count(*) + 1 from t; commit;" || exit 1
      done
    ) &
    children+=($!)
  done
  for child in "${children[@]}"; do wait $child || fail "a writer of sqlite3 ($journal)"; done
  for database in "$@" $tree/$(basename $1); do
    is "$journal: $database" "ok 60 1830 4" "$(echo $(sqlite3 -separator ' ' $database \
      'pragma integrity_check; select count(*), sum(n), count(distinct writer) from t;'))"
  done
}
step "sqlite3, rollback journal, two clients"
writers delete $mount/rollback $mount/rollback $second/rollback $second/rollback
step "sqlite3, write-ahead log, two mounts"
# Its index is memory that the processes share, so they have to be of one client.
writers wal $mount/ahead $mount/ahead $twin/ahead $twin/ahead

step "a client that is cut off"
python3 - $second $work <<'PYTHON' &
import errno, fcntl, os, sys, time
mount, work = sys.argv[1:]
file = os.open(mount + "/lost", os.O_RDWR)
fcntl.lockf(file, fcntl.LOCK_EX)
os.write(file, b"before")
os.fsync(file)
open(work + "/has", "w").close()
while not os.path.exists(work + "/back"):
    time.sleep(0.05)
try:
    os.pwrite(file, b"late", 0)
    os.fsync(file)
except OSError as error:
    sys.exit(error.errno != errno.EIO)
sys.exit("a client that had lost its lock wrote")
PYTHON
holder=$!
until_true test -e $work/has || fail "the other client did not get the lock"
kill -STOP $relay
if flock -n $mount/locked true && python3 -c "
import fcntl, os, sys
fcntl.lockf(os.open(sys.argv[1], os.O_RDWR), fcntl.LOCK_EX | fcntl.LOCK_NB)" $mount/lost 2>/dev/null; then
  fail "a lock was taken away within its lease"
fi
begin=$SECONDS
timeout 60 python3 -c "
import fcntl, os, sys
file = os.open(sys.argv[1], os.O_RDWR)
fcntl.lockf(file, fcntl.LOCK_EX)
os.pwrite(file, b'after!', 0)" $mount/lost || fail "the lock of a client that is gone is kept"
[ $((SECONDS - begin)) -le 45 ] || fail "the lock came free after $((SECONDS - begin)) s"
kill -CONT $relay
touch $work/back
wait $holder || fail "the client that came back got no clear error"
is "what is written" "after!" "$(cat $tree/lost)"
umount $second || fail "umount of the client that was cut off"
umount $twin || fail "umount of the twin"
dmesg --clear # which tells of the lock that was lost
unmount_and_stop
step "passed"
