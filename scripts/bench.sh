#!/usr/bin/env bash
# Builds the release and the measuring programs, then compares whole calls of the release with an
# echo server and with NFS-Ganesha. docs/performance.md says what the numbers mean.
#
#   scripts/bench.sh [--rounds N] [--seconds S] [--only TEXT] [--report-only]
#   scripts/bench.sh --micro [OPTIONS OF GOOGLE BENCHMARK]
#
# Exit status 1 when a target is missed, unless --report-only is given.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/packages.sh bench
build() {
  cmake --preset "$1" >/dev/null
  cmake --build --preset "$1" "${@:2}" | tail -n 1
}

if [ "${1:-}" = --micro ]; then
  shift
  build bench --target micro_benchmarks
  exec build/bench/bin/micro_benchmarks "$@"
fi

if [ "$(id -u)" -ne 0 ]; then
  echo "The peer needs root to open files by their handles. Run 'sudo scripts/bench.sh'." >&2
  exit 2
fi
build release
build bench --target load_client echo_server memory_server
exec tests/support/private_network.sh python3 bench/compare.py \
  --tool build/release/bin/nfslib --clients build/bench/bin --tree "$PWD/build/bench/tree" "$@"
