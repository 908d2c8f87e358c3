#!/usr/bin/env bash
# Usage: run.sh KVCTL KVDSIM COLLECTION_DIR: the collection built with ansible-galaxy, installed
# from its tarball, and its playbook zantor.kavelo.stop run with ansible-playbook on three hosts of one machine
# (inventory.yml: local connection, a kvdsim on its own socket for each). Run it in private
# namespaces (scripts/hermetic.sh), where every daemon it starts ends with it.
#   stop      all three stopped: changed=3, failed=0, every daemon's process gone
#   again     changed=0
#   check     --check --diff: changed=3 with each host's diff, every daemon still running
#   refusal   one daemon that keeps running past its stop: failed=1 with the message and its
#             pid, the other two stopped
set -euo pipefail
kvctl=$(realpath "${1:?usage: run.sh KVCTL KVDSIM COLLECTION_DIR}") kvdsim=$(realpath "${2:?}")
coll=$(cd "${3:?}" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
T=$(mktemp -d /tmp/kvfleet.XXXXXX)
trap 'rm -rf "$T"' EXIT
export HOME=$T/home KV_FLEET_DIR=$T ANSIBLE_NOCOLOR=1 ANSIBLE_COLLECTIONS_PATH=$T/collections
bin=$(dirname "$kvctl")
export PATH=$bin:/usr/sbin:/usr/bin:/sbin:/bin
mkdir -p "$HOME"
ip link set lo up

ansible-galaxy collection build "$coll" --output-path "$T"
ansible-galaxy collection install "$T/zantor-kavelo-1.0.0.tar.gz" -p "$T/collections"

hosts=(host1 host2 host3)
declare -A pid=()
failed=0
fail() { echo "FAILED: $*"; failed=$((failed + 1)); }

# start HOST [KVDSIM OPTIONS...]: the host's daemon, listening within five seconds.
start() {
  local h=$1 dir=$T/$1
  shift
  mkdir -p "$dir"
  rm -f "$dir/ready"
  "$kvdsim" --socket "$dir/audit" --ready-file "$dir/ready" "$@" >"$dir/kvdsim.log" 2>&1 &
  pid[$h]=$!
  for _ in $(seq 100); do
    [ -e "$dir/ready" ] && return 0
    sleep 0.05
  done
  echo "kvdsim for $h did not listen within 5 s" >&2
  exit 1
}

# Whether the process has ended (a child that ended is left as a zombie until reaped).
gone() {
  local state
  state=$(cut -d' ' -f3 "/proc/$1/stat" 2>/dev/null) || return 0
  [ "$state" = Z ]
}

# expect_running HOST / expect_gone HOST: the daemon's process, and what kvctl status says.
expect_running() {
  local rc=0
  timeout 30 kvctl -s "$T/$1/audit" status >/dev/null 2>&1 || rc=$?
  gone "${pid[$1]}" && fail "$run: $1's daemon (pid ${pid[$1]}) is gone"
  [ $rc -eq 0 ] || fail "$run: kvctl status on $1 exits $rc, not 0"
}
expect_gone() {
  local rc=0
  timeout 30 kvctl -s "$T/$1/audit" status >/dev/null 2>&1 || rc=$?
  gone "${pid[$1]}" || fail "$run: $1's daemon (pid ${pid[$1]}) still runs"
  [ $rc -eq 1 ] || fail "$run: kvctl status on $1 exits $rc, not 1 (not reachable)"
}

# play NAME WANT_RC RECAP ARGS...: the playbook with ARGS; its exit status and its whole recap,
# one line a host as "HOST ok=N changed=N failed=N".
play() {
  run=$1
  local want_rc=$2 want=$3 rc=0 t0=$SECONDS
  shift 3
  timeout 300 ansible-playbook -i "$here/inventory.yml" zantor.kavelo.stop "$@" >"$T/$run.out" 2>&1 || rc=$?
  echo "== $run: ansible-playbook $* -> exit $rc in $((SECONDS - t0)) s"
  cat "$T/$run.out"
  [ $rc -eq "$want_rc" ] || fail "$run: exit status $rc, not $want_rc"
  sed -n '/^PLAY RECAP/,$p' "$T/$run.out" |
    sed -nE 's/^(host[0-9]) +: ok=([0-9]+) +changed=([0-9]+) +unreachable=0 +failed=([0-9]+) .*/\1 ok=\2 changed=\3 failed=\4/p' >"$T/$run.recap"
  diff <(printf '%s\n' "$want") "$T/$run.recap" || fail "$run: recap"
}

for h in "${hosts[@]}"; do start "$h" --exit-on-stop; done
play stop 0 $'host1 ok=1 changed=1 failed=0\nhost2 ok=1 changed=1 failed=0\nhost3 ok=1 changed=1 failed=0'
for h in "${hosts[@]}"; do expect_gone "$h"; done

play again 0 $'host1 ok=1 changed=0 failed=0\nhost2 ok=1 changed=0 failed=0\nhost3 ok=1 changed=0 failed=0'

for h in "${hosts[@]}"; do start "$h" --exit-on-stop; done
play check 0 $'host1 ok=1 changed=1 failed=0\nhost2 ok=1 changed=1 failed=0\nhost3 ok=1 changed=1 failed=0' \
  --check --diff
for h in "${hosts[@]}"; do expect_running "$h"; done
# Each host's diff: "--- before", "+++ after", "@@ -1 +1 @@", "-state: running", "+state: stopped".
grep -cx -e '-state: running' -e '+state: stopped' "$T/check.out" | grep -qx 6 || fail "check: the diffs"

# host2's daemon answers the stop but goes on running (no --exit-on-stop).
kill "${pid[host2]}"
wait "${pid[host2]}" || true
start host2
play refusal 2 $'host1 ok=1 changed=1 failed=0\nhost2 ok=0 changed=0 failed=1\nhost3 ok=1 changed=1 failed=0' \
  -e kavelo_wait=2
expect_gone host1
expect_gone host3
expect_running host2
msg=$(sed -nE 's/^fatal: \[host2\]: FAILED! => .*"msg": "([^"]*)".*/\1/p' "$T/refusal.out")
want="stop failed: still running after 2 s (pid ${pid[host2]})"
[ "$msg" = "$want" ] || fail "refusal: host2's msg is '$msg', not '$want'"
grep -q "^fatal: \[host2\]: FAILED! => .*\"error\": {\"kind\": \"failed\", \"message\": \"still running after 2 s (pid ${pid[host2]})\", \"pid\": ${pid[host2]}, \"socket\": \"$T/host2/audit\"}" \
  "$T/refusal.out" || fail "refusal: host2's error object"
grep -q "^fatal: \[host2\]: FAILED! => .*\"msg\": \"$want\", \"pid\": ${pid[host2]}," "$T/refusal.out" ||
  fail "refusal: host2's pid"

ansible-playbook --version >"$T/version"
echo "version: $(head -n 1 "$T/version")"
[ $failed -eq 0 ] || { echo "$failed checks failed"; exit 1; }
echo "all checks passed"
