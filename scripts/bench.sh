#!/usr/bin/env bash
# Usage: scripts/bench.sh [REPETITIONS]: set up, build release, run every benchmark in
# bench/ and print the table of ratios (each pair measured in the same run, medians of
# REPETITIONS runs, default 5). Run as root: some benchmarks use private namespaces.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
reps=${1:-5}
"$top/scripts/setup.sh" bench
dir=$("$top/scripts/build.sh" release)
out=$(mktemp -d /tmp/kvbench-results.XXXXXX)
for bench in "$dir"/bench/*_bench; do
  name=$(basename "$bench")
  echo "bench: running $name" >&2
  "$bench" --benchmark_repetitions="$reps" --benchmark_report_aggregates_only=true \
    --benchmark_out="$out/$name.json" --benchmark_out_format=json >"$out/$name.txt" 2>&1 ||
    echo "bench: $name failed (see $out/$name.txt)" >&2
done
python3 "$top/bench/ratios.py" "$out"/*.json
echo "Raw results: $out" >&2
