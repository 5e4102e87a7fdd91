#!/usr/bin/env bash
# Installs what building the module needs, when it is missing: a C++
# compiler, CMake, Boost's headers and Node.js with its headers (Debian
# packages, as root through apt-get), and the npm packages with the Node-API
# headers. `npm start` needs only this; scripts/setup.sh adds what the tests
# need. Safe to run again: each step is skipped when its result is there.
set -euo pipefail
cd "$(dirname "$0")/.."

log() { printf '[setup] %s\n' "$*"; }

# Installs the Debian packages given that are not installed yet.
install_debian() {
  local missing=() p
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
  done
  ((${#missing[@]})) || return 0
  log "installing Debian packages: ${missing[*]}"
  local sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  # The package lists of a fresh machine are empty or stale.
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# npm 11 warns "Unknown user config "nodedir"" on every command while the
# user's npmrc sets node-gyp's header folder there. Nothing here uses
# node-gyp: CMake takes the headers from the Node.js installation that runs
# the build (cmake/node.cmake), so the line is dropped (a copy of the file
# is kept next to it). A project that builds with node-gyp sets it in its
# own package.json instead ("config": { "node_gyp_nodedir": ... }).
userrc="${npm_config_userconfig:-${NPM_CONFIG_USERCONFIG:-$HOME/.npmrc}}"
if [ -f "$userrc" ] && grep -qE '^[[:space:]]*nodedir[[:space:]]*=' "$userrc"; then
  log "moving nodedir out of $userrc (copy in $userrc.ostrel-backup)"
  cp -p "$userrc" "$userrc.ostrel-backup"
  sed -i -E '/^[[:space:]]*nodedir[[:space:]]*=/d' "$userrc"
fi

# uv.h comes with Debian's (or NodeSource's) nodejs package.
install_debian cmake make g++ libboost1.81-dev nodejs

# The npm packages, as package-lock.json pins them; npm records what it
# installed in node_modules/.package-lock.json.
if [ ! -f node_modules/.package-lock.json ] || [ package-lock.json -nt node_modules/.package-lock.json ] ||
  [ package.json -nt node_modules/.package-lock.json ]; then
  log "installing npm packages"
  npm install --no-audit --no-fund --loglevel=error
  touch node_modules/.package-lock.json
fi
