#!/usr/bin/env bash
# Usage: scripts/faults.sh [--only ID[,ID...]] [LIST...]
# Plants each fault of the lists (default: every scripts/faults/*.txt) in a scratch copy of the
# tree, one at a time, rebuilds incrementally, runs the suite (all but the cases labelled long,
# valgrind or package) and prints the cases that caught it. Exits non-zero when a
# fault is missed, does not apply, or does not build. The scratch copy (build-faults/) holds
# the tracked files with their uncommitted changes; it is kept for the next run.
#
# A list holds records of four lines (blank lines and lines starting with '#' are skipped):
#   fault ID RULE...     an identifier and the rule that the fault breaks
#   file PATH            the file, relative to the top of the tree
#   from TEXT            text that occurs exactly once in that file
#   to TEXT              what replaces it ("to" alone deletes it)
# In TEXT, "\n" stands for a line feed. A list may name, before its faults, the labels of the
# cases that judge them ("labels REGEX": ctest -L REGEX); without it they are judged by every
# case but those labelled ansible, promtool or package, which judge files that no C++ fault
# changes.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
kv_name='faults'
# shellcheck source=scripts/common.sh
source "$top/scripts/common.sh"
kv_as_root "$0" "$@"
kv_check_namespaces
kv_check_reachable
only=''
if [ "${1:-}" = --only ]; then only=",$2,"; shift 2; fi
lists=("$@")
[ ${#lists[@]} -gt 0 ] || lists=("$top"/scripts/faults/*.txt)

work=$top/build-faults
src=$work/src
bld=$work/build
log=$work/faults.log
mkdir -p "$work"
: >"$log"

# The scratch tree follows the working tree; files that did not change keep their times, so
# the build stays incremental.
snapshot=$(git -C "$top" stash create)
[ -n "$snapshot" ] || snapshot=$(git -C "$top" rev-parse HEAD)
[ -d "$src/.git" ] || git clone -q --shared --no-checkout "$top" "$src"
git -C "$src" reset -q --hard "$snapshot"
git -C "$src" clean -qfdx

echo "faults: building $(git -C "$top" rev-parse --short HEAD) with its changes in $bld"
cmake -S "$src" -B "$bld" -G Ninja -DCMAKE_BUILD_TYPE=None "-DCMAKE_CXX_FLAGS=-O1" \
  "-DKV_INTEROP_TOOLS=$top/build-interop/tools/usr/bin" >>"$log" 2>&1
cmake --build "$bld" >>"$log" 2>&1 || { echo "faults: the unchanged tree does not build; see $log" >&2; exit 1; }

# suite CTEST_ARGS...: runs those cases and prints the names of those that failed, one a line.
suite() {
  (cd "$bld" && ctest -j "$(($(nproc) * 3))" "$@" --output-on-failure >>"$log" 2>&1) || true
  local failed=$bld/Testing/Temporary/LastTestsFailed.log
  [ ! -e "$failed" ] || sed 's/^[0-9]*://; s/  *#.*//' "$failed" | sort
}

# check_baseline CTEST_ARGS...: the unchanged tree passes those cases.
check_baseline() {
  rm -f "$bld/Testing/Temporary/LastTestsFailed.log"
  local baseline
  baseline=$(suite "$@")
  if [ -n "$baseline" ]; then
    echo "faults: the unchanged tree fails cases already:" >&2
    printf '  %s\n' "$baseline" >&2
    exit 1
  fi
}
# The C++ faults are judged by the fast cases; a list with a "labels" line (the packaging,
# the collection, the alert rules) by the cases of those labels alone, with their own limits.
cpp_judges=(-LE 'long|valgrind|ansible|promtool|package' --timeout 30)
check_baseline "${cpp_judges[@]}"

planted=0 caught=0 bad=0
# plant ID RULE FILE FROM TO: one fault, its build, its run and its line of the report.
plant() {
  local id=$1 rule=$2 file=$3 from=$4 to=$5 failed n
  [ -z "$only" ] || [[ $only == *",$id,"* ]] || return 0
  planted=$((planted + 1))
  echo "=== $id: $file" >>"$log"
  n=$(FROM=$from perl -0ne '$n += () = /\Q$ENV{FROM}\E/g; END { print $n + 0 }' "$src/$file" 2>/dev/null || echo 0)
  if [ "$n" != 1 ]; then
    printf '%-14s DOES NOT APPLY (%s occurrences in %s)  %s\n' "$id" "$n" "$file" "$rule"
    bad=$((bad + 1))
    return 0
  fi
  FROM=$from TO=$to perl -0pi -e 's/\Q$ENV{FROM}\E/$ENV{TO}/' "$src/$file"
  if ! cmake --build "$bld" >>"$log" 2>&1; then
    printf '%-14s DOES NOT BUILD  %s\n' "$id" "$rule"
    bad=$((bad + 1))
  else
    rm -f "$bld/Testing/Temporary/LastTestsFailed.log"
    failed=$(suite "${judges[@]}" | paste -sd' ' -)
    if [ -n "$failed" ]; then
      caught=$((caught + 1))
      printf '%-14s caught by %s  (%s)\n' "$id" "$failed" "$rule"
    else
      printf '%-14s MISSED  %s\n' "$id" "$rule"
    fi
  fi
  git -C "$src" checkout -q -- "$file"
}

for list in "${lists[@]}"; do
  id='' rule='' file='' from='' have_from=0 judges=("${cpp_judges[@]}")
  while IFS= read -r line || [ -n "$line" ]; do
    case "$line" in
      '' | '#'*) continue ;;
      'labels '*) judges=(-L "${line#labels }" --timeout 600); check_baseline "${judges[@]}" ;;
      'fault '*) line=${line#fault }; id=${line%% *} rule=${line#* } file='' have_from=0 ;;
      'file '*) file=${line#file } ;;
      'from '*) from=${line#from } from=${from//\\n/$'\n'} have_from=1 ;;
      'to' | 'to '*)
        to=${line#to} to=${to# } to=${to//\\n/$'\n'}
        if [ -z "$id" ] || [ -z "$file" ] || [ $have_from = 0 ]; then
          echo "faults: $list: incomplete record before '$line'" >&2
          exit 2
        fi
        plant "$id" "$rule" "$file" "$from" "$to"
        id=''
        ;;
      *) echo "faults: $list: unknown line '$line'" >&2; exit 2 ;;
    esac
  done <"$list"
done

echo "faults: $planted planted, $caught caught, $((planted - caught - bad)) missed, $bad unusable; log: $log"
[ $caught -eq "$planted" ]
