#!/usr/bin/env bash
# Installs what the build and the tests need; safe to run any number of times.
# Usage: scripts/setup.sh [--bench]   (--bench: also what only scripts/bench.sh needs)
set -euo pipefail

packages=(cmake ninja-build g++ clang libclang-rt-14-dev libboost-dev libgtest-dev
          libgmock-dev libbenchmark-dev nlohmann-json3-dev util-linux valgrind
          dpkg-dev file pkgconf groff-base man-db rsyslog)
if [ "${1:-}" = --bench ]; then
  # Protocol Buffers only as the message benchmark's yardstick; python3 prints the table.
  packages+=(libprotobuf-dev protobuf-compiler python3)
fi
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  if [ "$(id -u)" -ne 0 ]; then
    echo "setup: missing packages (${missing[*]}); run as root to install them" >&2
    exit 1
  fi
  export DEBIAN_FRONTEND=noninteractive
  apt-get update
  apt-get install -y --no-install-recommends "${missing[@]}"
fi
