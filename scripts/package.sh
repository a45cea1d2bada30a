#!/usr/bin/env bash
# Builds the Debian packages into build/package: libnfslib1, libnfslib-dev, nfslib-tools.
#
#   scripts/package.sh
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/packages.sh package
if command -v ccache >/dev/null; then export CMAKE_CXX_COMPILER_LAUNCHER=ccache; fi
cmake --preset package
cmake --build --preset package -j "$(nproc)"
rm -f build/package/*.deb
(cd build/package && cpack)
ls build/package/*.deb
