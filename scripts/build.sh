#!/usr/bin/env bash
# Usage: scripts/build.sh [plain|asan|tsan|release|demo]  -> prints the build directory.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
kv_name=build.sh
# shellcheck source=scripts/common.sh
source "$top/scripts/common.sh"
kv_flavour "${1:-plain}"
cmake -S "$top" -B "$kv_dir" -G Ninja "${kv_args[@]}" >&2
cmake --build "$kv_dir" -j "$(nproc)" >&2
echo "$kv_dir"
