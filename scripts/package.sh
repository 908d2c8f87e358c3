#!/usr/bin/env bash
# Usage: scripts/package.sh: set up, build an optimised tree for /usr, and make the Debian
# package with CPack; prints the package's path.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
dir=$top/build-package
"$top/scripts/setup.sh" >&2
cmake -S "$top" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKV_BUILD_TESTS=OFF \
  -DCMAKE_INSTALL_PREFIX=/usr >&2
cmake --build "$dir" -j "$(nproc)" >&2
rm -rf "$dir/package"
(cd "$dir" && cpack -G DEB -B "$dir/package" >&2)
ls "$dir"/package/kvstop_*.deb
