#!/usr/bin/env bash
# Usage: scripts/build.sh [plain|asan|tsan|release]  -> prints the build directory.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
flavour=${1:-plain}
case "$flavour" in
  plain)   dir=$top/build;         args=() ;;
  asan)    dir=$top/build-asan;    args=(-DKV_SANITIZE=address) ;;
  tsan)    dir=$top/build-tsan;    args=(-DKV_SANITIZE=thread) ;;
  release) dir=$top/build-release; args=(-DCMAKE_BUILD_TYPE=Release -DKV_BUILD_TESTS=OFF -DKV_BUILD_BENCH=ON) ;;
  *) echo "build.sh: unknown flavour '$flavour'" >&2; exit 2 ;;
esac
cmake -S "$top" -B "$dir" -G Ninja "${args[@]}" >&2
cmake --build "$dir" -j "$(nproc)" >&2
echo "$dir"
