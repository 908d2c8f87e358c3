#!/usr/bin/env bash
# Usage: package_test.sh BUILD_DIR [CFLAGS...] (as root, under scripts/hermetic.sh)
# Makes the Debian package of BUILD_DIR with CPack and installs it with dpkg into this
# namespace only: /etc and /var are hermetic.sh's overlays and /usr gets one here, so the
# host's files and package database never change. Checks that kvstop and kvctl are on
# root's PATH, that man finds every page, that bash, zsh and fish each complete kvctl with
# its installed completion, that the installed kvctl reads the installed kvdsim's status
# (its JSON valid under the installed schema) and kvstop stops it, that the
# installed client library builds a C program through pkg-config, and that purging the
# package leaves exactly the files that were there before.
set -euo pipefail
build=${1:?usage: package_test.sh BUILD_DIR [CFLAGS...]}
shift
cflags=("$@")
grep -qs ' /var/zantormx ' /proc/self/mounts || { echo "run me under hermetic.sh" >&2; exit 2; }

T=$(mktemp -d /tmp/kvpackage.XXXXXX)
[ -n "$T" ] && [ -d "$T" ] || { echo "no temporary directory" >&2; exit 2; }
daemon=
cleanup() {
  [ -z "$daemon" ] || kill "$daemon" 2>/dev/null || true
  umount /usr 2>/dev/null || true
  umount "$T/usr" 2>/dev/null || true
  rm -rf "$T"
}
trap cleanup EXIT

fail=0
check() {  # check DESCRIPTION COMMAND...: run COMMAND, report and remember a failure
  local what=$1; shift
  if "$@"; then echo "ok   $what"; else echo "FAIL $what"; fail=1; fi
}
# What root gets from a login shell, as after `sudo -i`.
as_root() { env -i HOME=/root TERM=dumb bash -lc "$1"; }
# Every file and directory dpkg may touch, less its own journal and backups.
snapshot() {
  find /usr /etc /var -xdev \
    \( -path /var/lib/dpkg/updates -o -path /var/log -o -path /var/cache/man \
       -o -path /var/cache/debconf -o -path /var/tmp \) -prune -o -print |
    grep -Ev '^/var/lib/dpkg/[a-z]+-old$' | sort
}

(cd "$build" && cpack -G DEB -B "$T/pkg" >"$T/cpack.log" 2>&1) || { cat "$T/cpack.log"; exit 1; }
deb=$(ls "$T"/pkg/kvstop_*.deb)
dpkg-deb --field "$deb"

# A private, writable /usr over the host's.
mkdir "$T/usr"
mount -t tmpfs -o mode=755 kvpackage "$T/usr"
mkdir "$T/usr/up" "$T/usr/wk"
mount -t overlay overlay -o "lowerdir=/usr,upperdir=$T/usr/up,workdir=$T/usr/wk" /usr

check "kvstop is not installed yet" bash -c '! dpkg -s kvstop >/dev/null 2>&1'
check "kvstop is not on root's PATH yet" as_root '! command -v kvstop'
snapshot >"$T/before"

dpkg -i "$deb" >"$T/dpkg-i.log" 2>&1 || { cat "$T/dpkg-i.log"; exit 1; }
check "dpkg reports the package installed" \
  bash -c '[ "$(dpkg-query -W -f="\${Status}" kvstop)" = "install ok installed" ]'
check "kvstop is /usr/sbin/kvstop on root's PATH" as_root '[ "$(command -v kvstop)" = /usr/sbin/kvstop ]'
check "kvdsim is on the PATH" as_root '[ "$(command -v kvdsim)" = /usr/bin/kvdsim ]'
check "kvctl is /usr/sbin/kvctl on root's PATH" as_root '[ "$(command -v kvctl)" = /usr/sbin/kvctl ]'
for f in include/lrpc2/lrpc2.h include/zkvfw/lrpc2client.h include/zfw/logger.h \
         share/man/man8/kvstop.8.gz share/man/man8/kvctl.8.gz share/man/man1/kvdsim.1.gz \
         share/bash-completion/completions/kvctl share/zsh/vendor-completions/_kvctl \
         share/fish/vendor_completions.d/kvctl.fish share/kvctl/kvctl.schema.json; do
  check "/usr/$f belongs to the package" \
    bash -c '[ "$(dpkg -S "$1")" = "kvstop: $1" ]' _ "/usr/$f"
done

for page in "8 kvstop:kvstop - stop the local Kavelo audit daemon" \
            "8 kvctl:kvctl - query, reload or stop the local Kavelo audit daemon" \
            "1 kvdsim:kvdsim - simulated Kavelo audit daemon"; do
  out=$(MANPAGER=cat MANWIDTH=80 man --warnings=w ${page%%:*} 2>"$T/man.err") || true
  check "man ${page%%:*} shows the page" grep -qF "${page#*:}" <<<"$out"
  check "man ${page%%:*} renders without warnings" test ! -s "$T/man.err"
