#!/usr/bin/env bash
# Shows that the suite does not depend on the machine's speed: runs it three times in a row while full builds of
# a separate build folder, without the compiler cache, keep every core busy.
#
# Usage: scripts/stress-tests.sh [build-dir] [extra ctest arguments, e.g. -R '^Post\.']
# The load builds in $HOURLOOM_STRESS_BUILD (default build-stress), configured on first use.
set -uo pipefail
cd "$(dirname "$0")/.."

build=${1:-build}
shift || true
load=${HOURLOOM_STRESS_BUILD:-build-stress}

[[ -f "$build/CMakeCache.txt" ]] || cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" --parallel >/dev/null || { echo "stress: $build does not build" >&2; exit 2; }
[[ -f "$load/CMakeCache.txt" ]] || cmake -S . -B "$load" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DHOURLOOM_BUILD_BENCHMARKS=OFF >/dev/null || exit 2

# Full builds from scratch, one after another, in their own process group so that all of them can be ended.
setsid bash -c 'while true; do
    cmake --build "$1" --target clean >/dev/null 2>&1
    CCACHE_DISABLE=1 cmake --build "$1" --parallel >/dev/null 2>&1
done' load-build "$load" &
loader=$!
trap 'kill -- "-$loader" 2>/dev/null; wait "$loader" 2>/dev/null' EXIT
sleep 20 # let the build reach the compilers before the first run

for run in 1 2 3; do
    echo "stress: run $run of 3 while a full build of $load runs"
    if ! scripts/run-tests.sh "$build" "$@"; then
        echo "stress: run $run failed" >&2
        exit 1
    fi
    kill -0 "$loader" 2>/dev/null || { echo "stress: the load build stopped" >&2; exit 2; }
done
echo "stress: the suite passed 3 times in a row under load"
