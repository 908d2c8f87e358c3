#!/usr/bin/env bash
# Usage: scripts/test.sh [plain|asan|tsan]: installs what the tests need, builds, and runs every
# test; the plain flavour then runs scripts/interop.sh. One line a phase, then a summary: counts,
# time, the full log (BUILD_DIR/test.log) and the first lines of every failed case. Exits
# non-zero when a case fails. Re-runs itself through sudo when not root.
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

# ctest's result lines ("  3/317 Test   #3: NAME .....***Failed    0.02 sec") count the cases;
# with --output-on-failure a failed case's output follows its line, up to an empty line or the
# next case.
result='^ *([0-9]+)/([0-9]+) +Test +#[0-9]+: (.+) \.*( +|\*\*\*)([A-Za-z][A-Za-z :]*[A-Za-z]) +[0-9.]+ sec$'
passed=0 failed=0 skipped=0 total=0 current='' status='' note=''
failures=()
declare -A first=() lines=()
t0=$SECONDS
kv_show "testing"
cd "$kv_dir"
ctest_rc=0
ctest --output-on-failure -j "$(nproc)" 2>&1 |
  while IFS= read -r line; do
    printf '%s\n' "$line" >>"$kv_log"
    if [[ $line =~ $result ]]; then
      total=${BASH_REMATCH[2]} current=${BASH_REMATCH[3]} status=${BASH_REMATCH[5]}
      case "$status" in
        Passed) passed=$((passed + 1)) current= ;;
        Skipped) skipped=$((skipped + 1)) current= ;;
        *)
          # The name without ctest's dots and GoogleTest's "  # GetParam() = ...".
          current=${current%%  # *} failed=$((failed + 1))
          [[ $current =~ ^(.*[^\ .])[\ .]*$ ]] && current=${BASH_REMATCH[1]}
          failures+=("$current ($status)")
          first[$current]='' lines[$current]=0 note=", $failed failed"
          ;;
      esac
      kv_show "testing $((passed + failed + skipped))/$total$note"
    elif [ -n "$current" ]; then
      case "$line" in
        '' | ' '*'Start '*) current= ;;
        # GoogleTest's banners say nothing about the failure.
        'Running main() from'* | 'Note: Google Test filter'* | '[=========='* | '[----------'* | '[ RUN      ]'*) ;;
        *)
          if [ "${lines[$current]}" -lt 3 ]; then
            first[$current]+="${line:0:150}"$'\n' lines[$current]=$((lines[$current] + 1))
          fi
          ;;
      esac
    fi
  done || ctest_rc=$?
kv_done "testing $((passed + failed + skipped))/$total$note ($(kv_elapsed "$t0"))"

echo "$flavour: $passed passed, $failed failed, $skipped skipped"
echo "$kv_name: $(kv_elapsed) in all; full log: $kv_log"
if [ $failed -gt 0 ]; then
  echo "failed cases:"
  for f in "${failures[@]}"; do
    echo "  $f"
    printf '%s' "${first[${f% (*}]}" | sed 's/^/      /'
  done
fi
if [ "$ctest_rc" -ne 0 ]; then
  [ $failed -gt 0 ] || echo "$kv_name: ctest exited with status $ctest_rc; see the log"
  # A CI run's log file goes with its machine: show everything ctest said.
  if [ -n "${CI:-}" ]; then sed -n '/^Test project/,$p' "$kv_log"; fi
fi
# kvctl's monitoring forms judged by promtool, node_exporter and the monitoring-plugin
# libraries; the plain build is enough, as they judge output, not memory.
interop_rc=0
if [ "$flavour" = plain ]; then bash "$top/scripts/interop.sh" || interop_rc=$?; fi
[ "$ctest_rc" -ne 0 ] || ctest_rc=$interop_rc
exit "$ctest_rc"
