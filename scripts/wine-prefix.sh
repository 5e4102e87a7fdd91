#!/usr/bin/env bash
# Makes the Wine prefix the tests run in (build/wine-prefix, or WINEPREFIX)
# once: it reports Windows 10, which Node.js requires. Wine must be
# installed (scripts/setup.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
export WINEPREFIX="${WINEPREFIX:-$PWD/build/wine-prefix}"
export WINEDEBUG=-all
[ -f "$WINEPREFIX/.ostrel-ready" ] && exit 0
printf '[setup] %s\n' "creating the Wine prefix in $WINEPREFIX"
mkdir -p "$WINEPREFIX"
wineboot -i >/dev/null 2>&1 || true
winecfg -v win10 >/dev/null 2>&1
wineserver -w || true
touch "$WINEPREFIX/.ostrel-ready"
