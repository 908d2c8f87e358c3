#!/usr/bin/env bash
# Usage: rsyslog_test.sh BUILD_DIR (as root, under tests/support/hermetic.sh --devlog)
# Debian's rsyslogd, with a minimal configuration, listens on this namespace's private
# /dev/log and writes facility, severity, tag and message of every record to a file. The
# real kvstop then stops the simulated daemon (success record: auth.info) and fails to
# stop one that closes without a reply (error record: auth.err).
set -euo pipefail
build=${1:?usage: rsyslog_test.sh BUILD_DIR}
grep -qs ' /dev tmpfs ' /proc/self/mounts && grep -qs ' /var/zantorkv ' /proc/self/mounts ||
  { echo "run me under hermetic.sh --devlog" >&2; exit 2; }
kvstop=$build/tools/kvstop/kvstop
kvdsim=$build/tools/kvdsim/kvdsim

T=$(mktemp -d /tmp/kvrsyslog.XXXXXX)
[ -n "$T" ] && [ -d "$T" ] || { echo "no temporary directory" >&2; exit 2; }
syslogd=
daemon=
cleanup() {
  for p in $daemon $syslogd; do kill "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$T"
}
trap cleanup EXIT

cat >"$T/rsyslog.conf" <<CONF
module(load="imuxsock" SysSock.Name="/dev/log" SysSock.RateLimit.Interval="0")
template(name="numbers" type="string"
         string="%syslogfacility% %syslogseverity% %syslogtag%%msg:::sp-if-no-1st-sp%%msg:::drop-last-lf%\n")
global(workDirectory="$T")
*.* action(type="omfile" file="$T/records" template="numbers")
CONF
rsyslogd -n -f "$T/rsyslog.conf" -i "$T/rsyslogd.pid" >"$T/rsyslogd.out" 2>&1 &
syslogd=$!
for _ in $(seq 100); do [ -S /dev/log ] || ! kill -0 "$syslogd" 2>/dev/null && break; sleep 0.05; done
[ -S /dev/log ] || { echo "rsyslogd did not start:"; cat "$T/rsyslogd.out"; exit 1; }

fail=0
# run_case NAME EXPECTED_STATUS EXPECTED_RECORD KVDSIM_OPTIONS...: kvstop against kvdsim
# started with the options; the record must reach the file with kvstop's own pid.
run_case() {
  local name=$1 want_rc=$2 want=$3; shift 3
  local ready=/var/zantorkv/.ready-$name
  "$kvdsim" --ready-file "$ready" "$@" >/dev/null &
  daemon=$!
  for _ in $(seq 100); do [ -e "$ready" ] || ! kill -0 "$daemon" 2>/dev/null && break; sleep 0.05; done
  [ -e "$ready" ] || { echo "FAIL $name: kvdsim did not start"; fail=1; return; }
  "$kvstop" >"$T/$name.out" 2>&1 &
  local pid=$! rc=0
  wait "$pid" || rc=$?
  kill "$daemon" 2>/dev/null || true
  wait "$daemon" 2>/dev/null || true
  daemon=
  if [ "$rc" != "$want_rc" ]; then
    echo "FAIL $name: kvstop exited $rc, wanted $want_rc:"; cat "$T/$name.out"; fail=1
  fi
  local line="$want" found=0
  line=${line/@PID@/$pid}
  for _ in $(seq 100); do
    grep -qxF "$line" "$T/records" 2>/dev/null && { found=1; break; }
    sleep 0.05
  done
  if [ $found = 1 ]; then
    echo "ok   $name: $line"
  else
    echo "FAIL $name: no record \"$line\"; rsyslogd wrote:"; cat "$T/records" 2>/dev/null; fail=1
  fi
}

# Facility 4 is auth; severity 6 info, 3 err.
run_case stopped 0 \
  "4 6 kvstop[@PID@]: INFO  zkv.cli.kvstop Zantor Kavelo daemon stopped successfully." \
  --socket /var/zantorkv/audit --exit-on-stop
run_case refused 2 \
  "4 3 kvstop[@PID@]: ERROR zkv.cli.kvstop Unable to stop Kavelo daemon: Unable to send lrpc2 message: 404 (Socket closed)" \
  --socket /var/zantorkv/audit --fault close-request
exit $fail
