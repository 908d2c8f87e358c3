#!/usr/bin/env bash
# Usage: sanity.sh COLLECTION_DIR: ansible-test sanity on a copy of the collection, every test
# that runs offline with Debian's packages. ansible-test gives the tests with Python
# requirements a virtual environment of their own and fills it with pip from the network;
# here each such environment is made beforehand from Debian's python3 with its system
# packages (pylint, pycodestyle, voluptuous, yamllint, PyYAML, Jinja2), and marked as
# complete, so that ansible-test runs the real checker in it and downloads nothing.
set -euo pipefail
src=$(cd "${1:?usage: sanity.sh COLLECTION_DIR}" && pwd)
T=$(mktemp -d /tmp/kvsanity.XXXXXX)
trap 'rm -rf "$T"' EXIT
# Debian's Python and tools only, and no state of ansible-test's from outside.
export HOME=$T/home PATH=/usr/sbin:/usr/bin:/sbin:/bin
coll=$T/ansible_collections/zantor/kavelo
mkdir -p "$HOME" "$(dirname "$coll")"
cp -r "$src" "$coll"
cd "$coll"
yamlcheck=/usr/lib/python3/dist-packages/ansible_test/_util/target/tools/yamlcheck.py

# At most one pass per sanity test: each pass either ends or names one more environment.
tests=$(ansible-test sanity --list-tests | wc -l)
for _ in $(seq "$tests"); do
  rc=0
  out=$(ansible-test sanity --python 3.11 --color no 2>&1) || rc=$?
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
echo "sanity.sh: more environments asked for than there are tests" >&2
exit 1
