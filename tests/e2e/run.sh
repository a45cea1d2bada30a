#!/usr/bin/env bash
# Runs the end-to-end tests against a built tool, on a loopback network of their own.
#
#   tests/e2e/run.sh [TEST...]        for example: tests/e2e/run.sh udp_test capture_test.Capture
#
# The environment says what is tested: NFSLIB_TOOL, NFSLIB_COMPARE, NFSLIB_CHANGE and NFSLIB_MOUNTS
# (programs; the release tool and the clang build's libnfs_compare, libnfs_change and
# mounts_in_one_process unless given), NFSLIB_PATIENCE (a factor for all deadlines),
# NFSLIB_BIG_FILE_MIB, NFSLIB_PROFILE (--classic). Tests that lack a program or a privilege are skipped
# and say why.
set -euo pipefail
cd "$(dirname "$0")"
export PYTHONDONTWRITEBYTECODE=1

# The kernel is fetched here, where there is a network; the test says what was wrong.
./vm.sh --prepare 2>/dev/null || true

# rpcbind keeps its socket in /run: it gets a /run of its own, out of reach of the machine's.
private='if unshare --mount true 2>/dev/null; then
  export NFSLIB_PRIVATE_RUN=1
  exec unshare --mount -- sh -c '\''mount -t tmpfs tmpfs /run && exec "$@"'\'' sh "$@"
fi
exec "$@"'
if [ $# -gt 0 ]; then tests=(-v "$@"); else tests=(discover -v -p '*_test.py'); fi
exec ../support/private_network.sh sh -c "$private" sh python3 -m unittest "${tests[@]}"
