#!/usr/bin/env bash
# Memory of the whole application with the Worklogs window open on 1000 rows, on a real X display with a
# tray host (run it through scripts/with-tray.sh, as `make bench-window` does):
#   - a tracker holding 1000 finished sessions on 23 issues plus one running session, all on the day the
#     window opens on (the time zone is chosen so that the day is nearly over, so the sessions need not
#     overlap);
#   - floor: the same process idle in the tray after its first scans, before the window was ever opened;
#   - then a second launch, which hands over to the running instance and opens the window; once the window is
#     mapped and has settled, VmHWM (peak) and VmRSS of the process are read from /proc.
# Needs a build with -DHOURLOOM_TEST_HOOKS=ON (the tray timing line is printed by the program itself).
# Usage: bench/ui/measure-window.sh <build-dir>   (env: SESSIONS=1000 ISSUES=23 SETTLE_SECONDS=5)
set -euo pipefail

build=$(cd "${1:-build-bench}" && pwd)
export HOURLOOM_BIN="$build/src/app/hourloom"
export SIMTRACKER_BIN="$build/tools/simtracker/hourloom-simtracker"
export BENCH_SUPPORT="$(cd "$(dirname "$0")/../support" && pwd)"
export SESSIONS=${SESSIONS:-1000} ISSUES=${ISSUES:-23} SETTLE_SECONDS=${SETTLE_SECONDS:-5}
[[ -n "${DISPLAY:-}" ]] || { echo "run under scripts/with-tray.sh" >&2; exit 1; }

exec python3 - <<'PY'
import datetime, glob, os, sqlite3, subprocess, sys, time
sys.path.insert(0, os.environ["BENCH_SUPPORT"])
from measuring import Profile, status_kib

hourloom = os.environ["HOURLOOM_BIN"]
simtracker = os.environ["SIMTRACKER_BIN"]
sessions = int(os.environ["SESSIONS"])
issues = int(os.environ["ISSUES"])
settle = float(os.environ["SETTLE_SECONDS"])

# A zone in which it is now between 23:00 and 24:00, so today holds nearly a whole day of sessions.
utc = datetime.datetime.now(datetime.timezone.utc)
offset = (23 - utc.hour) % 24
if offset > 14:
    offset -= 24
zone = "Etc/GMT%+d" % -offset  # Etc/GMT-N is UTC+N
local = utc + datetime.timedelta(hours=offset)
midnight = local.replace(hour=0, minute=0, second=0, microsecond=0)

run = Profile("hourloom-window-", simtracker, TZ=zone)
env, sim, tracker = run.env, run.sim, run.tracker

def memory(pid):
    return {key: status_kib(pid, key) / 1024 for key in ("VmHWM", "VmRSS", "RssAnon", "RssFile")}

try:
    sim("init")
    database = glob.glob(tracker + "/*.db")[0]
    with sqlite3.connect(database) as db:
        table = db.execute("SELECT name FROM sqlite_master WHERE type='table' AND name LIKE '%_activity'").fetchone()[0]
        start_ms = int(midnight.timestamp() * 1000)
        span_ms = int((local - midnight).total_seconds() * 1000) - 300_000
        step = span_ms // sessions
        rows = []
        for i in range(sessions):
            begin = start_ms + i * step
            length = step - 5_000 - (i * 37) % 20_000
            issue = "GEN-%d" % (i % issues + 1)
            rows.append((200000 + i, 42, begin, begin + length, "%s Task %d" % (issue, i % 40), length // 1000,
                         begin + length))
        db.executemany(f'INSERT INTO "{table}"(apiId,projectId,startTime,endTime,description,seconds,active,'
                       'lastChanged) VALUES(?,?,?,?,?,?,1,?)', rows)
    sim("start", "42", "GEN-1 Live session")
    print(f"tracker: {sessions} sessions on {issues} issues today ({zone}, local {local:%H:%M}), "
          f"{step / 1000:.0f} s apart, and one running session")

    app = run.start([hourloom], env=dict(env, HOURLOOM_TEST_TRAY_TIMING="1", HOURLOOM_TEST_WINDOW_TIMING="1"),
                    stdout=subprocess.PIPE, text=True)
    line = app.stdout.readline().split()
    if len(line) != 2 or line[0] != "tray-icon-shown":
        raise SystemExit("the tray icon was never shown (is a tray host running?)")
    time.sleep(10)  # the first scans copy every activity into the history store
    floor = memory(app.pid)

    subprocess.run([hourloom], env=env, stdout=subprocess.DEVNULL, timeout=60)
    if app.stdout.readline().strip() != "worklogs-shown":  # the program prints it once the window is on screen
        raise SystemExit("the Worklogs window never appeared")
    time.sleep(settle)  # first paint, and a few one-second live updates of the running session
    shown = memory(app.pid)
    print(f"with the Worklogs window open: peak RSS (VmHWM) {shown['VmHWM']:.1f} MiB, RSS {shown['VmRSS']:.1f} MiB "
          f"({shown['RssAnon']:.1f} MiB own heap, {shown['RssFile']:.1f} MiB mapped files)")
    print(f"floor (the same process idle in the tray before the window opened): peak RSS {floor['VmHWM']:.1f} MiB, "
          f"RSS {floor['VmRSS']:.1f} MiB ({floor['RssAnon']:.1f} MiB own heap, {floor['RssFile']:.1f} MiB mapped files)")
finally:
    run.close()
PY
