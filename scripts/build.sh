#!/usr/bin/env bash
# Builds the module for the given presets (default: linux and win32).
# Presets: linux, linux-asan, linux-tsan, win32.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh >/dev/null
presets=("$@")
((${#presets[@]})) || presets=(linux win32)
for preset in "${presets[@]}"; do
  if [ ! -f "build/$preset/CMakeCache.txt" ]; then
    cmake --preset "$preset" >/dev/null
  fi
  cmake --build "build/$preset" -j"$(nproc)" 2>&1 | grep -vE '^\[ *[0-9]+%\]|^(Consolidate|Scanning|Built target)' || true
  test "${PIPESTATUS[0]}" -eq 0 || { echo "build of $preset failed" >&2; exit 1; }
  echo "built $preset: build/$preset/ostrel.node"
done
