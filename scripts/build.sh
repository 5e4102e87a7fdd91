#!/usr/bin/env bash
# Builds the module for the given presets (default: linux and win32).
# Presets: linux, linux-asan, linux-tsan, win32, and the package's
# linux-release, win32-release (no tests; scripts/prebuild.sh uses them).
#   scripts/build.sh [preset]...           the module, unit tests and test add-on
#   scripts/build.sh --module [preset]...  the module alone, installing only
#                                          what it needs (npm start)
# A folder configured here compiles its sources in batches where ccache is
# missing (a fresh machine) and one object per file where it is installed;
# OSTREL_UNITY=ON or OFF chooses (CMakeLists.txt).
set -euo pipefail
cd "$(dirname "$0")/.."
module_only=0
if [ "${1:-}" = "--module" ]; then
  module_only=1
  shift
fi
if [ -n "${OSTREL_SETUP_DONE:-}" ]; then
  : # scripts/test.sh ran the setup before building in parallel
elif ((module_only)); then
  bash scripts/setup-module.sh >/dev/null
else
  bash scripts/setup.sh >/dev/null
fi
presets=("$@")
unity=()
[ -z "${OSTREL_UNITY:-}" ] || unity=(-DOSTREL_UNITY="$OSTREL_UNITY")
((${#presets[@]})) || presets=(linux win32)
for preset in "${presets[@]}"; do
  cache="build/$preset/CMakeCache.txt"
  target=()
  case "$preset" in
    *-release) [ -f "$cache" ] || cmake --preset "$preset" "${unity[@]}" >/dev/null ;;
    *)
      if ((module_only)); then
        # A build folder configured with the tests keeps them; only the
        # module's target is built.
        [ -f "$cache" ] || cmake --preset "$preset" -DOSTREL_BUILD_TESTS=OFF "${unity[@]}" >/dev/null
        target=(--target ostrel)
      elif [ ! -f "$cache" ] || ! grep -q '^OSTREL_BUILD_TESTS:BOOL=ON' "$cache"; then
        # Configured again after npm start's module-only build, which keeps
        # its objects.
        cmake --preset "$preset" -DOSTREL_BUILD_TESTS=ON "${unity[@]}" >/dev/null
      fi
      ;;
  esac
  # The pipeline fails when the build does (pipefail; grep's own status is
  # dropped: it finds nothing to print on a quiet build).
  rc=0
  cmake --build "build/$preset" "${target[@]}" -j"$(nproc)" 2>&1 |
    { grep -vE '^\[ *[0-9]+%\]|^(Consolidate|Scanning|Built target)' || true; } || rc=$?
  [ "$rc" -eq 0 ] || { echo "build of $preset failed" >&2; exit 1; }
  echo "built $preset: build/$preset/ostrel.node"
done
