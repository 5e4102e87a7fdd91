#!/usr/bin/env bash
# Packs the package, checks what the tarball holds, installs it with
# `npm install <tarball>` into an empty folder (offline, with an empty npm
# cache: its one dependency, node-gyp-build, is packed from this checkout's
# node_modules at the pinned version and installed beside it, so the result
# does not depend on what the machine's cache holds), and from there loads
# it as a client does
# (test/install/check.js) with the native node and with the Windows node.exe
# under Wine, and runs `npx ostrel version`. Needs prebuilds/ ('npm run
# prebuild'). Ends with "install: N passed, M failed".
set -uo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
cd "$root"
passed=0
failed=0
ok() { echo "ok - $1"; passed=$((passed + 1)); }
not_ok() { echo "not ok - $1"; failed=$((failed + 1)); }
finish() {
  echo "install: $passed passed, $failed failed"
  [ "$failed" -eq 0 ]
  exit
}

for p in prebuilds/linux-x64/ostrel.node prebuilds/win32-x64/ostrel.node; do
  [ -f "$p" ] || { not_ok "$p is missing: run 'npm run prebuild' first"; finish; }
done

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
tarball="$work/$(npm pack --silent --pack-destination "$work" 2>/dev/null | tail -1)"
if [ -f "$tarball" ]; then ok "npm pack: $(basename "$tarball") ($(du -k "$tarball" | cut -f1) KiB)"; else not_ok "npm pack"; finish; fi

# What a client gets: the loader, the typings, the command line, the two
# prebuilds, and nothing of the build.
listing="$(tar -tzf "$tarball" | sed 's|^package/||' | sort)"
unexpected="$(grep -vE '^(package\.json|README\.md|index\.js|index\.d\.ts|bin/ostrel\.js|lib/cli/[a-z-]+\.js|prebuilds/(linux|win32)-x64/ostrel\.node)$' <<<"$listing")"
if [ -z "$unexpected" ] && grep -qx prebuilds/linux-x64/ostrel.node <<<"$listing" &&
  grep -qx prebuilds/win32-x64/ostrel.node <<<"$listing"; then
  ok "the tarball holds the loader, typings, command line and both prebuilds, nothing else ($(wc -l <<<"$listing") files)"
else
  not_ok "the tarball's files; unexpected: ${unexpected:-none}; listing: $listing"
fi

app="$work/app"
mkdir -p "$app"
echo '{ "name": "ostrel-install-test", "version": "1.0.0", "private": true }' >"$app/package.json"
dependency="$work/$(npm pack --silent --pack-destination "$work" ./node_modules/node-gyp-build 2>/dev/null | tail -1)"
[ -f "$dependency" ] || { not_ok "node-gyp-build could not be packed from node_modules ('npm run setup')"; finish; }
if (cd "$app" && npm install --offline --cache "$work/npm-cache" --no-audit --no-fund --loglevel=error \
  "$dependency" "$tarball"); then
  ok "npm install <tarball> into an empty folder, offline"
else
  not_ok "npm install <tarball> into an empty folder, offline"
  finish
fi
cp test/install/check.js "$app/check.js"

count_check() {
  local out=$1 p f
  p=$(grep -oE '^install: [0-9]+ passed' "$out" | grep -oE '[0-9]+' | tail -1)
  f=$(grep -oE '^install: [0-9]+ passed, [0-9]+ failed' "$out" | grep -oE '[0-9]+' | tail -1)
  passed=$((passed + ${p:-0}))
  failed=$((failed + ${f:-1}))
}

(cd "$app" && node check.js) >"$work/native.out" 2>&1
cat "$work/native.out"
count_check "$work/native.out"

version="$(cd "$app" && npx --offline --no-install ostrel version 2>"$work/npx.err")"
if [ "$version" = "$(node -p "require('./package.json').version")" ]; then
  ok "npx ostrel version prints $version alone on standard output"
else
  not_ok "npx ostrel version: stdout '$version', stderr: $(cat "$work/npx.err")"
fi

OSTREL_WINE_NODE_CWD="$app" scripts/wine-node check.js >"$work/wine.out" 2>&1
cat "$work/wine.out"
count_check "$work/wine.out"

finish
