#!/usr/bin/env bash
# Usage: package_test.sh SOURCE_DIR (as root, under scripts/hermetic.sh)
# Builds the Debian packages of a copy of SOURCE_DIR, judges them with lintian and
# hardening-check, installs them with dpkg into this namespace only (/etc and /var are
# hermetic.sh's overlays, /usr gets one here) and checks what each installed file does; purging
# must leave exactly the files that were there before. Each check says what it proves.
set -euo pipefail
src=${1:?usage: package_test.sh SOURCE_DIR}
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

changes=$(bash "$src/scripts/debs.sh" "$src" "$T/src") || exit 1
debs=(kvstop kvdsim libkvstop-dev)
check "lintian passes every package" lintian --fail-on error,warning "$changes"
files=()
for p in "${debs[@]}"; do files+=("$T/src/${p}_1.0.0_$(dpkg --print-architecture).deb"); done
for f in "${files[@]}"; do dpkg-deb --field "$f" Package Version Depends; done

# A private, writable /usr over the host's.
mkdir "$T/usr"
mount -t tmpfs -o mode=755 kvpackage "$T/usr"
mkdir "$T/usr/up" "$T/usr/wk"
mount -t overlay overlay -o "lowerdir=/usr,upperdir=$T/usr/up,workdir=$T/usr/wk" /usr

for p in "${debs[@]}"; do
  check "$p is not installed yet" bash -c '! dpkg -s "$1" >/dev/null 2>&1' _ "$p"
done
check "kvstop is not on root's PATH yet" as_root '! command -v kvstop'
snapshot >"$T/before"

dpkg -i "${files[@]}" >"$T/dpkg-i.log" 2>&1 || { cat "$T/dpkg-i.log"; exit 1; }
for p in "${debs[@]}"; do
  check "dpkg reports $p installed" \
    bash -c '[ "$(dpkg-query -W -f="\${Status}" "$1")" = "install ok installed" ]' _ "$p"
done
check "kvstop is /usr/sbin/kvstop on root's PATH" as_root '[ "$(command -v kvstop)" = /usr/sbin/kvstop ]'
check "kvdsim is on the PATH" as_root '[ "$(command -v kvdsim)" = /usr/bin/kvdsim ]'
check "kvctl is /usr/sbin/kvctl on root's PATH" as_root '[ "$(command -v kvctl)" = /usr/sbin/kvctl ]'
lib=lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)
dev=libkvstop-dev:$(dpkg --print-architecture)  # Multi-Arch: same
for f in kvstop=sbin/kvstop kvstop=sbin/kvctl kvstop=share/man/man8/kvstop.8.gz \
         kvstop=share/man/man8/kvctl.8.gz kvstop=share/bash-completion/completions/kvctl \
         kvstop=share/zsh/vendor-completions/_kvctl kvstop=share/fish/vendor_completions.d/kvctl.fish \
         kvstop=share/kvctl/kvctl.schema.json kvstop=share/doc/kvstop/examples/kvctl-stop.conf \
         kvstop=share/kvstop/prometheus/kavelo.rules.yml kvstop=share/doc/kvstop/README.md \
         kvdsim=bin/kvdsim kvdsim=share/man/man1/kvdsim.1.gz \
         "$dev=include/lrpc2/lrpc2.h" "$dev=include/zkvfw/lrpc2client.h" "$dev=include/zfw/logger.h" \
         "$dev=$lib/libzfw_override.a" "$dev=$lib/pkgconfig/lrpc2.pc" "$dev=$lib/pkgconfig/zkvfw.pc" \
         "$dev=$lib/pkgconfig/zfw.pc"; do
  check "/usr/${f#*=} belongs to ${f%%=*}" \
    bash -c '[ "$(dpkg -S "$1")" = "$2: $1" ]' _ "/usr/${f#*=}" "${f%%=*}"
done
# PIE, stack protector, read-only relocations and immediate binding; not fortify (the
# programs replace snprintf themselves), nor what bookworm's dpkg-buildflags does not add.
for b in /usr/sbin/kvstop /usr/sbin/kvctl /usr/bin/kvdsim; do
  check "$b is hardened" bash -c '[ "$(hardening-check --nofortify --nocfprotection "$1")" = "$1:
 Position Independent Executable: yes
 Stack protected: yes
 Fortify Source functions: no, only unprotected functions found! (ignored)
 Read-only relocations: yes
 Immediate binding: yes
 Stack clash protection: unknown, no -fstack-clash-protection instructions found
 Control flow integrity: no, not found! (ignored)" ]' _ "$b"
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
for page in /usr/share/man/man8/kvstop.8.gz /usr/share/man/man8/kvctl.8.gz \
            /usr/share/man/man1/kvdsim.1.gz; do
  check "mandoc -T lint has nothing to say about $page" \
    bash -c '[ -z "$(mandoc -T lint "$1" 2>&1)" ]' _ "$page"
