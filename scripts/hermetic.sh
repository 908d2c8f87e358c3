#!/usr/bin/env bash
# Usage: hermetic.sh [--devlog] CMD [ARGS...]
# For the demo, the package test and the benchmarks (the test executables set up the same
# for themselves, tests/support/main.cpp). Runs CMD as root in private mount, pid and network
# namespaces (loopback down: none of them needs it) in which
# /etc and /var are writable overlays, and /etc/zantorkv, /var/zantorkv and /var/zantormx
# are empty tmpfs directories. With --devlog, /dev is private too, so CMD may bind its own
# /dev/log. The host's files are never changed; every process left behind ends with CMD,
# and everything in the namespaces dies with the caller of this script.
set -euo pipefail

devlog=0
if [ "${1:-}" = "--devlog" ]; then devlog=1; shift; fi
[ $# -gt 0 ] || { echo "usage: hermetic.sh [--devlog] CMD [ARGS...]" >&2; exit 2; }

if [ "${KV_HERMETIC_INSIDE:-}" != 1 ]; then
  T=$(mktemp -d /tmp/kvhermetic.XXXXXX)
  [ -n "$T" ] && [ -d "$T" ] || { echo "hermetic.sh: no temporary directory" >&2; exit 2; }
  rc=0
  KV_HERMETIC_INSIDE=1 KV_HERMETIC_T="$T" KV_HERMETIC_DEVLOG=$devlog \
    setpriv --pdeathsig KILL unshare -m -p -n --kill-child --mount-proc --propagation private \
    "$0" "$@" || rc=$?
  # The namespace is gone: its mounts went with it, only the empty directory is left.
  rmdir "$T/etc.up" "$T/etc.wk" "$T/var.up" "$T/var.wk" "$T/olddev" 2>/dev/null || true
  rmdir "$T" 2>/dev/null || true
  exit $rc
fi

T=${KV_HERMETIC_T:?}
mount -t tmpfs -o mode=755 kvhermetic "$T"
mkdir -p "$T/etc.up" "$T/etc.wk" "$T/var.up" "$T/var.wk"
mount -t overlay overlay -o "lowerdir=/etc,upperdir=$T/etc.up,workdir=$T/etc.wk" /etc
mount -t overlay overlay -o "lowerdir=/var,upperdir=$T/var.up,workdir=$T/var.wk" /var
for d in /etc/zantorkv /var/zantorkv /var/zantormx; do
  mkdir -p "$d"
  mount -t tmpfs -o mode=755 kvhermetic "$d"
done

if [ "${KV_HERMETIC_DEVLOG:-0}" = 1 ]; then
  mkdir -p "$T/olddev"
  mount --rbind /dev "$T/olddev"
  mount -t tmpfs -o mode=755 kvhermetic /dev
  for n in null zero full random urandom tty ptmx console; do
    [ -e "$T/olddev/$n" ] || continue
    touch "/dev/$n"
    mount --bind "$T/olddev/$n" "/dev/$n"
  done
  for d in pts shm; do
    mkdir -p "/dev/$d"
    [ -d "$T/olddev/$d" ] && mount --rbind "$T/olddev/$d" "/dev/$d"
  done
  ln -s /proc/self/fd /dev/fd
  ln -s /proc/self/fd/0 /dev/stdin
  ln -s /proc/self/fd/1 /dev/stdout
  ln -s /proc/self/fd/2 /dev/stderr
  umount -l "$T/olddev"
fi

unset KV_HERMETIC_INSIDE KV_HERMETIC_T KV_HERMETIC_DEVLOG
exec "$@"
