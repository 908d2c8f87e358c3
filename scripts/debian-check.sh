#!/usr/bin/env bash
# Usage: scripts/debian-check.sh [autopkgtest|piuparts|all]: Debian's own checks of the
# packages that the package command builds (scripts/debs.sh, from a copy of this tree):
#   autopkgtest  debian/tests against the installed packages, in a chroot of a new bookworm
#                (autopkgtest's chroot backend; the tests make their own namespaces in it)
#   piuparts     install and purge, and upgrade from the previous build, in clean bookworm
#                chroots (the previous build: the packages of this script's last successful
#                run, or on a first run this tree with a lower version)
# Both take bookworm from the host's Debian mirror (/etc/apt/sources.list*), as a debootstrap
# minbase kept in build-debian/bookworm.tar.gz. Nothing is installed into the host and no
# service starts: every chroot is mounted in a private mount namespace that ends with it.
# One line a phase; the whole output goes to build-debian/debian-check.log.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
kv_name='debian-check'
# shellcheck source=scripts/common.sh
source "$top/scripts/common.sh"
what=${1:-all}
case "$what" in
  autopkgtest | piuparts | all) ;;
  *) echo "usage: scripts/debian-check.sh [autopkgtest|piuparts|all]" >&2; exit 2 ;;
esac
kv_as_root "$0" "$@"
kv_check_namespaces
dir=$top/build-debian
mkdir -p "$dir"
kv_start_log "$dir/debian-check.log"
kv_install debian

# The first Debian mirror that the host's apt uses for bookworm (deb822 or one-line form).
mirror=$({ cat /etc/apt/sources.list /etc/apt/sources.list.d/*.list \
             /etc/apt/sources.list.d/*.sources 2>/dev/null || true; } | awk '
  /^deb / && $3 == "bookworm" { print $2; exit }
  /^deb \[/ { for (i = 2; i <= NF; i++) if ($i ~ /\]$/) break; if ($(i + 2) == "bookworm") { print $(i + 1); exit } }
  /^URIs:/ { uri = $2 }
  /^Suites:/ { for (i = 2; i <= NF; i++) if ($i == "bookworm") { print uri; exit } }')
[ -n "$mirror" ] || kv_fail "no Debian bookworm mirror in /etc/apt/sources.list*"

base=$dir/bookworm.tar.gz
if [ ! -s "$base" ]; then
  t0=$SECONDS
  kv_show "debootstrap: bookworm minbase from $mirror"
  rm -rf "$dir/rootfs"
  debootstrap --variant=minbase bookworm "$dir/rootfs" "$mirror" >>"$kv_log" 2>&1 ||
    kv_fail "debootstrap failed"
  tar -C "$dir/rootfs" -czf "$base.new" . && mv "$base.new" "$base"
  rm -rf "$dir/rootfs"
  kv_done "debootstrap: bookworm minbase from $mirror ($(kv_elapsed "$t0"))"
fi

t0=$SECONDS
kv_show "building the packages"
bash "$top/scripts/debs.sh" "$top" "$dir/current" >/dev/null 2>>"$kv_log" || kv_fail "building failed"
kv_done "building the packages ($(kv_elapsed "$t0"))"
arch=$(dpkg --print-architecture)
debs=()
for p in kvstop kvdsim libkvstop-dev; do debs+=("$(ls "$dir"/current/"${p}"_*_"$arch".deb)"); done

if [ "$what" != piuparts ]; then
  t0=$SECONDS
  kv_show "autopkgtest"
  # The chroot's / is a mount point (the tests' namespaces need one); /proc, /sys and /dev
  # are the host's, and no package may start a service in it.
  root=$dir/autopkgtest-root
  rm -rf "$root"
  mkdir -p "$root"
  # shellcheck disable=SC2016 # the chroot's script expands its own arguments
  unshare -m --propagation private bash -c '
    set -e
    root=$1 base=$2
    shift 2
    mount --bind "$root" "$root"
    tar -C "$root" -xzf "$base"
    printf "#!/bin/sh\nexit 101\n" >"$root/usr/sbin/policy-rc.d"
    chmod 755 "$root/usr/sbin/policy-rc.d"
    mount -t proc proc "$root/proc"
    mount --rbind /sys "$root/sys"
    mount --rbind /dev "$root/dev"
    exec autopkgtest --no-built-binaries "$@" -- chroot "$root"
  ' _ "$root" "$base" "${debs[@]}" "$dir/current/kvstop/" >>"$kv_log" 2>&1 ||
    kv_fail "autopkgtest failed"
  rm -rf "$root"
  kv_done "autopkgtest: every test passed ($(kv_elapsed "$t0"))"
fi

if [ "$what" != autopkgtest ]; then
  t0=$SECONDS
  previous=$dir/previous
  if ! ls "$previous"/kvstop_*.deb >/dev/null 2>&1; then
    kv_show "piuparts: building this tree as the previous version"
    version=$(dpkg-parsechangelog -l "$top/debian/changelog" -S Version)
    bash "$top/scripts/debs.sh" "$top" "$dir/previous-build" "$version~previous" >/dev/null 2>>"$kv_log" ||
      kv_fail "building the previous version failed"
    rm -rf "$previous"
    mkdir -p "$previous"
    for p in kvstop kvdsim libkvstop-dev; do cp "$dir"/previous-build/"${p}"_*_"$arch".deb "$previous/"; done
    rm -rf "$dir/previous-build"
  fi
  (cd "$previous" && dpkg-scanpackages . >Packages 2>>"$kv_log")
  kv_show "piuparts: install, purge and upgrade from $(dpkg-deb -f "$(ls "$previous"/kvstop_*.deb)" Version)"
  piuparts --basetgz "$base" --mirror "$mirror" --distribution bookworm --bindmount "$previous" \
    --extra-repo "deb [trusted=yes] file://$previous ./" "${debs[@]}" >>"$kv_log" 2>&1 ||
    kv_fail "piuparts failed"
  grep -q 'PASS: Installation, upgrade and purging tests' "$kv_log" ||
    kv_fail "piuparts did not test the upgrade"
  rm -rf "$previous"
  mkdir -p "$previous"
  cp "${debs[@]}" "$previous/"
  kv_done "piuparts: install, purge and upgrade passed ($(kv_elapsed "$t0"))"
fi
echo "$kv_name: $(kv_elapsed) in all; full log: $kv_log"
