#!/usr/bin/env bash
# Builds what is missing and runs every suite: native unit tests, the JS
# suites with the Linux node, the JS suites with the Windows node.exe under
# Wine, and the unit tests under Wine. Ends with one line "N passed, N failed".
#   scripts/test.sh                 everything
#   OSTREL_SUITES="native-js wine-js" scripts/test.sh   a subset
#   OSTREL_PRESET=linux-asan scripts/test.sh            native suites on another build
#   OSTREL_JS_FILES="test/js/a.test.js" scripts/test.sh  some JS files only
#   OSTREL_JS_PATTERN="wake-ups" scripts/test.sh         JS tests whose name matches
set -uo pipefail
cd "$(dirname "$0")/.."
root="$PWD"
suites="${OSTREL_SUITES:-native-unit native-js wine-js wine-unit}"
preset="${OSTREL_PRESET:-linux}"
logs="$root/build/test-logs"
mkdir -p "$logs"

presets=("$preset")
case " $suites " in *" wine-"*) presets+=(win32) ;; esac
bash scripts/build.sh "${presets[@]}" || { echo "0 passed, 1 failed"; exit 1; }

# Detaches what a crashed run of the dead-share cases left behind: stallfs
# mounts under build/stallfs (test/fixtures/stallfs) and their drive letters
# in the Wine prefix. stallfs ends by itself after its lifetime too.
sweep_stallfs() {
  local m l
  awk '$3 == "fuse.stallfs" { print $2 }' /proc/mounts 2>/dev/null | while read -r m; do
    case "$m" in "$root"/build/stallfs/*) fusermount3 -uz "$m" 2>/dev/null || umount -l "$m" 2>/dev/null || true ;; esac
  done
  for l in "$root"/build/wine-prefix/dosdevices/?:; do
    [ -L "$l" ] || continue
    case "$(readlink "$l")" in "$root"/build/stallfs/*) rm -f "$l" ;; esac
  done
}
sweep_stallfs
trap sweep_stallfs EXIT

passed=0
failed=0
add() { passed=$((passed + $1)); failed=$((failed + $2)); }

# Adds the counts a runner printed: the last number matched by each of two
# patterns. A failing exit with no failure counted (a crash before the
# runner could report) counts as one failure.
count() {
  local file=$1 rc=$2 pass_re=$3 fail_re=$4 p f
  p=$(grep -oE "$pass_re" "$file" | grep -oE '[0-9]+' | tail -1)
  f=$(grep -oE "$fail_re" "$file" | grep -oE '[0-9]+' | tail -1)
  p=${p:-0}
  f=${f:-0}
  if [ "$rc" -ne 0 ] && [ "$f" -eq 0 ]; then f=1; fi
  add "$p" "$f"
  echo "  $p passed, $f failed"
}
# GoogleTest: "[  PASSED  ] N tests" and "[  FAILED  ] N tests".
count_gtest() { count "$1" "$2" '^\[  PASSED  \] [0-9]+' '^\[  FAILED  \] [0-9]+ tests?'; }
# node's test runner: "# pass N" and "# fail N".
count_node() { count "$1" "$2" '^(# |ℹ )pass [0-9]+' '^(# |ℹ )fail [0-9]+'; }

# OSTREL_JS_FILES narrows the JS suites to some files (space-separated).
read -r -a js_files <<<"${OSTREL_JS_FILES:-$(echo test/js/*.test.js)}"
js_pattern=()
[ -n "${OSTREL_JS_PATTERN:-}" ] && js_pattern=(--test-name-pattern="$OSTREL_JS_PATTERN")
export OSTREL_TEST_PRESET="$preset"

for suite in $suites; do
  log="$logs/$suite.log"
  case "$suite" in
    native-unit)
      echo "== native unit tests ($preset)"
      "build/$preset/test/ostrel_unit_tests" >"$log" 2>&1
      rc=$?
      [ $rc -eq 0 ] || grep -E '^\[  FAILED  \]|Failure|error' "$log" | head -40
      count_gtest "$log" $rc
      ;;
    native-js)
      echo "== JS suites, native node $(node --version) ($preset)"
      sanitizer_env=()
      case "$preset" in
        *asan*)
          # node itself is not instrumented: the runtime must come first, and
          # node's own allocations at exit are not ours to report.
          sanitizer_env=(LD_PRELOAD="$(gcc -print-file-name=libasan.so)" ASAN_OPTIONS=detect_leaks=0
            UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1) ;;
        *tsan*)
          sanitizer_env=(LD_PRELOAD="$(gcc -print-file-name=libtsan.so)"
            TSAN_OPTIONS="halt_on_error=1 suppressions=$root/scripts/tsan-node.supp") ;;
      esac
      env "${sanitizer_env[@]}" OSTREL_BUILD_DIR="build/$preset" node --test --test-reporter=tap "${js_pattern[@]}" "${js_files[@]}" >"$log" 2>&1
      rc=$?
      [ $rc -eq 0 ] || grep -B2 -A25 '^not ok' "$log" | head -150
      count_node "$log" $rc
      ;;
    wine-js)
      echo "== JS suites, Windows node.exe under Wine"
      # As root, Wine's server opens any file; started without the DAC
      # override capabilities it gets "access denied" like a Windows user
      # would, so the suites can test unreadable files. The fixture is made
      # here because node.exe cannot set Unix permissions.
      # The 200,000-file tree of the exit tests: node.exe under Wine would
      # take minutes to write it.
      big="build/test-fixtures/big-200k"
      if [ ! -f "$big/.complete" ]; then
        rm -rf "$big"
        for d in $(seq 0 199); do mkdir -p "$big/d$d" && (cd "$big/d$d" && touch f{0..999}.txt); done
        touch "$big/.complete"
      fi
      denied="build/test-fixtures/denied"
      [ -d "$denied" ] && chmod -R u+rwx "$denied"
      rm -rf "$denied" && mkdir -p "$denied"
      echo open >"$denied/open.txt" && echo secret >"$denied/secret.txt" && chmod 000 "$denied/secret.txt"
      restricted=()
      if [ "$(id -u)" -eq 0 ] && command -v setpriv >/dev/null; then
        restricted=(setpriv --bounding-set=-dac_override,-dac_read_search)
        WINEPREFIX="$root/build/wine-prefix" wineserver -k 2>/dev/null || true
        export OSTREL_DENIED_FIXTURE="$denied"
      fi
      "${restricted[@]}" scripts/wine-node --test --test-reporter=tap "${js_pattern[@]}" "${js_files[@]}" >"$log" 2>&1
      rc=$?
      [ $rc -eq 0 ] || grep -B2 -A25 '^not ok' "$log" | head -150
      count_node "$log" $rc
      if ((${#restricted[@]})); then
        unset OSTREL_DENIED_FIXTURE
        WINEPREFIX="$root/build/wine-prefix" wineserver -k 2>/dev/null || true
      fi
      ;;
    wine-unit)
      echo "== native unit tests under Wine"
      (cd build/win32/test && WINEPREFIX="$root/build/wine-prefix" WINEDEBUG=-all \
        wine ./ostrel_unit_tests.exe >"$log" 2>&1 </dev/null)
      rc=$?
      [ $rc -eq 0 ] || grep -E '^\[  FAILED  \]|Failure' "$log" | head -40
      count_gtest "$log" $rc
      ;;
    *)
      echo "unknown suite: $suite" >&2
      add 0 1
      ;;
  esac
done

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
