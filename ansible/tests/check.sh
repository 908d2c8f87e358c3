#!/usr/bin/env bash
# Usage: check.sh sanity|units|lint COLLECTION_DIR: ansible-test sanity, ansible-test units or
# ansible-lint (production profile) on a copy of the collection, offline with Debian's packages.
# ansible-test gives each sanity test with Python requirements, and the unit tests, a virtual
# environment of their own that it fills with pip from the network; here each one is made
# beforehand from Debian's python3 with its system packages (pylint, pycodestyle, voluptuous,
# yamllint, PyYAML, Jinja2, pytest and its plugins) and marked as complete, so that ansible-test
# runs the real checkers in it and downloads nothing. Symbolic links in the collection are
# copied as the files they point to.
set -euo pipefail
usage='usage: check.sh sanity|units|lint COLLECTION_DIR'
command=${1:?$usage}
src=$(cd "${2:?$usage}" && pwd)
T=$(mktemp -d /tmp/kvcollection.XXXXXX)
trap 'rm -rf "$T"' EXIT
# Debian's Python and tools only, and no state of Ansible's from outside.
export HOME=$T/home PATH=/usr/sbin:/usr/bin:/sbin:/bin ANSIBLE_COLLECTIONS_PATH=$T NO_COLOR=1
coll=$T/ansible_collections/zantor/kavelo
mkdir -p "$HOME" "$(dirname "$coll")"
cp -rL "$src" "$coll"
cd "$coll"

case "$command" in
  lint) exec ansible-lint --offline --profile production ;;
  sanity | units) ;;
  *) echo "$usage" >&2; exit 2 ;;
esac

yamlcheck=/usr/lib/python3/dist-packages/ansible_test/_util/target/tools/yamlcheck.py
# At most one pass per sanity test, and one for the units: each pass either ends or names one
# more environment.
tests=$(ansible-test sanity --list-tests | wc -l)
for _ in $(seq $((tests + 1))); do
  rc=0
  out=$(ansible-test "$command" --python 3.11 --color no 2>&1) || rc=$?
  venv=$(sed -nE 's|^FATAL: Python 3\.11 at "(.*)/bin/python" does not have pip available\.$|\1|p' <<<"$out")
  if [ -z "$venv" ]; then
    printf '%s\n' "$out"
    exit "$rc"
  fi
  echo "environment from Debian's packages: $venv"
  rm -rf "$venv"
  /usr/bin/python3 -m venv --system-site-packages --without-pip "$venv"
  echo '[]' >"$venv/meta.install.json"
  # What ansible-test would have recorded: whether PyYAML has libyaml's loader.
  "$venv/bin/python" "$yamlcheck" | sed -E 's/.*"cloader": (true|false).*/\1/' >"$venv/meta.yaml.json"
  touch "$venv/marker.txt"
done
echo "check.sh: more environments asked for than there are tests" >&2
exit 1
