#!/usr/bin/env bash
# Usage: scripts/fuzz.sh [SECONDS [TARGET...]]: builds every fuzz/<name>_fuzz.cpp with clang's
# libFuzzer and ASan+UBSan in build-fuzz, and runs each (or each TARGET named, e.g. conf_fuzz) for
# SECONDS (default 30) over a working copy (fuzz/corpus-work/<name>/) of its seed corpus
# fuzz/corpus/<name>/. Inputs may grow at once to what a real one holds (kMaxLen below), and an
# input that takes more than 10 seconds, or 2 GiB, is a finding as much as a crash, a leak or
# undefined behaviour: the run fails and the input is kept in build-fuzz/artifacts/. Under the
# sanitizers a file of 1 MiB takes up to 3 seconds; a cost that grows with the square of the
# size takes minutes there.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-30}
shift $(($# > 0 ? 1 : 0))
case "$seconds" in
  '' | *[!0-9]*) echo "fuzz.sh: seconds must be a whole number, not '$seconds'" >&2; exit 2 ;;
esac
command -v clang++ >/dev/null 2>&1 || { echo "fuzz.sh: clang++ (libFuzzer) is not installed" >&2; exit 2; }
"$top/scripts/setup.sh" fuzz

# The largest input of each target: a reply frame at the 16 MiB limit, configuration and
# setting files of 1 MiB (fuzz/repeat.h makes larger files of small inputs), format strings and
# paths of 64 KiB.
declare -A kMaxLen=(
  [exchange_reply_fuzz]=$((16 << 20)) [msg_parse_fuzz]=$((16 << 20))
  [conf_fuzz]=$((1 << 20)) [properties_parse_fuzz]=$((1 << 20)) [kset_read_fuzz]=$((1 << 20))
  [format_fuzz]=65536 [path_parse_fuzz]=65536
)

shopt -s nullglob
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for src in "$top"/fuzz/*_fuzz.cpp; do
    targets+=("$(basename "$src" .cpp)")
  done
fi
for target in "${targets[@]}"; do
  [ -n "${kMaxLen[$target]:-}" ] || { echo "fuzz.sh: no input size for target '$target'" >&2; exit 2; }
done
if [ ${#targets[@]} -eq 0 ]; then
  echo "fuzz.sh: no fuzz targets in fuzz/" >&2
  exit 0
fi

dir=$top/build-fuzz
cmake -S "$top" -B "$dir" -G Ninja -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DKV_BUILD_FUZZ=ON -DKV_BUILD_TESTS=OFF >&2
cmake --build "$dir" -j "$(nproc)" --target "${targets[@]}" >&2

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
mkdir -p "$dir/artifacts"
failed=()
for target in "${targets[@]}"; do
  name=${target%_fuzz}
  work=$top/fuzz/corpus-work/$name
  rm -rf -- "$work"
  mkdir -p "$work"
  if [ -d "$top/fuzz/corpus/$name" ]; then
    cp -a "$top/fuzz/corpus/$name/." "$work/"
  fi
  echo "fuzz.sh: $target for ${seconds}s" >&2
  if ! "$dir/fuzz/$target" -max_total_time="$seconds" -print_final_stats=1 \
      -max_len="${kMaxLen[$target]}" -len_control=0 -timeout=10 -rss_limit_mb=2048 \
      -artifact_prefix="$dir/artifacts/$name-" "$work"; then
    failed+=("$target")
  fi
done
if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzz.sh: failures in ${failed[*]} (inputs in $dir/artifacts/)" >&2
  exit 1
fi
echo "fuzz.sh: ${targets[*]} found nothing in ${seconds}s each" >&2
