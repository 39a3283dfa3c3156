#!/usr/bin/env bash
# Runs a command on a private X display (Xvfb) with a real system tray host (trayer, an XEmbed tray), then
# stops both. Exit status: the command's, or 77 when Xvfb or trayer is not installed (ctest counts it as
# skipped).
# Usage: scripts/with-tray.sh [--no-tray] COMMAND [ARGS...]
set -euo pipefail

with_tray=1
if [[ "${1:-}" == "--no-tray" ]]; then
    with_tray=0
    shift
fi

for tool in Xvfb python3; do
    if ! command -v "$tool" >/dev/null 2>&1; then
        echo "SKIP: $tool is not installed (scripts/install-deps.sh installs it)" >&2
        exit 77
    fi
done
if [[ $with_tray -eq 1 ]] && ! command -v trayer >/dev/null 2>&1; then
    echo "SKIP: trayer is not installed (scripts/install-deps.sh installs it)" >&2
    exit 77
fi

workdir=$(mktemp -d /tmp/hourloom-x-XXXXXX)
xvfb_pid=""
tray_pid=""
cleanup() {
    [[ -n "$tray_pid" ]] && kill "$tray_pid" 2>/dev/null || true
    [[ -n "$xvfb_pid" ]] && kill "$xvfb_pid" 2>/dev/null || true
    wait 2>/dev/null || true
    rm -rf "$workdir"
}
trap cleanup EXIT

# -displayfd picks a free display number and writes it once the server accepts connections.
Xvfb -displayfd 9 -screen 0 1280x800x24 -nolisten tcp -noreset 9>"$workdir/display" 2>"$workdir/xvfb.log" &
xvfb_pid=$!
for _ in $(seq 1 100); do
    [[ -s "$workdir/display" ]] && break
    sleep 0.1
done
if [[ ! -s "$workdir/display" ]]; then
    echo "Xvfb did not start:" >&2
    cat "$workdir/xvfb.log" >&2
    exit 1
fi
export DISPLAY=":$(tr -d '\n' <"$workdir/display")"
unset WAYLAND_DISPLAY
export QT_QPA_PLATFORM=xcb

if [[ $with_tray -eq 1 ]]; then
    trayer --edge top --align right --widthtype request --height 24 --transparent false --tint 0xdddddd \
        --SetDockType true >"$workdir/trayer.log" 2>&1 &
    tray_pid=$!
    # The tray is ready once it owns the system tray selection of screen 0.
    if ! python3 - <<'PY'
import ctypes, ctypes.util, sys, time
x11 = ctypes.cdll.LoadLibrary(ctypes.util.find_library("X11") or "libX11.so.6")
x11.XOpenDisplay.restype = ctypes.c_void_p
x11.XOpenDisplay.argtypes = [ctypes.c_char_p]
x11.XInternAtom.restype = ctypes.c_ulong
x11.XInternAtom.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_int]
x11.XGetSelectionOwner.restype = ctypes.c_ulong
x11.XGetSelectionOwner.argtypes = [ctypes.c_void_p, ctypes.c_ulong]
display = x11.XOpenDisplay(None)
if not display:
    sys.exit(1)
atom = x11.XInternAtom(display, b"_NET_SYSTEM_TRAY_S0", 0)
deadline = time.monotonic() + 30
while time.monotonic() < deadline:
    if x11.XGetSelectionOwner(display, atom):
        sys.exit(0)
    time.sleep(0.05)
sys.exit(1)
PY
    then
        echo "trayer did not start:" >&2
        cat "$workdir/trayer.log" >&2
        exit 1
    fi
fi

set +e
"$@"
status=$?
set -e
exit $status
