#!/usr/bin/env bash
# Installs the Debian packages Hourloom needs to build, test and run. Does nothing when all are present.
set -euo pipefail

packages=(
    build-essential cmake ninja-build pkg-config ccache git
    qt6-base-dev qt6-base-dev-tools qt6-svg-dev libqt6svg6
    libsqlite3-dev sqlite3
    libcurl4-openssl-dev
    qtkeychain-qt6-dev
    libpoppler-cpp-dev
    libicu-dev
    libpcre2-dev
    libgtest-dev libgmock-dev googletest
    libbenchmark-dev
    libcpp-httplib-dev libssl-dev openssl ca-certificates
    libhiredis-dev redis-server
    dbus dbus-x11 gnome-keyring libsecret-tools
    xvfb dunst
    tzdata
    python3 python3-jsonschema python3-reportlab
    xvfb xauth trayer
    desktop-file-utils appstream lintian fakeroot dpkg-dev
)

missing=()
for p in "${packages[@]}"; do
    status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
    [[ "$status" == "install ok installed" ]] || missing+=("$p")
done

if [[ ${#missing[@]} -eq 0 ]]; then
    exit 0
fi

echo "Installing: ${missing[*]}"
sudo=()
if [[ $(id -u) -ne 0 ]]; then
    sudo=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq
"${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
