#!/usr/bin/env bash
# Usage: scripts/setup.sh [demo|package|test|debian|bench|fuzz|coverage]: installs what that
# needs (default: test); safe to run any number of times.
#   demo   building kvstop, kvctl and kvdsim only (scripts/demo.sh)
#   package  the Debian packages' build dependencies (debian/control) and dpkg-buildpackage
#   test   building and running the test suite (scripts/test.sh): the package test, Ansible's
#          tools for the collection in ansible/, and the real monitoring tools that judge
#          kvctl: the monitoring-plugin libraries installed; promtool and node_exporter taken
#          out of their packages (apt-get download, dpkg -x) into build-interop/tools, never
#          installed, since the packages would install and start services
#   debian autopkgtest and piuparts in bookworm chroots (scripts/debian-check.sh)
#   bench  building and running the benchmarks (scripts/bench.sh)
#   fuzz   building the libFuzzer targets with clang (scripts/fuzz.sh)
#   coverage  the test set and gcovr (scripts/coverage.sh)
# The install starts, enables and reconfigures no service of the host: policy-rc.d refuses
# every start while it runs, and units that the install enabled are disabled again.
# With KV_SETUP_STATUS_FD set, says what it does on that descriptor ("kv:" lines) and has
# apt-get report its progress there.
set -euo pipefail

say() {
  echo "setup: $*"
  if [ -n "${KV_SETUP_STATUS_FD:-}" ]; then echo "kv:$*" >&"$KV_SETUP_STATUS_FD"; fi
}

build=(cmake ninja-build g++ libboost-dev nlohmann-json3-dev)
# Build-Depends of debian/control without versions (debhelper-compat is debhelper's), and
# what dpkg-buildpackage always needs.
mapfile -t package < <(sed -n '/^Build-Depends:/,/^[A-Z][-A-Za-z]*:/{/^Build-Depends:/!{/^ /!d}; s/^Build-Depends://; p}' \
  "$(dirname "$0")/../debian/control" | tr ',' '\n' | sed 's/([^)]*)//; s/[[:space:]]//g; /^$/d; s/^debhelper-compat$/debhelper/')
package+=(dpkg-dev build-essential)
# The package test: lintian, hardening-check (devscripts), mandoc and systemd-analyze.
test=("${build[@]}" "${package[@]}" libgtest-dev libgmock-dev util-linux iproute2 valgrind file
      pkgconf groff-base man-db python3-jsonschema zsh fish lintian devscripts mandoc systemd
      # ansible-test sanity and units, ansible-lint (ansible/tests/check.sh)
      ansible-core ansible-lint yamllint shellcheck pylint python3-pycodestyle python3-voluptuous
      python3-venv python3-pytest python3-pytest-xdist python3-pytest-forked
      # the monitoring-plugin libraries (tests/interop)
      curl python3 libmonitoring-plugin-perl python3-nagiosplugin)
profile=${1:-test}
case "$profile" in
  demo) packages=("${build[@]}") ;;
  package) packages=("${package[@]}") ;;
  test) packages=("${test[@]}") ;;
  debian) packages=("${package[@]}" autopkgtest piuparts debootstrap) ;;
  # Protocol Buffers only as the message benchmark's yardstick; python3 prints the table,
  # gnuplot draws the message sweep.
  bench) packages=("${build[@]}" libbenchmark-dev libprotobuf-dev protobuf-compiler python3
         gnuplot-nox) ;;
  fuzz) packages=("${build[@]}" clang libclang-rt-14-dev) ;;
  coverage) packages=("${test[@]}" gcovr) ;;
  *) echo "setup: unknown profile '$profile' (demo, package, test, debian, bench, fuzz or coverage)" >&2
     exit 2 ;;
esac
# Packages whose programs are only unpacked (test): a service's package, never installed.
unpacked=()
tools=$(cd "$(dirname "$0")/.." && pwd)/build-interop/tools
if [ "$profile" = test ] || [ "$profile" = coverage ]; then
  [ -x "$tools/usr/bin/promtool" ] || unpacked+=(prometheus)
  [ -x "$tools/usr/bin/prometheus-node-exporter" ] || unpacked+=(prometheus-node-exporter)
fi

installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q 'install ok installed'; }

missing=()
for p in "${packages[@]}"; do
  installed "$p" || missing+=("$p")
done
[ ${#missing[@]} -gt 0 ] || [ ${#unpacked[@]} -gt 0 ] || exit 0
if [ "$(id -u)" -ne 0 ]; then
  echo "setup: missing packages (${missing[*]} ${unpacked[*]}); run as root to install them" >&2
  exit 1
fi

export DEBIAN_FRONTEND=noninteractive
apt_opts=(-q -y --no-install-recommends)
if [ -n "${KV_SETUP_STATUS_FD:-}" ]; then apt_opts+=(-o "APT::Status-Fd=$KV_SETUP_STATUS_FD"); fi

say "updating the package lists"
apt-get -q update

if [ ${#unpacked[@]} -gt 0 ]; then
  say "unpacking ${unpacked[*]}"
  mkdir -p "$tools/debs"
  (cd "$tools/debs" && rm -f ./*.deb && apt-get -q download "${unpacked[@]}")
  for deb in "$tools"/debs/*.deb; do dpkg -x "$deb" "$tools"; done
  rm -rf "$tools/debs"
fi
[ ${#missing[@]} -gt 0 ] || exit 0

# No package may start a service while this runs (invoke-rc.d and deb-systemd-invoke ask
# policy-rc.d; 101: action forbidden). A policy the host already had is put back afterwards;
# one left by an interrupted run of this script is not.
policy=/usr/sbin/policy-rc.d
refuse=$'#!/bin/sh\nexit 101'
work=$(mktemp -d /tmp/kvsetup.XXXXXX)
cleanup() {
  rm -f "$policy"
  if [ -e "$work/policy-rc.d" ]; then mv "$work/policy-rc.d" "$policy"; fi
  rm -rf "$work"
}
trap cleanup EXIT
if [ -e "$policy" ] && [ "$(cat "$policy")" != "$refuse" ]; then cp -p "$policy" "$work/policy-rc.d"; fi
printf '%s\n' "$refuse" >"$policy"
chmod 755 "$policy"

unit_links() { find /etc/systemd/system -type l 2>/dev/null | sort; }
before=$(unit_links)

# What is installed, in a few words: the names, or how many there are.
what=${missing[*]}
[ ${#missing[@]} -le 5 ] || what="${#missing[@]} packages"
say "$what"
apt-get install "${apt_opts[@]}" "${missing[@]}"

# Packages enable their units on a first install (deb-systemd-helper links them into
# /etc/systemd/system); remove those links as `systemctl disable` would. Upgrades then find the
# unit disabled by the administrator and leave it so.
for link in $(comm -13 <(echo "$before") <(unit_links)); do
  echo "setup: disabling $(basename "$(readlink "$link")"), which the install enabled ($link)"
  rm -f "$link"
done

# The last word for scripts/common.sh.
say "$what"
