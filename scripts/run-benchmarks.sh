#!/usr/bin/env bash
# Runs every benchmark program of a build and prints median figures.
set -euo pipefail
build=${1:-build}
shopt -s nullglob
for b in "$build"/bench/*/bench_*; do
    [[ -x "$b" && -f "$b" ]] || continue
    echo "== $(basename "$b")"
    "$b" --benchmark_repetitions=5 --benchmark_report_aggregates_only=true --benchmark_display_aggregates_only=true
done
