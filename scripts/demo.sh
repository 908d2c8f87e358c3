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
  echo "$ kvstop"
  rc=0
  "$bin/tools/kvstop/kvstop" || rc=$?
  echo "kvstop exit status: $rc"
' demo "$dir"
