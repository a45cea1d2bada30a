#!/bin/sh
# Serves a directory with NFS-Ganesha, read-only over NFS version 3 and 4, until it is ended by a signal.
#
#   peer.sh DIRECTORY NFS-PORT MOUNT-PORT WORK-DIRECTORY
#
# Run by scripts/bench.sh as root, on a network of its own. Its tuning is the default, but for the
# transfer sizes: they allow the 768 KiB that the others serve. Of version 4 it sends owners as numbers,
# as the others do, and files can be opened at once. It gets a /run of its own, so neither
# its port mapper nor its files meet those of the machine, and its port mapper ends with it.
set -eu
if [ "${5:-}" != isolated ]; then
  exec unshare --mount --pid --fork --kill-child -- "$0" "$@" isolated
fi
directory=$1 nfs_port=$2 mount_port=$3 work=$4

mount -t tmpfs tmpfs /run
mount -t tmpfs tmpfs /var/lib/nfs
mkdir -p /run/ganesha /run/rpcbind /var/lib/nfs/ganesha
cat >"$work/ganesha.conf" <<END
NFS_CORE_PARAM {
  Protocols = 3, 4;
  NFS_Port = $nfs_port;
  MNT_Port = $mount_port;
  Enable_NLM = false;
  Enable_RQUOTA = false;
}
NFSV4 {
  Graceless = true;
  Only_Numeric_Owners = true;
}
NFS_KRB5 { Active_krb5 = false; }
EXPORT {
  Export_Id = 1;
  Path = "$directory";
  Pseudo = "$directory";
  Access_Type = RO;
  Squash = No_Root_Squash;
  SecType = sys;
  Protocols = 3, 4;
  Transports = TCP;
  MaxRead = 1048576;
  PrefRead = 1048576;
  MaxWrite = 1048576;
  PrefWrite = 1048576;
  FSAL { Name = VFS; }
}
LOG { Default_Log_Level = WARN; }
END
rpcbind -f &
exec ganesha.nfsd -F -L "$work/ganesha.log" -f "$work/ganesha.conf" -N WARN -p "$work/ganesha.pid"
