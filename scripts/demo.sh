#!/usr/bin/env bash
# The main job: installs what building kvstop, kvctl and kvdsim needs, builds those three,
# and runs kvctl status and kvstop against the simulated daemon inside private namespaces, so
# the host's /etc/zantorkv and /var/zantorkv stay untouched. One line a phase; the whole
# output of the set-up is in build-demo/demo.log. Ends with kvstop's own result and exit
# status. Re-runs itself through sudo when not root.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
kv_name=demo
# shellcheck source=scripts/common.sh
source "$top/scripts/common.sh"
kv_as_root "$0" "$@"
kv_check_namespaces
kv_flavour demo
kv_start_log "$kv_dir/demo.log"
kv_install demo
kv_configure
kv_build kvstop kvctl kvdsim
kv_done "running kvctl status and kvstop against kvdsim in private namespaces"
exec "$top/scripts/hermetic.sh" bash -c '
  set -u
  bin=$1
  # The simulated daemon on the default socket: it answers the stop request and exits.
  ready=/var/zantorkv/.kvdsim-ready
  "$bin/tools/kvdsim/kvdsim" --socket /var/zantorkv/audit --exit-on-stop \
    --ready-file "$ready" >/dev/null &
  daemon=$!
  for _ in $(seq 100); do
    [ -e "$ready" ] || ! kill -0 "$daemon" 2>/dev/null && break
    sleep 0.05
  done
  [ -e "$ready" ] || { echo "kvdsim did not start" >&2; exit 1; }
  echo "kvdsim listening on /var/zantorkv/audit (pid $daemon)"
  echo "$ kvctl status"
  "$bin/tools/kvctl/kvctl" status || { echo "kvctl status failed" >&2; exit 1; }
  echo "$ kvstop"
  rc=0
  "$bin/tools/kvstop/kvstop" || rc=$?
  echo "kvstop exit status: $rc"
  kill "$daemon" 2>/dev/null || true
  wait "$daemon" 2>/dev/null || true
  exit "$rc"
' demo "$kv_dir"
