#!/usr/bin/env bash
# Applies deliberate one-line faults to the sources, one at a time, rebuilds the affected tests and reports
# whether the suite caught each one. Not part of CI: it rebuilds once per fault.
#
# Usage: scripts/fault-check.sh [build-dir] [fault-id-regex]
# Faults are listed in scripts/faults.txt, one per line:  id | file | text | replacement | ctest regex
# The text must occur exactly once in the file. The file is restored after each fault, whatever happens.
set -uo pipefail
cd "$(dirname "$0")/.."

build=${1:-build-faults}
only=${2:-.}
list=scripts/faults.txt

if [[ -n "$(git status --porcelain -- src)" ]]; then
    echo "fault-check: src/ has uncommitted changes; commit or stash them first" >&2
    exit 2
fi
[[ -f "$build/CMakeCache.txt" ]] || cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DHOURLOOM_TEST_HOOKS=ON -DHOURLOOM_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build "$build" --parallel >/dev/null || { echo "fault-check: the clean tree does not build" >&2; exit 2; }

caught=0 missed=0 broken=0
current=""
restore() { [[ -n "$current" ]] && git checkout -q -- "$current"; current=""; }
trap restore EXIT

while IFS='|' read -r id file text replacement regex; do
    id=$(echo "$id" | xargs)
    [[ -z "$id" || "$id" == \#* ]] && continue
    [[ "$id" =~ $only ]] || continue
    file=$(echo "$file" | xargs)
    regex=$(echo "$regex" | xargs)
    text=${text# }; text=${text% }; replacement=${replacement# }; replacement=${replacement% }
    if ! python3 - "$file" "$text" "$replacement" <<'PY'
import sys
path, text, replacement = sys.argv[1:4]
source = open(path, encoding="utf-8").read()
if source.count(text) != 1:
    sys.exit(1)
open(path, "w", encoding="utf-8").write(source.replace(text, replacement))
PY
    then
        echo "NOT APPLIED  $id  (text not found exactly once in $file)"
        broken=$((broken + 1))
        continue
    fi
    current=$file
    if ! cmake --build "$build" --parallel >/dev/null 2>&1; then
        echo "NO BUILD     $id"
        broken=$((broken + 1))
    elif scripts/run-tests.sh "$build" -R "$regex" >/tmp/fault-check-$id.log 2>&1; then
        echo "MISSED       $id"
        missed=$((missed + 1))
    else
        echo "caught       $id"
        caught=$((caught + 1))
    fi
    restore
done <"$list"

cmake --build "$build" --parallel >/dev/null 2>&1
echo "$caught caught, $missed missed, $broken not applied"
[[ $missed -eq 0 ]]
