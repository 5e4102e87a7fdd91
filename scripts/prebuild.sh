#!/usr/bin/env bash
# Builds the release modules the package carries (presets linux-release and
# win32-release: no tests, assertions off; the Linux one with libstdc++
# linked statically, so that it needs only glibc 2.34 or newer) and copies them, stripped, to
# prebuilds/<platform>-<arch>/ostrel.node, where index.js finds them through
# node-gyp-build. Prints the newest glibc symbol version the Linux module
# needs: the oldest glibc it loads on.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh linux-release win32-release
mkdir -p prebuilds/linux-x64 prebuilds/win32-x64
strip --strip-unneeded -o prebuilds/linux-x64/ostrel.node build/linux-release/ostrel.node
x86_64-w64-mingw32-strip --strip-unneeded -o prebuilds/win32-x64/ostrel.node build/win32-release/ostrel.node

# The Linux module must need nothing but glibc and libgcc_s (the GCC_
# versions up to 4.2 that every distribution has): libstdc++ is linked in.
needed="$(objdump -p prebuilds/linux-x64/ostrel.node | awk '/NEEDED/ { print $2 }' | tr '\n' ' ')"
versions="$(objdump -T prebuilds/linux-x64/ostrel.node | grep -oE '\((GLIBC|GLIBCXX|CXXABI|GCC)_[0-9.]+\)' | tr -d '()' | sort -uV)"
if grep -qvE '^(GLIBC_|GCC_)' <<<"$versions"; then
  echo "prebuild: the Linux module needs more than glibc: $(grep -vE '^(GLIBC_|GCC_)' <<<"$versions" | tr '\n' ' ')" >&2
  exit 1
fi
floor="$(grep -E '^GLIBC_' <<<"$versions" | tail -1)"
echo "prebuilds/linux-x64/ostrel.node: $(du -k prebuilds/linux-x64/ostrel.node | cut -f1) KiB, needs ${needed}; glibc ${floor#GLIBC_} or newer"
echo "prebuilds/win32-x64/ostrel.node: $(du -k prebuilds/win32-x64/ostrel.node | cut -f1) KiB, imports $(x86_64-w64-mingw32-objdump -p prebuilds/win32-x64/ostrel.node | awk '/DLL Name/ { print $3 }' | sort -u | tr '\n' ' ')"
