#!/usr/bin/env bash
# Usage: scripts/debs.sh SOURCE_DIR OUT_DIR [VERSION]: the package command
# (dpkg-buildpackage -us -uc -b) on a copy of SOURCE_DIR without its build directories, with
# its output in OUT_DIR; with VERSION, the copy's changelog first gets an entry of that
# version. Prints the .changes file's path. The build's own output goes to OUT_DIR/build.log.
set -euo pipefail
src=${1:?usage: debs.sh SOURCE_DIR OUT_DIR [VERSION]}
out=${2:?usage: debs.sh SOURCE_DIR OUT_DIR [VERSION]}
version=${3:-}
rm -rf "$out"
mkdir -p "$out/kvstop"
tar -C "$src" --exclude='./build*' --exclude=./.git -cf - . | tar -C "$out/kvstop" -xf -
cd "$out/kvstop"
if [ -n "$version" ]; then
  { printf 'kvstop (%s) unstable; urgency=medium\n\n  * Build of %s.\n\n -- %s  %s\n\n' \
      "$version" "$version" "$(dpkg-parsechangelog -S Maintainer)" "$(date -R)"
    cat debian/changelog; } >debian/changelog.new
  mv debian/changelog.new debian/changelog
fi
dpkg-buildpackage -us -uc -b -j2 >"$out/build.log" 2>&1 || { tail -40 "$out/build.log" >&2; exit 1; }
ls "$out"/kvstop_*.changes
