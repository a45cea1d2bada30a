# Sourced by the scripts that mount with the kernel's client: a tool and a mount that are gone
# afterwards, and what tells whether all is well.
#
# The script has set $name, which messages and directories show, perhaps $version (3, 4.0, 4.1, or 4
# for what the client comes down to) and $profile (--classic), and got the tool as its first argument. It works in $work;
# serve_and_mount mounts at $work/mount.
set -euo pipefail
cd "$(dirname "$0")"
tool=$1
version=${version:-3}
profile=${profile:-}
work=/run/$name
mount=$work/mount
server=
finish() {
  # The mount goes first: a client whose server is gone waits for it.
  if mountpoint -q $mount; then umount -f -l $mount || true; fi
  if [ -n "$server" ] && kill -0 "$server" 2>/dev/null; then kill "$server"; wait "$server" || true; fi
  rm -rf $work
}
trap finish EXIT
step() { echo "$name: $* (after $SECONDS s)"; }
fail() { echo "$name: FAILED: $*" >&2; cat $work/errors* >&2 2>/dev/null || true; exit 1; }
is() { [ "$2" = "$3" ] || fail "$1: [$3] instead of [$2]"; }
until_true() { for _ in $(seq 600); do "$@" && return; sleep 0.05; done; return 1; }
value() { sed -n "s/^$1 //p" $work/announcement; }

# serve_and_mount DIRECTORY ro|rw [OPTION...]: the options are the tool's.
serve_and_mount() {
  local directory=$1 mode=$2
  shift 2
  mkdir -p $mount
  "$tool" serve "$directory" $profile --nfs-version ${version%.*} "$@" >$work/announcement 2>$work/errors &
  server=$!
  until_true grep -q '^ready$' $work/announcement || fail "the tool did not get ready"
  step "mounting"
  dmesg --clear
  mount_served $mode
  grep " $mount nfs4* $mode,.*,vers=$version[.,].*proto=tcp" /proc/mounts || fail "it is not mounted as asked"
}
# mount_served ro|rw [POINT [OPTION]]
mount_served() {
  local options=$1,vers=$version,proto=tcp,port=$(value nfs-port)${3:+,$3}
  case $version in
    3) options+=,nolock,mountport=$(value mount-port) ;;
    *) options+=,wsize=524288 ;; # a WRITE and what is around it have to fit a record
  esac
  mount -t nfs -o $options "$(value address):$(value export)" ${2:-$mount} || fail "mount"
}

unmount_and_stop() {
  step "unmounting"
  local begin=$SECONDS
  timeout 60 umount $mount || fail "umount"
  kill "$server"
  wait "$server" || fail "the tool ended with status $?"
  server=
  [ $((SECONDS - begin)) -le 15 ] || fail "unmounting and ending took $((SECONDS - begin)) s"
  quiet_kernel
}
quiet_kernel() {
  if dmesg | grep -i -E 'nfs|rpc|error|BUG|WARN'; then fail "the kernel has something to say"; fi
}

# What is below a directory, an object a line. Times have whole seconds on the wire.
listing() {
  (cd "$1" && find . '(' -type d -printf '%T@ %P %m %U %G\n' ')' -o -printf '%T@ %P %y %m %U %G %n %s %l\n') |
    sed 's/^\([0-9]*\)\.[0-9]*/\1/' | LC_ALL=C sort
}
# -x: two pipes are never the same to diff.
same_trees() {
  listing "$1" >$work/expected
  listing "$2" >$work/found
  diff $work/expected $work/found || fail "the listings differ: $3"
  diff -r --no-dereference -x 'a pipe' "$1" "$2" || fail "the trees differ: $3"
}
