#!/usr/bin/env bash
# Builds what is missing and runs every suite: the typings check, the native
# unit tests, the JS suites with the Linux node, the JS suites with the
# Windows node.exe under Wine, and the unit tests under Wine. Ends with one
# line "N passed, N failed".
#   scripts/test.sh                 everything
#   OSTREL_SUITES="native-js wine-js" scripts/test.sh   a subset of:
#       types native-unit native-js wine-js wine-unit, and install (the
#       packed package installed into an empty folder; needs prebuilds/,
#       made by 'npm run prebuild'; CI runs it). With both native-js and
#       wine-js, the inotify limits case runs apart after the lanes
#       (native-limits): it lowers limits of the whole machine.
#   OSTREL_PRESET=linux-asan scripts/test.sh            native suites on another build
#   OSTREL_JS_FILES="test/js/a.test.js" scripts/test.sh  some JS files only
#   OSTREL_JS_PATTERN="wake-ups" scripts/test.sh         JS tests whose name matches
#   OSTREL_JS_CONCURRENCY=1 scripts/test.sh              JS files one at a time
# The native suites and the Wine suites are independent: they run side by
# side (lanes, each building its own target first; the typings check in a
# third), and node's test runner runs several files at once. Each suite's report is printed when it
# ends, with its time; the raw output is in build/test-logs/<suite>.log.
set -uo pipefail
cd "$(dirname "$0")/.."
root="$PWD"
suites="${OSTREL_SUITES:-types native-unit native-js wine-js wine-unit}"
preset="${OSTREL_PRESET:-linux}"
logs="$root/build/test-logs"
mkdir -p "$logs"
rm -f "$logs"/*.counts
start_all=$SECONDS

# OSTREL_JS_FILES narrows the JS suites to some files (space-separated).
read -r -a js_files <<<"${OSTREL_JS_FILES:-$(echo test/js/*.test.js)}"
js_pattern=()
[ -n "${OSTREL_JS_PATTERN:-}" ] && js_pattern=(--test-name-pattern="$OSTREL_JS_PATTERN")
# Files at a time: one per core natively (at least two); two under Wine
# (node.exe's runner staying alive after its report is handled in the Wine
# lane below); one on the sanitizer builds, which run slower and print
# more. Some cases time their
# children in seconds: more files at once than cores made them fail on a
# machine already busy.
cores=$(nproc)
case "$preset" in *san*) native_concurrency=1 ;; *) native_concurrency=$((cores > 2 ? cores : 2)) ;; esac
native_js_concurrency=(--test-concurrency="${OSTREL_JS_CONCURRENCY:-$native_concurrency}")
wine_js_concurrency=(--test-concurrency="${OSTREL_JS_CONCURRENCY:-2}")
export OSTREL_TEST_PRESET="$preset"

has_suite() { case " $suites " in *" $1 "*) return 0 ;; esac; return 1; }

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

# Installs what is missing once, before the lanes build in parallel.
setup_start=$SECONDS
if has_suite native-unit || has_suite native-js || has_suite wine-js || has_suite wine-unit || has_suite install; then
  # The Wine prefix is made in the Wine lane, while the Windows build runs.
  OSTREL_SETUP_NO_PREFIX=1 bash scripts/setup.sh >/dev/null || { echo "0 passed, 1 failed"; exit 1; }
else
  bash scripts/setup-module.sh >/dev/null || { echo "0 passed, 1 failed"; exit 1; }
fi
((SECONDS - setup_start < 5)) || echo "== installed what was missing ($((SECONDS - setup_start)) s)"

# Counts a runner printed: the last number matched by each of two patterns,
# written to <log>.counts as "passed failed". A failing exit with no failure
# counted (a crash before the runner could report), or a runner that ended
# without its report, counts as one failure.
count() {
  local file=$1 rc=$2 pass_re=$3 fail_re=$4 p f
  p=$(grep -oE "$pass_re" "$file" | grep -oE '[0-9]+' | tail -1)
  f=$(grep -oE "$fail_re" "$file" | grep -oE '[0-9]+' | tail -1)
  if [ -z "$p" ] && [ -z "$f" ]; then
    echo "  no report from the runner; the end of its output:"
    grep -av '^wine: Read access denied' "$file" | tail -n 15 | sed 's/^/    | /'
    rc=1
  fi
  p=${p:-0}
  f=${f:-0}
  if [ "$rc" -ne 0 ] && [ "$f" -eq 0 ]; then f=1; fi
  echo "$p $f" >"${file%.log}.counts"
  echo "  $p passed, $f failed"
}
# GoogleTest: "[  PASSED  ] N tests" and "[  FAILED  ] N tests".
count_gtest() { count "$1" "$2" '^\[  PASSED  \] [0-9]+' '^\[  FAILED  \] [0-9]+ tests?'; }
# node's test runner: "# pass N" and "# fail N".
count_node() { count "$1" "$2" '^(# |ℹ )pass [0-9]+' '^(# |ℹ )fail [0-9]+'; }
# The five slowest top-level tests of a node test-runner log (TAP), where
# a suite's time goes.
slowest() {
  awk '/^(not )?ok [0-9]+ - / { sub(/^(not )?ok [0-9]+ - /, ""); name = $0 }
       /^  duration_ms: / && name != "" { printf "%8.1f s  %s\n", $2 / 1000, name; name = "" }' "$1" |
    sort -rn | head -5 | sed 's/^/    slowest: /'
}
# One check that passes when the command does.
count_one() {
  local p=1 f=0
  [ "$2" -eq 0 ] || { p=0; f=1; }
  echo "$p $f" >"${1%.log}.counts"
  echo "  $p passed, $f failed"
}

# Fixtures both lanes read, made once before they start.
fixtures() {
  # The 200,000-file tree of the lifecycle tests: node.exe under Wine would
  # take minutes to write it.
  local big="build/test-fixtures/big-200k" d
  if [ ! -f "$big/.complete" ]; then
    rm -rf "$big"
    for d in $(seq 0 199); do mkdir -p "$big/d$d" && (cd "$big/d$d" && touch f{0..999}.txt); done
    touch "$big/.complete"
  fi
  # The benchmark's 100,000-file tree, which scan-walk.test.js reads under
  # Wine too (node.exe would take minutes to write it; natively 20-30 s).
  node bench/scan/run.js --files 100000 --generate-only >/dev/null ||
    echo "the 100,000-file benchmark tree could not be written: its scan case skips under Wine"
  # The link loop of scan-walk.test.js (its LOOP_FILES and LOOP_LINKS) for
  # the Wine run: node.exe under Wine can make no links.
  local loop="build/test-fixtures/link-loop"
  if [ ! -L "$loop/a/up" ] || [ ! -L "$loop/b/c/back" ]; then
    rm -rf "$loop" && mkdir -p "$loop/a" "$loop/b/c"
    echo -n a/f.txt >"$loop/a/f.txt" && echo -n b/c/h.txt >"$loop/b/c/h.txt" && echo -n g.txt >"$loop/g.txt"
    ln -s .. "$loop/a/up" && ln -s ../.. "$loop/b/c/back"
  fi
}

# Runs one suite; its report (and a short excerpt on failure) goes to
# <suite>.out and is printed whole when the suite ends.
run_suite() {
  local suite=$1 log="$logs/$1.log" out="$logs/$1.out" t0=$SECONDS rc
  case "$suite" in
    types)
      {
        echo "== typings: tsc --strict over index.d.ts and test/types/usage.ts"
        node node_modules/typescript/bin/tsc -p test/types >"$log" 2>&1
        rc=$?
        [ $rc -eq 0 ] || head -40 "$log"
        count_one "$log" $rc
      } >"$out"
      ;;
    native-unit)
      {
        echo "== native unit tests ($preset)"
        "build/$preset/test/ostrel_unit_tests" >"$log" 2>&1
        rc=$?
        [ $rc -eq 0 ] || grep -E '^\[  FAILED  \]|Failure|error' "$log" | head -40
        count_gtest "$log" $rc
      } >"$out"
      ;;
    native-js | native-limits)
      wait_fixtures
      {
        local files=("${js_files[@]}") pattern=("${js_pattern[@]}") limits=()
        if [ "$suite" = native-limits ]; then
          echo "== the inotify limits case alone, native node $(node --version) ($preset)"
          files=(test/js/watch-events.test.js) pattern=(--test-name-pattern="inotify limits")
        else
          echo "== JS suites, native node $(node --version) ($preset)"
          # The case lowers limits of the whole machine for a moment: with
          # the Wine lane watching meanwhile (the Wine server's watches
          # count too), it runs apart once the lanes have ended.
          [ -n "$limits_apart" ] && limits=(OSTREL_INOTIFY_LIMITS=apart)
        fi
        local sanitizer_env=()
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
        env "${sanitizer_env[@]}" "${limits[@]}" OSTREL_BUILD_DIR="build/$preset" node --test --test-reporter=tap \
          "${native_js_concurrency[@]}" "${pattern[@]}" "${files[@]}" >"$log" 2>&1
        rc=$?
        [ $rc -eq 0 ] || grep -B2 -A25 '^not ok' "$log" | head -150
        count_node "$log" $rc
        slowest "$log"
      } >"$out"
      ;;
    wine-js)
      wait_fixtures
      {
        echo "== JS suites, Windows node.exe under Wine"
        # As root, Wine's server opens any file; started without the DAC
        # override capabilities it gets "access denied" like a Windows user
        # would, so the suites can test unreadable files. The fixture is made
        # here because node.exe cannot set Unix permissions.
        local denied="build/test-fixtures/denied" restricted=()
        [ -d "$denied" ] && chmod -R u+rwx "$denied"
        rm -rf "$denied" && mkdir -p "$denied"
        echo open >"$denied/open.txt" && echo secret >"$denied/secret.txt" && chmod 000 "$denied/secret.txt"
        if [ "$(id -u)" -eq 0 ] && command -v setpriv >/dev/null; then
          restricted=(setpriv --bounding-set=-dac_override,-dac_read_search)
          WINEPREFIX="$root/build/wine-prefix" wineserver -k 2>/dev/null || true
          export OSTREL_DENIED_FIXTURE="$denied"
        fi
        # Emptied here, not by the runner's own redirection, which the
        # background job may make only after the watch below has read the
        # last run's summary in it (and then stopped this run's Wine server
        # 60 s on, ending the runner silently with status 0).
        : >"$log"
        "${restricted[@]}" scripts/wine-node --test --test-reporter=tap "${wine_js_concurrency[@]}" "${js_pattern[@]}" \
          "${js_files[@]}" >>"$log" 2>&1 &
        local runner=$! reported=""
        # node.exe's test runner under Wine has stayed alive after its last
        # report (its main thread waiting on a pipe, no test process left),
        # until killed: once the final summary is written it gets 60 s to
        # end, then the Wine server of the prefix is stopped, and the counts
        # of the summary decide.
        while kill -0 "$runner" 2>/dev/null; do
          if [ -z "$reported" ] && grep -q '^# duration_ms' "$log"; then reported=$SECONDS; fi
          if [ -n "$reported" ] && ((SECONDS - reported > 60)); then
            echo "wine-js: node.exe's test runner still alive 60 s after its summary: stopped" >>"$log"
            WINEPREFIX="$root/build/wine-prefix" wineserver -k 2>/dev/null || true
            break
          fi
          sleep 2
        done
        wait "$runner"
        rc=$?
        if [ -n "$reported" ] && [ $rc -ne 0 ] && grep -q '^# fail 0$' "$log"; then rc=0; fi
        [ $rc -eq 0 ] || grep -B2 -A25 '^not ok' "$log" | head -150
        count_node "$log" $rc
        slowest "$log"
        if ((${#restricted[@]})); then
          unset OSTREL_DENIED_FIXTURE
          WINEPREFIX="$root/build/wine-prefix" wineserver -k 2>/dev/null || true
        fi
      } >"$out"
      ;;
    wine-unit)
      {
        echo "== native unit tests under Wine"
        (cd build/win32/test && WINEPREFIX="$root/build/wine-prefix" WINEDEBUG=-all \
          wine ./ostrel_unit_tests.exe >"$log" 2>&1 </dev/null)
        rc=$?
        [ $rc -eq 0 ] || grep -E '^\[  FAILED  \]|Failure' "$log" | head -40
        count_gtest "$log" $rc
      } >"$out"
      ;;
    install)
      {
        echo "== the packed package installed into an empty folder (natively and under Wine)"
        bash scripts/install-test.sh >"$log" 2>&1
        rc=$?
        [ $rc -eq 0 ] || tail -40 "$log"
        count "$log" $rc '^install: [0-9]+ passed' '^install: [0-9]+ passed, [0-9]+ failed'
      } >"$out"
      ;;
    *)
      { echo "unknown suite: $suite"; echo "0 1" >"${log%.log}.counts"; } >"$out"
      ;;
  esac
  echo "  ($suite: $((SECONDS - t0)) s)" >>"$out"
  cat "$out"
}

# A lane builds what its suites need, then runs them one after the other.
# The Wine lane makes the Wine prefix (once) while it builds.
lane() {
  local build_preset=$1 t0=$SECONDS prefix_job=""
  shift
  (($#)) || return 0
  if [ "$build_preset" = win32 ] || [[ " $* " == *" install "* ]]; then
    bash scripts/wine-prefix.sh >"$logs/wine-prefix.log" 2>&1 &
    prefix_job=$!
  fi
  if [ -n "$build_preset" ]; then
    # The Wine lane is the longer one: its build gets the cores first, and
    # the native build the rest (its suites start later and end earlier).
    local niced=()
    [ "$build_preset" = win32 ] || [ -z "$wine_build" ] || niced=(nice -n 10)
    if ! OSTREL_SETUP_DONE=1 "${niced[@]}" bash scripts/build.sh "$build_preset" >"$logs/build-$build_preset.log" 2>&1; then
      cat "$logs/build-$build_preset.log"
      for s in "$@"; do echo "0 1" >"$logs/$s.counts"; done
      [ -z "$prefix_job" ] || wait "$prefix_job"
      return
    fi
    echo "== built $build_preset ($((SECONDS - t0)) s)"
  fi
  if [ -n "$prefix_job" ]; then
    if ! wait "$prefix_job"; then
      cat "$logs/wine-prefix.log"
      for s in "$@"; do echo "0 1" >"$logs/$s.counts"; done
      return
    fi
    grep -q 'creating' "$logs/wine-prefix.log" && echo "== Wine prefix made (ready $((SECONDS - t0)) s after the lane started)"
  fi
  for s in "$@"; do run_suite "$s"; done
}

native=()
wine=()
other=()
for s in $suites; do
  case "$s" in
    native-*) native+=("$s") ;;
    # The install test runs node.exe under Wine too: never while wine-js
    # restarts the Wine server.
    wine-* | install) wine+=("$s") ;;
    *) other+=("$s") ;;
  esac
done
# The fixtures are written while the lanes build; the JS suites wait for them.
fixtures_done="$logs/fixtures.done"
rm -f "$fixtures_done"
if ((${#wine[@]})) || has_suite native-js; then
  (fixtures && touch "$fixtures_done") &
else
  touch "$fixtures_done"
fi
wait_fixtures() {
  local waited=0
  while [ ! -f "$fixtures_done" ] && ((waited < 600)); do sleep 1; waited=$((waited + 1)); done
}

limits_apart=""
if has_suite native-js && has_suite wine-js && [ -z "${OSTREL_JS_PATTERN:-}" ] &&
  [[ " ${js_files[*]} " == *"watch-events.test.js "* ]]; then
  limits_apart=1
fi

# Three lanes side by side: the typings check needs no build; the native
# suites build the native preset first, the Wine suites win32 (the install
# test packs the prebuilds and needs no build).
native_build=""
((${#native[@]})) && native_build="$preset"
wine_build=""
case " ${wine[*]} " in *" wine-"*) wine_build="win32" ;; esac
lane "" "${other[@]}" &
other_lane=$!
lane "$native_build" "${native[@]}" &
native_lane=$!
lane "$wine_build" "${wine[@]}" &
wine_lane=$!
wait "$other_lane" "$native_lane" "$wine_lane"
if [ -n "$limits_apart" ]; then
  suites="$suites native-limits"
  run_suite native-limits
fi

passed=0
failed=0
for s in $suites; do
  read -r p f 2>/dev/null <"$logs/$s.counts" || { p=0; f=1; }
  passed=$((passed + p))
  failed=$((failed + f))
done
echo "== all suites: $((SECONDS - start_all)) s"
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
