#!/usr/bin/env bash
# Runs a command inside a private D-Bus session with its own unlocked GNOME Keyring, so whatever signs in or
# stores a credential uses a real Secret Service and never the user's own keyring (the tests and the
# benchmarks that sign in to the local stand-in run this way).
# Usage: scripts/with-keyring.sh <command> [arguments]
set -euo pipefail

if [[ -z "${HOURLOOM_KEYRING_SESSION:-}" ]]; then
    export HOURLOOM_KEYRING_SESSION=1
    exec dbus-run-session -- "$0" "$@"
fi

keyring_home=$(mktemp -d /tmp/hourloom-keyring-XXXXXX)
trap 'kill "${keyring_pid:-}" 2>/dev/null || true; rm -rf "$keyring_home"' EXIT
mkdir -p "$keyring_home/.local/share/keyrings" "$keyring_home/run"
chmod 700 "$keyring_home/run"
export XDG_RUNTIME_DIR="$keyring_home/run"
# Without a password on stdin the daemon would try to open a graphical prompt and no "login" collection
# would exist.
keyring_env=$(printf 'test' | HOME="$keyring_home" gnome-keyring-daemon --daemonize --unlock --components=secrets)
keyring_pid=$(sed -n 's/^GNOME_KEYRING_PID=//p' <<<"$keyring_env")
"$@"
