#!/usr/bin/env bash
# Usage: check.sh PROMTOOL README: promtool check rules and promtool test rules on the alert
# rules beside this directory, and every runbook_url naming a section of README as the package
# installs it (/usr/share/doc/kvstop/README.md), by the anchor its heading gets.
set -euo pipefail
promtool=${1:?usage: check.sh PROMTOOL README} readme=${2:?usage: check.sh PROMTOOL README}
cd "$(dirname "$0")"
rules=../kavelo.rules.yml
"$promtool" check rules "$rules"
"$promtool" test rules kavelo.rules.test.yml

# A heading's anchor: lower case, spaces to hyphens, other punctuation dropped.
anchors=$(sed -nE 's/^#+ +//p' "$readme" | tr 'A-Z ' 'a-z-' | tr -cd 'a-z0-9_\n-')
urls=$(sed -nE 's/^ +runbook_url: +//p' "$rules")
bad=0
[ "$(wc -l <<<"$urls")" -eq "$(grep -c '^ *- alert:' "$rules")" ] || { echo "an alert without a runbook_url"; bad=1; }
while IFS= read -r url; do
  case "$url" in
    file:///usr/share/doc/kvstop/README.md#*) ;;
    *) echo "runbook_url not in the installed README: $url"; bad=1; continue ;;
  esac
  grep -qxF -- "${url#*#}" <<<"$anchors" || { echo "runbook_url names no section of $readme: $url"; bad=1; }
done <<<"$urls"
[ $bad -eq 0 ] || exit 1
echo "runbook_url: $(wc -l <<<"$urls") sections of README found"
