#!/usr/bin/env bash
# Runs the whole test suite inside a private D-Bus session with its own unlocked GNOME Keyring, so the
# credential-store tests use a real Secret Service and never the user's own keyring.
# Usage: scripts/run-tests.sh <build-dir> [extra ctest arguments]
set -euo pipefail

build=${1:-build}
shift || true
exec "$(dirname "$0")/with-keyring.sh" ctest --test-dir "$build" --output-on-failure --no-tests=error -j "$(nproc)" "$@"
