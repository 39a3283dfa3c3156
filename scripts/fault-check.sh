#!/usr/bin/env bash
# Applies deliberate one-line faults to the sources, one at a time, rebuilds the affected tests and reports
# whether the suite caught each one. Not part of CI: it rebuilds once per fault.
#
# Usage: scripts/fault-check.sh [build-dir] [fault-id-regex]
# Faults are listed in scripts/faults.txt, one per line:  id | file | text | replacement | ctest regex
# Fields are separated by "|"; a "|" inside the text or the replacement is written "\|". The ctest regex is the
# rest of the line, so it may use "|" freely. The text must occur exactly once in the file. The file is restored
# after each fault, whatever happens.
#
# A fault counts as caught only when a selected test fails; a regex that selects no test is reported as such.
# Only the test programs that run the selected tests are rebuilt for each fault.
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

logs=$build/fault-logs # one build and one test log per fault
mkdir -p "$logs"
caught=0 missed=0 broken=0
current=""
restore() { [[ -n "$current" ]] && git checkout -q -- "$current"; current=""; }
trap restore EXIT

# The test programs (as build targets) that run the tests a ctest regex selects, one per line.
targets_for() {
    ctest --test-dir "$build" -N -R "$1" --show-only=json-v1 2>/dev/null | python3 -c '
import json, os, sys
targets = set()
for test in json.load(sys.stdin).get("tests", []):
    command = test.get("command") or []
    if command:
        targets.add(os.path.basename(command[0]))
print("\n".join(sorted(targets)))'
}

# One fault per record: id, file, text, replacement, regex, separated by ASCII unit separators.
records=$(python3 - "$list" <<'PY'
import re, sys
for number, line in enumerate(open(sys.argv[1], encoding="utf-8"), 1):
    line = line.rstrip("\n")
    if not line.strip() or line.lstrip().startswith("#"):
        continue
    fields = re.split(r"(?<!\\)\|", line, maxsplit=4)
    if len(fields) != 5:
        sys.exit(f"fault-check: line {number} of {sys.argv[1]} does not have five fields")
    # The text and the replacement keep their inner spacing; only one space on each side of "|" is dropped.
    fields = [field.replace("\\|", "|") for field in fields]
    for index in (2, 3):
        value = fields[index]
        value = value[1:] if value.startswith(" ") else value
        fields[index] = value[:-1] if value.endswith(" ") else value
    for index in (0, 1, 4):
        fields[index] = fields[index].strip()
    print("\x1f".join(fields))
PY
) || exit 2

while IFS=$'\x1f' read -r id file text replacement regex; do
    [[ "$id" =~ $only ]] || continue
    targets=$(targets_for "$regex")
    if [[ -z "$targets" ]]; then
        echo "NO TESTS     $id  (the regex selects no test)"
        broken=$((broken + 1))
        continue
    fi
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
    # shellcheck disable=SC2086
    if ! cmake --build "$build" --parallel --target $targets >"$logs/$id.build.log" 2>&1; then
        echo "NO BUILD     $id"
        broken=$((broken + 1))
    elif scripts/run-tests.sh "$build" -R "$regex" >"$logs/$id.log" 2>&1; then
        echo "MISSED       $id"
        missed=$((missed + 1))
    elif grep -q "tests failed out of" "$logs/$id.log"; then
        echo "caught       $id  ($(grep -o '[0-9]* tests failed out of [0-9]*' "$logs/$id.log"))"
        caught=$((caught + 1))
    else
        echo "NO RUN       $id  (see $logs/$id.log)"
        broken=$((broken + 1))
    fi
    restore
done <<<"$records"

restore
cmake --build "$build" --parallel >/dev/null 2>&1
echo "$caught caught, $missed missed, $broken not applied or not run"
[[ $missed -eq 0 && $broken -eq 0 ]]
