#!/usr/bin/env bash
# Usage: scripts/coverage.sh: which lines of the product the suite reaches. Installs gcovr,
# builds build-coverage/ with gcc's --coverage, runs every case but the long ones and the
# package test (its C client cannot link the instrumented libraries), and writes gcovr's
# report of zfw/, lrpc2/, zkvfw/ and tools/ (per file: lines, reached, and the lines no case
# reaches) to build-coverage/coverage.txt; prints its total.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
kv_name='coverage'
# shellcheck source=scripts/common.sh
source "$top/scripts/common.sh"
kv_flavour coverage
kv_as_root "$0" "$@"
kv_check_namespaces
kv_check_reachable
kv_start_log "$kv_dir/coverage.log"
kv_install coverage
kv_configure
kv_build

# Some cases run programs as user nobody: their counts must be writable by everyone.
t0=$SECONDS
kv_show "testing"
find "$kv_dir" -name '*.gcda' -delete
chmod -R a+rwX "$kv_dir"
(umask 000 && cd "$kv_dir" && ctest -j "$(nproc)" -LE 'long|valgrind' -E '^package$' >>"$kv_log" 2>&1) ||
  echo "$kv_name: some cases failed; the counts are still written (see $kv_log)"
kv_done "testing ($(kv_elapsed "$t0"))"

filters=()
for d in zfw lrpc2 zkvfw tools; do filters+=(--filter "$top/$d/"); done
gcovr -r "$top" --object-directory "$kv_dir" "${filters[@]}" --txt "$kv_dir/coverage.txt" \
  >>"$kv_log" 2>&1 || kv_fail "gcovr failed"
grep '^TOTAL' "$kv_dir/coverage.txt"
echo "$kv_name: per file in $kv_dir/coverage.txt ($(kv_elapsed) in all)"
