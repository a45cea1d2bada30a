#!/usr/bin/env bash
# Runs a command as root in a throw-away virtual machine whose kernel has an NFS client.
#
#   tests/e2e/vm.sh [-t SECONDS] COMMAND [ARGUMENT...]
#   tests/e2e/vm.sh --prepare                   only fetches the kernel, which needs a network
#
# The guest is Debian's own kernel under software emulation, without network. Its root is this
# machine's file system, read-only, below a layer in guest memory: every program and every file is
# there under the same path, and what is written is gone at the end. /run is empty.
#
# Exit status: that of COMMAND; 77 when no such machine can be had here, 124 when SECONDS (300) are
# over, 125 when the guest ended without an answer. The reason goes to standard error.
set -euo pipefail

PATH=$PATH:/usr/sbin:/sbin
project=$(cd "$(dirname "$0")/../.." && pwd)
cache=${NFSLIB_VM_CACHE:-$project/build/vm}
limit=300
if [ "${1:-}" = -t ]; then
  limit=$2
  shift 2
fi
[ $# -gt 0 ] || { echo "usage: tests/e2e/vm.sh [-t SECONDS] COMMAND [ARGUMENT...]" >&2; exit 2; }
unavailable() { echo "vm: $*" >&2; exit 77; }

# What the guest's kernel needs to reach its root, then what the tests need.
modules="virtio_pci 9pnet_virtio 9p overlay nfs nfsv3 nfsv4"

[ "$(dpkg --print-architecture 2>/dev/null)" = amd64 ] || unavailable "only amd64 guests are known"
for program in qemu-system-x86_64 busybox modprobe depmod cpio; do
  command -v $program >/dev/null ||
    unavailable "$program is missing (apt-get install qemu-system-x86 busybox-static kmod cpio)"
done
busybox=$(command -v busybox)

# The kernel and an initial file system that mounts the root, made once for a kernel version.
fetch_kernel() {
  local package work version files file
  package=$(apt-cache depends linux-image-amd64 2>/dev/null |
    sed -n 's/^ *Depends: *\(linux-image-[0-9].*\)/\1/p' | head -n 1)
  [ -n "$package" ] || unavailable "apt knows no kernel package (apt-get update)"
  work=$cache/work
  rm -rf "$work"
  mkdir -p "$work/package" "$work/initial/bin" "$work/initial/modules"
  (cd "$work" && apt-get download "$package" >download.log 2>&1) ||
    unavailable "cannot download $package: $(tail -n 1 "$work/download.log")"
  dpkg-deb -x "$work"/linux-image-*.deb "$work/package"
  [ -d "$work/package/lib/modules" ] || mv "$work/package/usr/lib/modules" "$work/package/lib"
  version=$(ls "$work/package/lib/modules")
  depmod -b "$work/package" "$version"

  for module in $modules; do
    files=$(modprobe -d "$work/package" -S "$version" --show-depends "$module" |
      awk '$1 == "insmod" { print $2 }')
    for file in $files; do
      name=$(basename "${file%.xz}")
      [ -e "$work/initial/modules/$name" ] && continue
      case $file in
        *.xz) xz -dc "$file" >"$work/initial/modules/$name" ;;
        *) cp "$file" "$work/initial/modules/$name" ;;
      esac
      echo "$name" >>"$work/initial/modules/order"
    done
  done
  cp "$busybox" "$work/initial/bin/busybox"
  cat >"$work/initial/init" <<'INIT'
#!/bin/busybox sh
/bin/busybox --install -s /bin
export PATH=/bin
mkdir -p /proc /sys /dev /lower /layer /guest
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs dev /dev
stty -F /dev/ttyS1 raw
for module in $(cat /modules/order); do insmod /modules/$module; done
mount -t 9p -o trans=virtio,version=9p2000.L,msize=512000,cache=loose,ro root /lower
mount -t tmpfs -o size=60% tmpfs /layer
mkdir /layer/data /layer/work
# Run by an ordinary user, the files of root are somebody else's in here: setuid would not make root.
mount -t overlay -o nosuid,lowerdir=/lower,upperdir=/layer/data,workdir=/layer/work overlay /guest
mount -t proc proc /guest/proc
mount -t sysfs sysfs /guest/sys
mount -t devtmpfs dev /guest/dev
mount -t tmpfs tmpfs /guest/run
ln -snf /proc/self/fd /guest/dev/fd
ip link set lo up
cp /job /guest/run/job
chroot /guest /bin/bash /run/job </dev/null >/dev/ttyS1 2>&1
echo "status $?" >/dev/ttyS1
poweroff -f
INIT
  chmod +x "$work/initial/init"
  (cd "$work/initial" && find . | cpio -o -H newc 2>/dev/null | gzip -1) >"$cache/initial.gz"
  mv "$work"/package/boot/vmlinuz-* "$cache/kernel"
  rm -rf "$work"
}
mkdir -p "$cache"
exec 9>"$cache/lock"
flock 9
[ -e "$cache/initial.gz" ] && [ -e "$cache/kernel" ] && [ "$cache/kernel" -nt "$0" ] || fetch_kernel
touch "$cache/kernel"
flock -u 9
[ "$1" != --prepare ] || exit 0

run=$(mktemp -d)
machine=
finish() {
  [ -z "$machine" ] || { kill "$machine" && wait "$machine"; } 2>/dev/null || true
  rm -rf "$run"
}
trap finish EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

# The command travels in an archive of its own behind the initial file system.
mkdir "$run/job.d"
{
  echo "export PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8"
  printf 'cd %q || exit 1\nexec' "$PWD"
  printf ' %q' "$@"
  echo
} >"$run/job.d/job"
# It has to begin at a multiple of four.
truncate -s %4 "$cache/initial.gz"
(cat "$cache/initial.gz" && cd "$run/job.d" && echo job | cpio -o -H newc 2>/dev/null) >"$run/initial"

: >"$run/output"
timeout -k 5 "$limit" qemu-system-x86_64 -accel tcg,thread=multi -cpu max -M q35 -smp 2 -m 2048 \
  -display none -monitor none -nodefaults -nic none -no-reboot -device virtio-rng-pci \
  -serial "file:$run/console" -serial "file:$run/output" \
  -kernel "$cache/kernel" -initrd "$run/initial" \
  -append 'console=ttyS0 quiet panic=-1 mitigations=off' \
  -virtfs local,path=/,mount_tag=root,security_model=none,readonly=on,multidevs=remap \
  </dev/null >"$run/qemu.log" 2>&1 &
machine=$!
wait $machine && qemu=0 || qemu=$?
machine=

status=$(sed -n '$s/^status \([0-9]*\)$/\1/p' "$run/output")
if [ -n "$status" ]; then
  sed '$d' "$run/output"
  exit "$status"
fi
cat "$run/output"
if [ $qemu = 124 ] || [ $qemu = 137 ]; then
  echo "vm: the time limit of $limit s is over" >&2
  exit 124
fi
echo "vm: the guest ended without an answer" >&2
tail -n 20 "$run/console" "$run/qemu.log" >&2 || true
exit 125
