#!/usr/bin/env bash
# Usage: man_pages_test.sh MANDIR: every page built in MANDIR (PAGE and PAGE.gz) renders
# without a single groff warning, through groff itself and through man -l.
set -euo pipefail
dir=${1:?usage: man_pages_test.sh MANDIR}
fail=0
declare -A heading=([kvstop.8]="kvstop - stop the local Kavelo audit daemon"
                    [kvctl.8]="kvctl - query, reload or stop the local Kavelo audit daemon"
                    [kvdsim.1]="kvdsim - simulated Kavelo audit daemon")
for page in "${!heading[@]}"; do
  src=$dir/$page
  [ -f "$src" ] && [ -f "$src.gz" ] || { echo "FAIL $page: not built in $dir"; fail=1; continue; }
  warnings=$(groff -ww -man -Tutf8 -z "$src" 2>&1) || { echo "FAIL $page: groff failed"; fail=1; }
  if [ -n "$warnings" ]; then echo "FAIL $page: groff -ww says:"; echo "$warnings"; fail=1; fi
  err=$(mktemp)
  out=$(MANWIDTH=80 MANPAGER=cat man --warnings=w -l "$src.gz" 2>"$err") || {
    echo "FAIL $page: man -l failed"; fail=1; }
  if [ -s "$err" ]; then echo "FAIL $page: man -l says:"; cat "$err"; fail=1; fi
  rm -f "$err"
  grep -qF "${heading[$page]}" <<<"$out" || { echo "FAIL $page: no NAME line"; fail=1; }
  if grep -q '@[A-Z_]*@' <<<"$out"; then echo "FAIL $page: unexpanded placeholder"; fail=1; fi
done
exit $fail
