#!/usr/bin/env bash
# Hourloom with nothing real behind it: a simulated tracker with a day of work (one session still running),
# the local Jira / sign-in / rate stand-in, and Hourloom pointed at both with a throw-away profile. Nothing
# touches your own settings, tracker folder or keyring.
# Usage: scripts/demo.sh [--snapshots] [build-dir]
#   --snapshots  photograph the tray menu and the Worklogs window into <build-dir>/demo/ and stop
set -euo pipefail

snapshots=0
if [[ "${1:-}" == "--snapshots" ]]; then
    snapshots=1
    shift
fi
build=$(cd "${1:-build}" && pwd)
hourloom="$build/src/app/hourloom"
simtracker="$build/tools/simtracker/hourloom-simtracker"
standin="$build/tools/standin/hourloom-standin"
for tool in "$hourloom" "$simtracker" "$standin"; do
    [[ -x "$tool" ]] || { echo "missing $tool: run 'make build' first" >&2; exit 1; }
done
if ! grep -q '^HOURLOOM_TEST_HOOKS:BOOL=ON' "$build/CMakeCache.txt"; then
    echo "$build was configured without -DHOURLOOM_TEST_HOOKS=ON; the demo needs the local endpoints" >&2
    exit 1
fi

profile=$(mktemp -d /tmp/hourloom-demo-XXXXXX)
pids=()
cleanup() {
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    wait 2>/dev/null || true
    rm -rf "$profile"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

export HOME="$profile"
export XDG_CONFIG_HOME="$profile/.config" XDG_DATA_HOME="$profile/.local/share"
export XDG_STATE_HOME="$profile/.local/state" XDG_CACHE_HOME="$profile/.cache"
export XDG_RUNTIME_DIR="$profile/run"
mkdir -p "$XDG_CONFIG_HOME" "$XDG_DATA_HOME" "$XDG_STATE_HOME" "$XDG_CACHE_HOME"
mkdir -m 700 "$XDG_RUNTIME_DIR"
# The demo's sign-in lives only as long as the run: it never reaches your keyring.
export HOURLOOM_TEST_NO_KEYCHAIN=1

# The tracker's folder where Hourloom looks by default, inside the throw-away profile.
tracker="$XDG_DATA_HOME/Stintwatch"
sim() { "$simtracker" --folder "$tracker" --allow-real-folder "$@"; }
sim init >/dev/null

# A working day so far, as the tracker writes finished sessions: project, description, minutes ago it
# started and how long it ran.
now_ms=$(($(date +%s) * 1000))
day=(
    "12|ED-1 Fix the login redirect|400|75"
    "14|OPS-7 Daily standup|320|15"
    "12|ED-1 Fix the login redirect|300|105"
    "13|ED-3 Review the release notes|180|80"
    "0|Emails and planning|95|20"
    "13|ED-2 Update the import mapping|70|35"
)
sql="BEGIN;"
for entry in "${day[@]}"; do
    IFS='|' read -r project description ago minutes <<<"$entry"
    start=$((now_ms - ago * 60000))
    end=$((start + minutes * 60000))
    sql+="INSERT INTO \"1001_activity\"(apiId,projectId,startTime,endTime,description,seconds,active,lastChanged)
          VALUES($((700000 + RANDOM)),$project,$start,$end,'${description//\'/\'\'}',$((minutes * 60)),0,$end);"
done
sql+="COMMIT;"
sqlite3 "$tracker/Stintwatch.db" "$sql"

# The local services on a free port, with a demo user, site and the issues above.
"$standin" --seed-demo >"$profile/standin.out" 2>"$profile/standin.err" &
pids+=($!)
for _ in $(seq 1 100); do
    grep -q '^ca-file: ' "$profile/standin.out" 2>/dev/null && break
    sleep 0.1
done
origin=$(sed -n 's/^origin: //p' "$profile/standin.out")
ca_file=$(sed -n 's/^ca-file: //p' "$profile/standin.out")
[[ -n "$origin" && -n "$ca_file" ]] || { echo "the stand-in did not start:" >&2; cat "$profile/standin.err" >&2; exit 1; }
export HOURLOOM_TEST_GATEWAY="$origin" HOURLOOM_TEST_BROKER="$origin" HOURLOOM_TEST_RATE_BASE="$origin"
export HOURLOOM_TEST_AUTH_HOST=127.0.0.1 HOURLOOM_TEST_CA_FILE="$ca_file"

# Hourloom reads the log it finds at start as history; the running session begins once it watches. The
# heartbeats come from a copy named like the tracker, so Hourloom sees "Stintwatch" running.
cp "$simtracker" "$profile/stintwatch"
start_tracking() {
    sleep 2
    sim start 12 "ED-1 Write the migration notes" >/dev/null
    exec "$profile/stintwatch" --folder "$tracker" --allow-real-folder run 86400 5 >/dev/null 2>&1
}
start_tracking &
pids+=($!)

cat <<TEXT
Hourloom demo
  profile (removed at the end): $profile
  simulated tracker:            $tracker (a day of sessions, ED-1 running)
  local Jira / sign-in / rates: $origin (user Ada Example, site "example", issues ED-1, ED-2, ED-3, OPS-7)
Open the tray icon, choose Worklogs…, connect (the stand-in approves the sign-in), check and post.
TEXT

if [[ $snapshots -eq 1 ]]; then
    out="$build/demo"
    rm -rf "$out"
    mkdir -p "$out"
    HOURLOOM_TEST_SNAPSHOT_DIR="$out" "$hourloom"
    ls "$out"
else
    echo "Quit from the tray menu (or press Ctrl+C here) to end the demo."
    "$hourloom"
fi
