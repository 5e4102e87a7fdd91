#!/usr/bin/env bash
# Installs the peers of the benchmarks (bench/package.json, pinned by
# bench/package-lock.json) when they are missing. Both @parcel/watcher
# platform packages are installed, the Linux one for native runs and the
# Windows one for node.exe under Wine; --force lets npm install the Windows
# package on Linux, and --omit=optional keeps the other platforms' packages out.
set -euo pipefail
cd "$(dirname "$0")"
if [ -f node_modules/fdir/package.json ] && [ -f node_modules/chokidar/package.json ] && [ -f node_modules/@parcel/watcher-win32-x64/watcher.node ] &&
  [ -f node_modules/@parcel/watcher-linux-x64-glibc/watcher.node ]; then
  exit 0
fi
echo "[bench] installing the benchmark peers (fdir, @parcel/watcher, chokidar)"
npm install --no-audit --no-fund --force --omit=optional --loglevel=error
