#!/usr/bin/env bash
# Runs the whole test suite inside a private D-Bus session with its own unlocked GNOME Keyring, so the
# credential-store tests use a real Secret Service and never the user's own keyring.
# Usage: scripts/run-tests.sh <build-dir> [extra ctest arguments]
set -euo pipefail

build=${1:-build}
shift || true

if [[ -z "${HOURLOOM_TEST_SESSION:-}" ]]; then
    export HOURLOOM_TEST_SESSION=1
    exec dbus-run-session -- "$0" "$build" "$@"
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

ctest --test-dir "$build" --output-on-failure --no-tests=error -j "$(nproc)" "$@"
