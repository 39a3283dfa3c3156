#!/usr/bin/env bash
# Checks a built Hourloom .deb the way a user's machine would meet it: lintian reports no errors, dpkg
# installs it (its dependencies must already be satisfied), the installed program answers a diagnostic
# command, and dpkg removes it again leaving none of its files behind. Needs root (or sudo) for dpkg.
# Usage: scripts/check-package.sh path/to/hourloom_*.deb
set -euo pipefail

deb=${1:?usage: scripts/check-package.sh hourloom.deb}
sudo=()
if [[ $(id -u) -ne 0 ]]; then
    sudo=(sudo)
fi

echo "== lintian"
lintian_out=$(lintian --tag-display-limit 0 "$deb" 2>&1 || true)
echo "$lintian_out"
if grep -q '^E: ' <<<"$lintian_out"; then
    echo "lintian reported errors" >&2
    exit 1
fi

if dpkg-query -W -f='${Status}' hourloom 2>/dev/null | grep -q 'install ok installed'; then
    echo "hourloom is already installed here; not touching it" >&2
    exit 1
fi

echo "== dpkg -i"
"${sudo[@]}" dpkg -i "$deb"
trap '"${sudo[@]}" dpkg -r hourloom >/dev/null 2>&1 || true' EXIT
files=$(dpkg -L hourloom)
for path in /usr/bin/hourloom /usr/share/applications/app.hourloom.Hourloom.desktop \
    /usr/share/metainfo/app.hourloom.Hourloom.metainfo.xml \
    /usr/share/icons/hicolor/scalable/apps/app.hourloom.Hourloom.svg; do
    grep -qx "$path" <<<"$files" || { echo "missing from the package: $path" >&2; exit 1; }
done
home=$(mktemp -d)
set +e
HOME=$home XDG_DATA_HOME=$home/share /usr/bin/hourloom --invoice >/dev/null
status=$?
set -e
[[ $status -eq 2 ]] || { echo "installed hourloom --invoice answered $status, expected 2" >&2; rm -rf "$home"; exit 1; }
# Reading a PDF loads the PDF module from where the package put it.
invoice=$(dirname "$0")/../tests/data/invoices/week.pdf
HOME=$home XDG_DATA_HOME=$home/share /usr/bin/hourloom --invoice "$invoice" | grep -q '^total' || {
    echo "installed hourloom could not read $invoice" >&2; rm -rf "$home"; exit 1; }
rm -rf "$home"

echo "== dpkg -r"
"${sudo[@]}" dpkg -r hourloom
trap - EXIT
for path in /usr/bin/hourloom /usr/share/applications/app.hourloom.Hourloom.desktop; do
    [[ ! -e "$path" ]] || { echo "left behind after removal: $path" >&2; exit 1; }
done
echo "package OK: $deb"