done
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
# A client of each library, built with nothing but its pkg-config flags: lrpc2 from C, the
# framework and the session from C++ (the session pings the daemon). libstdc++ prints 1.5
# through vsnprintf, so the framework's formatter ("%g" in fixed-point) shows in the output.
cat >"$T/lrpc2.c" <<'EOF'
#include <stdio.h>
#include "lrpc2/lrpc2.h"
int main(void) {
    int32_t status = 0;
    uint32_t length = 0;
    lrpc2_msg* msg = lrpc2_msg_create(20, 0, lrpc2_default_table(), 0, &status);
    if (msg && lrpc2_put_string(msg, "kvstop") == 0 && lrpc2_msg_complete(msg) == 0)
        lrpc2_msg_bytes(msg, &length, &status);
    lrpc2_msg_free(msg);
    printf("%s %u|%s\n", lrpc2_table_name(lrpc2_default_table(), 20), (unsigned)length,
           lrpc2_status_text(408));
    return 0;
}
EOF
cat >"$T/zfw.cpp" <<'EOF'
#include <iostream>
#include "zfw/strutil.h"
int main() {
    std::cout << zfw::toUpper(zfw::trim(" kavelo\t")) << ' ' << 1.5 << '|'
              << zfw::format("%05d", 42) << '\n';
}
EOF
cat >"$T/zkvfw.cpp" <<'EOF'
#include <cstdio>
#include "zkvfw/lrpc2client.h"
int main() {
    Lrpc2Client client;
    const bool connected = client.connect();
    std::printf("%s|%s\n", connected ? "connected" : "not connected",
                connected && client.ping() ? "ping" : "no ping");
}
EOF
for row in "lrpc2|gcc -std=c99|c|KVStop 14|Timeout during operation" \
           "zfw|g++ -std=c++17|cpp|KAVELO 1.500000|00042" "zkvfw|g++ -std=c++17|cpp|connected|ping"; do
  IFS='|' read -r name cc ext out1 out2 <<<"$row"
  flags=$(pkg-config --cflags --libs "$name") || flags=
  check "pkg-config knows $name" test -n "$flags"
  # shellcheck disable=SC2086
  check "a client of $name builds with its pkg-config flags" \
    $cc -Wall -Werror -o "$T/$name" "$T/$name.$ext" $flags
  check "and runs" bash -c '[ "$("$1")" = "$2" ]' _ "$T/$name" "$out1|$out2"
done
# The framework's vsnprintf replaces the C library's in its clients, even when only libstdc++
# and the framework call it (linked whole).
check "the framework's client defines vsnprintf" bash -c 'nm "$1" | grep -q " T vsnprintf$"' _ "$T/zfw"

# systemd accepts a unit of the daemon with the example drop-in, without a word.
mkdir -p "$T/unit/kavelo.service.d"
printf '%s\n' '[Unit]' 'Description=Kavelo audit daemon (simulated)' '' '[Service]' \
  'ExecStart=/usr/bin/kvdsim --exit-on-stop' >"$T/unit/kavelo.service"
cp /usr/share/doc/kvstop/examples/kvctl-stop.conf "$T/unit/kavelo.service.d/"
check "systemd-analyze verify prints nothing for a unit with the drop-in" \
  bash -c 'cd "$1" && [ -z "$(systemd-analyze verify ./kavelo.service 2>&1)" ]' _ "$T/unit"

rc=0
out=$(as_root kvstop 2>&1) || rc=$?
check "kvstop exits 0 (status $rc)" test "$rc" = 0
check "kvstop says it stopped the daemon" test "$out" = "Zantor Kavelo daemon stopped successfully."
for _ in $(seq 100); do kill -0 "$daemon" 2>/dev/null || break; sleep 0.05; done
check "kvdsim exits after the stop request" bash -c '! kill -0 "$1" 2>/dev/null' _ "$daemon"
kill -KILL "$daemon" 2>/dev/null || true
wait "$daemon" 2>/dev/null || true
daemon=

# The drop-in's stop command as systemd runs it: a daemon already gone is a clean stop, a
# failed stop request is not; and systemd waits longer than kvctl's worst case.
execstop=$(sed -n 's/^ExecStop=//p' /usr/share/doc/kvstop/examples/kvctl-stop.conf)
execstop=${execstop//\$\$/\$}
check "the drop-in's ExecStop succeeds when the daemon is gone" sh -c "$execstop 2>/dev/null"
rm -f "$ready"
/usr/bin/kvdsim --fault close-request --ready-file "$ready" >/dev/null &
daemon=$!
for _ in $(seq 100); do [ -e "$ready" ] || ! kill -0 "$daemon" 2>/dev/null && break; sleep 0.05; done
check "the drop-in's ExecStop fails when the stop request fails" sh -c "! $execstop 2>/dev/null"
kill -KILL "$daemon" 2>/dev/null || true
wait "$daemon" 2>/dev/null || true
daemon=
read -r t w < <(sed -n 's/.*--timeout \([0-9]*\) stop --wait \([0-9]*\).*/\1 \2/p' <<<"$execstop")
check "TimeoutStopSec= is above kvctl's connect, reply and wait" bash -c \
  '[ "$(sed -n "s/^TimeoutStopSec=//p" "$1")" -gt $(($2 * 2 + $3)) ]' _ \
  /usr/share/doc/kvstop/examples/kvctl-stop.conf "${t:-0}" "${w:-0}"

dpkg --purge "${debs[@]}" >"$T/dpkg-r.log" 2>&1 || { cat "$T/dpkg-r.log"; exit 1; }
for p in "${debs[@]}"; do
  check "dpkg forgot $p" bash -c '! dpkg -s "$1" >/dev/null 2>&1' _ "$p"
done
snapshot >"$T/after"
check "purging leaves exactly the files that were there before" diff "$T/before" "$T/after"
exit $fail
