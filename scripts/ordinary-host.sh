#!/usr/bin/env bash
# Usage: scripts/ordinary-host.sh [plain|asan|tsan]: the README's test command as an ordinary
# Debian host would run it, whatever this machine's own settings: soft `ulimit -n` 1024,
# net.unix.max_dgram_qlen 512 and a name server on 127.0.0.1:53 that takes every query and
# never answers. The network settings live in a network namespace made for the run, so the
# host's are not touched. Needs root; installs first, outside the namespace, which has no way
# out to the package archive.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
kv_name='ordinary-host'
# shellcheck source=scripts/common.sh
source "$top/scripts/common.sh"
kv_as_root "$0" "$@"
flavour=${1:-plain}

"$top/scripts/setup.sh" test >/dev/null

# shellcheck disable=SC2016 # expanded by the inner shell
exec unshare -n --kill-child -- bash -c '
  set -euo pipefail
  ip link set lo up
  echo 512 >/proc/sys/net/unix/max_dgram_qlen
  # The silent name server: bound on UDP and listening on TCP, it reads nothing and answers nothing.
  coproc dns {
    exec perl -MSocket -e '"'"'
      my $at = pack_sockaddr_in(53, inet_aton("127.0.0.1"));
      my ($udp, $tcp);
      socket($udp, PF_INET, SOCK_DGRAM, 0) && bind($udp, $at) or die "udp 53: $!\n";
      socket($tcp, PF_INET, SOCK_STREAM, 0) && bind($tcp, $at) && listen($tcp, 128)
        or die "tcp 53: $!\n";
      $| = 1; print "listening\n"; sleep;'"'"'
  }
  read -r -t 10 ready <&"${dns[0]}" && [ "$ready" = listening ] ||
    { echo "ordinary-host: the silent name server did not start" >&2; exit 1; }
  ulimit -Sn 1024
  echo "ordinary-host: soft ulimit -n $(ulimit -Sn), net.unix.max_dgram_qlen" \
       "$(cat /proc/sys/net/unix/max_dgram_qlen), a silent name server on 127.0.0.1:53"
  rc=0
  bash "$1/scripts/test.sh" "$2" || rc=$?
  kill "$dns_PID"
  exit $rc
' ordinary-host "$top" "$flavour"
