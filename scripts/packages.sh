#!/usr/bin/env bash
# Installs the Debian packages that are missing for a purpose, and nothing else.
#
#   scripts/packages.sh build|package|demo|test|bench
#
# As root it runs apt-get. Any other user gets the one command that an administrator has to run.
set -euo pipefail

build="g++ cmake ninja-build pkg-config uuid-dev libtirpc-dev libmagicenum-dev libcli11-dev libspdlog-dev
  libarchive-dev zlib1g-dev libbz2-dev liblzma-dev libzstd-dev"
package="dpkg-dev file"
demo="libnfs-utils libnfs-dev"
test="clang clang-format clang-tidy libclang-rt-dev libgtest-dev libgmock-dev libbenchmark-dev
  libnfs-dev libnfs-utils tshark tcpdump rpcbind nfs-common iproute2 util-linux python3 ccache
  qemu-system-x86 busybox-static kmod cpio e2fsprogs git sqlite3 rsync
  doxygen graphviz lintian $package man-db zip p7zip-full genisoimage zstd xz-utils bzip2"
bench="libbenchmark-dev nfs-ganesha nfs-ganesha-vfs iproute2 util-linux python3 rpcbind"

case "${1:-}" in
  build) wanted="$build" ;;
  package) wanted="$build $package" ;;
  demo) wanted="$build $demo" ;;
  test) wanted="$build $test" ;;
  bench) wanted="$build $bench" ;;
  *) echo "usage: scripts/packages.sh build|package|demo|test|bench" >&2; exit 2 ;;
esac

missing=()
for package in $wanted; do
  [ "$(dpkg-query -W -f '${db:Status-Abbrev}' "$package" 2>/dev/null | cut -c1-2)" = ii ] || missing+=("$package")
done
[ ${#missing[@]} -gt 0 ] || exit 0

if [ "$(id -u)" -ne 0 ]; then
  echo "These packages are missing: ${missing[*]}." >&2
  echo "Run 'sudo scripts/packages.sh $1' once, then try again." >&2
  exit 1
fi

export DEBIAN_FRONTEND=noninteractive
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
quietly() { "$@" >"$scratch/log" 2>&1 || { cat "$scratch/log" >&2; return 1; }; }
has() { apt-cache policy "$1" 2>/dev/null | grep -q 'Candidate: [^(]'; }

# A service that a package brings must not start here: tests start their own, on their own network.
policy=/usr/sbin/policy-rc.d
if [ ! -e $policy ]; then
  printf '#!/bin/sh\nexit 101\n' >$policy
  chmod +x $policy
  trap 'rm -rf "$scratch" '$policy EXIT
fi

echo "Installing ${#missing[@]} packages: ${missing[*]}"
quietly apt-get update

# magic_enum is packaged from Debian 13 on. On an older system take that one header-only package from
# there, through a private configuration: the system's own sources stay as they are.
plain=()
for package in "${missing[@]}"; do
  if [ "$package" != libmagicenum-dev ] || has "$package"; then
    plain+=("$package")
    continue
  fi
  mirror=$(apt-get indextargets --format '$(SITE)' 'Created-By: Packages' 2>/dev/null | grep '/debian/*$' | head -n 1)
  [ -n "$mirror" ] || { echo "No Debian mirror in this machine's apt sources; install libmagicenum-dev by hand." >&2; exit 1; }
  mkdir -p "$scratch"/{lists,cache/archives}/partial
  echo "deb [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] $mirror trixie main" >"$scratch/sources.list"
  private=(-o "Dir::Etc::sourcelist=$scratch/sources.list" -o Dir::Etc::sourceparts=/dev/null
    -o "Dir::State::lists=$scratch/lists" -o "Dir::Cache=$scratch/cache" -o APT::Sandbox::User=root)
  quietly apt-get "${private[@]}" update
  (cd "$scratch" && quietly apt-get "${private[@]}" download libmagicenum-dev)
  plain+=("$scratch"/libmagicenum-dev_*.deb)
done
quietly apt-get install -y --no-install-recommends "${plain[@]}"
