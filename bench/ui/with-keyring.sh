#!/usr/bin/env bash
# Runs a command inside a private D-Bus session with its own unlocked GNOME Keyring, as the tests do, so a
# benchmark that signs in to the local stand-in uses a real Secret Service and never the user's keyring.
# Usage: bench/ui/with-keyring.sh <command> [arguments]
set -euo pipefail

if [[ -z "${HOURLOOM_BENCH_SESSION:-}" ]]; then
    export HOURLOOM_BENCH_SESSION=1
    exec dbus-run-session -- "$0" "$@"
fi

keyring_home=$(mktemp -d /tmp/hourloom-keyring-XXXXXX)
trap 'kill "${keyring_pid:-}" 2>/dev/null || true; rm -rf "$keyring_home"' EXIT
mkdir -p "$keyring_home/.local/share/keyrings" "$keyring_home/run"
chmod 700 "$keyring_home/run"
export XDG_RUNTIME_DIR="$keyring_home/run"
keyring_env=$(printf 'bench' | HOME="$keyring_home" gnome-keyring-daemon --daemonize --unlock --components=secrets)
keyring_pid=$(sed -n 's/^GNOME_KEYRING_PID=//p' <<<"$keyring_env")
"$@"
