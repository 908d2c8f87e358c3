#!/usr/bin/env bash
# The main job: set up, build, and run kvstop against the bundled simulated daemon,
# inside private namespaces so the host's /etc/zantorkv and /var/zantorkv stay untouched.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/scripts/setup.sh"
dir=$("$top/scripts/build.sh" plain)
exec "$top/tests/support/hermetic.sh" bash -c '
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
' demo "$dir"
