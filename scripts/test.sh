#!/usr/bin/env bash
# Usage: scripts/test.sh [plain|asan|tsan]: installs what the tests need, builds, and runs every
# test with ctest. One line a phase, then a summary from ctest's own record: counts, time, the
# failed cases, the full log (BUILD_DIR/test.log) and a JUnit file (BUILD_DIR/junit.xml) for CI
# systems. Exits non-zero when a case fails. Re-runs itself through sudo when not root.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
kv_name='test'
# shellcheck source=scripts/common.sh
source "$top/scripts/common.sh"
flavour=${1:-plain}
case "$flavour" in
  plain | asan | tsan) kv_flavour "$flavour" ;;
  *) echo "usage: scripts/test.sh [plain|asan|tsan]" >&2; exit 2 ;;
esac
kv_as_root "$0" "$@"
kv_check_namespaces
kv_check_reachable
kv_start_log "$kv_dir/test.log"
kv_install test
kv_configure
kv_build

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

junit=$kv_dir/junit.xml
failed_log=$kv_dir/Testing/Temporary/LastTestsFailed.log
rm -f "$junit" "$failed_log"
t0=$SECONDS
kv_show "testing"
cd "$kv_dir"
ctest_rc=0
# Progress from ctest's result lines ("  3/317 Test   #3: NAME ... Passed 0.02 sec").
ctest --output-on-failure --output-junit "$junit" -j "$(nproc)" 2>&1 |
  while IFS= read -r line; do
    printf '%s\n' "$line" >>"$kv_log"
    if [[ $line =~ ^\ *([0-9]+)/([0-9]+)\ Test ]]; then
      kv_show "testing ${BASH_REMATCH[1]}/${BASH_REMATCH[2]}"
    fi
  done || ctest_rc=$?
kv_done "testing ($(kv_elapsed "$t0"))"

# The counts are the attributes of the JUnit file's <testsuite>; the failed cases, ctest's list.
count() {
  sed -n '/<testsuite/,/>/p' "$junit" 2>/dev/null | grep -o "\b$1=\"[0-9]*\"" | head -1 | tr -dc 0-9
}
total=$(count tests) failed=$(count failures) skipped=$(count skipped)
if [ -z "$total" ]; then
  echo "$kv_name: ctest left no record ($junit); see $kv_log" >&2
  exit 1
fi
echo "$flavour: $((total - failed - skipped)) passed, $failed failed, $skipped skipped"
echo "$kv_name: $(kv_elapsed) in all; full log: $kv_log; JUnit: $junit"
if [ -s "$failed_log" ]; then
  echo "failed cases (their output is in the log and the JUnit file):"
  # "NUMBER:NAME", without GoogleTest's "  # GetParam() = ...".
  sed 's/^[0-9]*:/  /; s/  *#.*//' "$failed_log"
fi
if [ "$ctest_rc" -ne 0 ]; then
  [ "$failed" -gt 0 ] || echo "$kv_name: ctest exited with status $ctest_rc; see the log"
  # A CI run's log file goes with its machine: show everything ctest said.
  if [ -n "${CI:-}" ]; then sed -n '/^Test project/,$p' "$kv_log"; fi
fi
exit "$ctest_rc"
