#!/usr/bin/env bash
# Measures the application as a user runs it, on a real X display with a tray host (run it through
# scripts/with-tray.sh, as `make bench-app` does):
#   - launch to tray icon: from exec to the moment the tray gives the icon its place, warm (after one
#     untimed launch), median and best of LAUNCHES runs; floor: exec of the same binary for a command that
#     ends before any Qt start (dynamic loading alone);
#   - idle: a tracker with 100,000 activities and a session sending heartbeats every 5 s; peak RSS after
#     start-up, RSS growth and average CPU over IDLE_SECONDS (default 600); floors: the peak RSS of the
#     Worklogs smoke window, a bare Qt window without monitor or tray, and of hourloom-baretray, a tray icon
#     with a menu through the same toolkit and nothing else.
# Needs a build with -DHOURLOOM_TEST_HOOKS=ON (the launch figure is printed by the program itself).
# Usage: bench/app/measure.sh <build-dir>   (env: LAUNCHES=10 IDLE_SECONDS=600 ACTIVITIES=100000)
set -euo pipefail

build=$(cd "${1:-build-bench}" && pwd)
export HOURLOOM_BIN="$build/src/app/hourloom"
export SIMTRACKER_BIN="$build/tools/simtracker/hourloom-simtracker"
export BARETRAY_BIN="$build/bench/hourloom-baretray"
export BENCH_SUPPORT="$(cd "$(dirname "$0")/../support" && pwd)"
export LAUNCHES=${LAUNCHES:-10} IDLE_SECONDS=${IDLE_SECONDS:-600} ACTIVITIES=${ACTIVITIES:-100000}
[[ -n "${DISPLAY:-}" ]] || { echo "run under scripts/with-tray.sh" >&2; exit 1; }

exec python3 - <<'PY'
import os, signal, statistics, subprocess, sys, time
sys.path.insert(0, os.environ["BENCH_SUPPORT"])
from measuring import Profile, status_kib

hourloom = os.environ["HOURLOOM_BIN"]
simtracker = os.environ["SIMTRACKER_BIN"]
baretray = os.environ["BARETRAY_BIN"]
launches = int(os.environ["LAUNCHES"])
idle_seconds = int(os.environ["IDLE_SECONDS"])
activities = int(os.environ["ACTIVITIES"])

run = Profile("hourloom-bench-", simtracker)
env, sim = run.env, run.sim

def launch_to_tray():
    start = time.time_ns()
    app = subprocess.Popen([hourloom], env=dict(env, HOURLOOM_TEST_TRAY_TIMING="1"), stdout=subprocess.PIPE,
                           text=True)
    line = app.stdout.readline().split()
    app.send_signal(signal.SIGTERM)
    app.wait(timeout=60)
    if len(line) != 2 or line[0] != "tray-icon-shown":
        raise SystemExit("the tray icon was never shown (is a tray host running?)")
    return (int(line[1]) - start) / 1e6

def floor_exec():
    start = time.perf_counter_ns()
    subprocess.run([hourloom, "--invoice"], env=env, stdout=subprocess.DEVNULL)
    return (time.perf_counter_ns() - start) / 1e6

def cpu_seconds(pid):
    with open(f"/proc/{pid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

try:
    sim("init")
    t = time.time()
    sim("generate", str(activities), "3")
    print(f"tracker with {activities} activities made in {time.time() - t:.1f} s")

    launch_to_tray()  # warm: caches, the first copy of the history store
    times = [launch_to_tray() for _ in range(launches)]
    floors = [floor_exec() for _ in range(launches)]
    print(f"launch to tray icon (warm, {launches} runs): median {statistics.median(times):.1f} ms, "
          f"best {min(times):.1f} ms; floor (exec, no Qt): median {statistics.median(floors):.1f} ms")

    # Floor: the same binary showing only a Qt window (the Worklogs smoke run), its peak RSS just before it ends.
    smoke = subprocess.Popen([hourloom, "--jira-smoke-test"], env=env, cwd=run.folder, stdout=subprocess.DEVNULL)
    floor_peak = 0
    while smoke.poll() is None:
        try:
            floor_peak = max(floor_peak, status_kib(smoke.pid, "VmHWM"))
        except (FileNotFoundError, ProcessLookupError):
            pass
        time.sleep(0.1)
    # Floor: the bare tray icon, which prints its own resident memory after ten seconds in the tray.
    bare = subprocess.run([baretray, "10"], env=env, capture_output=True, text=True, check=True).stdout
    bare_peak = next(int(line.split()[1]) for line in bare.splitlines() if line.startswith("VmHWM:"))
    app = run.start([hourloom], stdout=subprocess.DEVNULL)
    sim("start", "12", "ED-1 Idle measurement")
    run.start([simtracker, "--folder", run.tracker, "--allow-real-folder", "run", str(idle_seconds + 120), "5"],
              stdout=subprocess.DEVNULL)
    time.sleep(20)  # start-up: the first scans copy every activity into the history store
    rss0, peak0, cpu0, wall0 = status_kib(app.pid, "VmRSS"), status_kib(app.pid, "VmHWM"), cpu_seconds(app.pid), time.time()
    samples = []
    while time.time() - wall0 < idle_seconds:
        time.sleep(min(30, idle_seconds))
        samples.append(status_kib(app.pid, "VmRSS"))
    rss1, peak1, cpu1, wall1 = status_kib(app.pid, "VmRSS"), status_kib(app.pid, "VmHWM"), cpu_seconds(app.pid), time.time()
    cpu = 100.0 * (cpu1 - cpu0) / (wall1 - wall0)
    anon, shared = status_kib(app.pid, "RssAnon"), status_kib(app.pid, "RssFile")
    print(f"idle over {wall1 - wall0:.0f} s with heartbeats every 5 s: peak RSS of the start-up scan "
          f"{peak0 / 1024:.1f} MiB (over the whole run {peak1 / 1024:.1f} MiB), RSS {rss0 / 1024:.1f} -> {rss1 / 1024:.1f} MiB "
          f"(growth {(rss1 - rss0) / 1024:+.2f} MiB, highest 30 s sample after start-up {max(samples) / 1024:.1f} MiB; at the end "
          f"{anon / 1024:.1f} MiB own heap, {shared / 1024:.1f} MiB mapped libraries), CPU {cpu:.2f} %")
    print(f"floor (the same binary showing only a Qt window: no monitor, no tray): peak RSS {floor_peak / 1024:.1f} MiB")
    print(f"floor (a bare tray icon with a menu, the same toolkit, nothing else): peak RSS {bare_peak / 1024:.1f} MiB")
finally:
    run.close()
PY
