#!/usr/bin/env bash
# Usage: scripts/fresh-check.sh [DIR [COMMAND...]]   (maintainers, as root; not part of the tests)
# What a newcomer meets on a fresh machine: makes a new Debian bookworm minbase root in DIR
# (default /var/tmp/kvstop-fresh; an old one there is removed) with debootstrap, copies this
# tree to /srv/kvstop in it, and runs the README's two commands (or the COMMANDs) there as
# root, without sudo, in order, twice: the second round shows that they can be run again. Each run happens in a
# private mount namespace in which DIR is bind-mounted onto itself (so that / is a mount point
# inside the chroot) with /proc, /sys and /dev, all of which end with the run. Prints every
# command's output, then a table of exit statuses, times and disk use, and checks that no
# service was enabled and no process was left running. Everything printed is also in DIR.log.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
root=${1:-/var/tmp/kvstop-fresh}
root=$(realpath -m "$root")
commands=("${@:2}")
[ ${#commands[@]} -gt 0 ] || commands=("bash scripts/demo.sh" "bash scripts/test.sh")
[ "$(id -u)" -eq 0 ] || { echo "fresh-check.sh: run as root" >&2; exit 1; }
case "$root" in /) echo "fresh-check.sh: DIR must not be /" >&2; exit 2 ;; esac
exec > >(tee "$root.log") 2>&1

if ! command -v debootstrap >/dev/null 2>&1; then
  apt-get -q update && apt-get -q -y install debootstrap
fi
if grep -qs " ${root}[ /]" /proc/mounts; then
  echo "fresh-check.sh: something is still mounted under $root; unmount it first" >&2
  exit 1
fi
rm -rf "$root"

mb() { du -sxm "$1" | cut -f1; }
now() { date +%s; }
declare -a rows=()

echo "== debootstrap --variant=minbase bookworm $root"
t=$(now)
debootstrap --variant=minbase bookworm "$root" >"$root.debootstrap.log" 2>&1 ||
  { tail -n 20 "$root.debootstrap.log"; exit 1; }
rows+=("$(printf '%-22s %6s %9s %9s' "debootstrap minbase" 0 "$(($(now) - t)) s" "$(mb "$root") MB")")
base_links=$(cd "$root" && find etc/systemd/system -type l 2>/dev/null | sort)

# The tree as git sees it (tracked files and new ones it does not ignore), no build output.
mkdir -p "$root/srv/kvstop"
(cd "$top" && git ls-files -z -co --exclude-standard | tar -c --null -T - -f -) |
  tar -x -C "$root/srv/kvstop" -f -
cp /etc/resolv.conf "$root/etc/resolv.conf"

# in_root COMMAND: runs COMMAND in the fresh root as root's login shell would.
in_root() {
  unshare -m --propagation private bash -c '
    set -e
    r=$1
    mount --bind "$r" "$r"
    mount -t proc proc "$r/proc"
    mount -t sysfs sysfs "$r/sys"
    mount --rbind /dev "$r/dev"
    exec chroot "$r" env -i HOME=/root TERM=dumb bash -lc "$2"
  ' in_root "$root" "$1"
}

for round in 1 2; do
  for cmd in "${commands[@]}"; do
    echo
    echo "== round $round: # $cmd"
    before=$(mb "$root")
    t=$(now)
    rc=0
    in_root "cd /srv/kvstop && $cmd" </dev/null || rc=$?
    label="$(cut -c1-16 <<<"${cmd#bash scripts/}") ($round)"
    rows+=("$(printf '%-22s %6s %9s %9s' "$label" "$rc" \
      "$(($(now) - t)) s" "+$(($(mb "$root") - before)) MB")")
  done
done

echo
echo "== results ($root)"
printf '%-22s %6s %9s %9s\n' run status time disk
printf '%s\n' "${rows[@]}"
echo "apt's package cache: $(mb "$root/var/cache/apt/archives") MB; the tree with its builds: $(mb "$root/srv/kvstop") MB"
for d in build-demo build .deps; do
  [ -d "$root/srv/kvstop/$d" ] && echo "  /srv/kvstop/$d: $(mb "$root/srv/kvstop/$d") MB"
done

echo
echo "== services"
new_links=$(comm -13 <(echo "$base_links") <(cd "$root" && find etc/systemd/system -type l 2>/dev/null | sort))
echo "units enabled by the commands: ${new_links:-none}"
echo "policy-rc.d left behind: $([ -e "$root/usr/sbin/policy-rc.d" ] && echo yes || echo no)"
left=
for p in /proc/[0-9]*; do
  [ "$(readlink "$p/root" 2>/dev/null)" = "$root" ] && left+=" $(basename "$p"):$(cat "$p/comm")"
done
echo "processes still running in the root:${left:- none}"
