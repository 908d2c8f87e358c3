#!/usr/bin/env bash
# Usage: scripts/test.sh [plain|asan|tsan]: set up, build, and run every test.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
flavour=${1:-plain}
"$top/scripts/setup.sh"
dir=$("$top/scripts/build.sh" "$flavour")
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
cd "$dir"
ctest --output-on-failure -j "$(nproc)"