done
check "kvctl(8) names every option of kvctl --help" as_root 'm=$(MANPAGER=cat MANWIDTH=200 man kvctl)
  for o in $(kvctl --help | grep -o -- "--[a-z]*" | sort -u); do grep -qF -- "$o" <<<"$m" || exit 1; done'
out=$(MANPAGER=cat man -l /usr/share/man/man8/kvstop.8.gz 2>&1) || true
check "man -l on the installed kvstop(8)" grep -q '^EXIT STATUS' <<<"$out"

# The installed kvstop stops the installed simulated daemon on the default socket.
ready=/var/zantorkv/.kvdsim-ready
/usr/bin/kvdsim --exit-on-stop --ready-file "$ready" >/dev/null &
daemon=$!
for _ in $(seq 100); do [ -e "$ready" ] || ! kill -0 "$daemon" 2>/dev/null && break; sleep 0.05; done
check "kvdsim listens" test -e "$ready"
check "the installed kvctl reads the daemon's status" as_root 'kvctl status | grep -q "^online: *yes$"'
check "the installed kvctl's JSON is valid under the installed schema" bash -c \
  'kvctl --json status >"$1/status.json" && python3 -m jsonschema -i "$1/status.json" \
     /usr/share/kvctl/kvctl.schema.json' _ "$T"
check "bash completes kvctl's commands and options" bash -c \
  '. /usr/share/bash-completion/completions/kvctl 2>/dev/null; _init_completion() { cur=${COMP_WORDS[COMP_CWORD]}; prev=${COMP_WORDS[COMP_CWORD-1]}; words=("${COMP_WORDS[@]}"); cword=$COMP_CWORD; }
   COMP_WORDS=(kvctl st); COMP_CWORD=1; _kvctl; [ "${COMPREPLY[*]}" = "status stop" ] || exit 1
   COMP_WORDS=(kvctl status --j); COMP_CWORD=2; _kvctl; [ "${COMPREPLY[*]}" = "--json" ]'
# zsh completes only in its line editor: type into an interactive zsh on a pseudo-terminal
# and wait (bounded) for the listing of both commands.
check "zsh completes kvctl's commands" timeout 20 zsh -fc '
  zmodload zsh/zpty; zpty z env -i TERM=dumb PATH=/usr/bin:/bin zsh -f -i
  zpty -w z "PS1=; autoload -U compinit; compinit -u -D"; zpty -w -n z $'"'"'kvctl st\t\t'"'"'
  zpty -r z out "*status  -- online flag*stop    -- stop the daemon*"'
check "fish completes kvctl's commands and options" bash -c \
  '[ "$(fish -c "complete -C \"kvctl st\"; complete -C \"kvctl status --j\"" | cut -f1 | tr "\n" " ")" = "status stop --json " ]'
rc=0
out=$(as_root kvstop 2>&1) || rc=$?
check "kvstop exits 0 (status $rc)" test "$rc" = 0
check "kvstop says it stopped the daemon" test "$out" = "Zantor Kavelo daemon stopped successfully."
for _ in $(seq 100); do kill -0 "$daemon" 2>/dev/null || break; sleep 0.05; done
check "kvdsim exits after the stop request" bash -c '! kill -0 "$1" 2>/dev/null' _ "$daemon"
kill -KILL "$daemon" 2>/dev/null || true
wait "$daemon" 2>/dev/null || true
daemon=

# The client library through pkg-config, from a C program.
cat >"$T/client.c" <<'CEOF'
#include <stdio.h>
#include <string.h>
#include "lrpc2/lrpc2.h"
int main(void) {
    const char* name = lrpc2_table_name(lrpc2_default_table(), 20);
    const char* text = lrpc2_status_text(408);
    printf("%s|%s\n", name ? name : "(null)", text ? text : "(null)");
    return 0;
}
CEOF
flags=$(pkg-config --cflags --libs lrpc2) || flags=
check "pkg-config knows lrpc2" test -n "$flags"
# shellcheck disable=SC2086
check "a C program builds against the installed lrpc2" gcc -std=c99 -Wall -Werror \
  "${cflags[@]}" -o "$T/client" "$T/client.c" $flags
check "and runs" bash -c '[ "$("$1")" = "KVStop|Timeout during operation" ]' _ "$T/client"

dpkg --purge kvstop >"$T/dpkg-r.log" 2>&1 || { cat "$T/dpkg-r.log"; exit 1; }
check "dpkg forgot the package" bash -c '! dpkg -s kvstop >/dev/null 2>&1'
snapshot >"$T/after"
check "purging leaves exactly the files that were there before" diff "$T/before" "$T/after"
exit $fail
