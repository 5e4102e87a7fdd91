#!/usr/bin/env bash
# Line and branch coverage of src/ by the native suites: builds the
# linux-coverage preset (gcc --coverage), clears the counters, runs the
# native unit tests and the JS suites with the Linux node on that build, and
# prints one row per subsystem folder (gcovr, Debian's package).
#   scripts/coverage.sh                          unit tests and every JS suite
#   OSTREL_SUITES="native-unit" scripts/coverage.sh        unit tests only
#   OSTREL_JS_FILES="test/js/a.test.js" scripts/coverage.sh  some JS files
#   scripts/coverage.sh --report                 print the figures of the last run again
# Windows-only sources (*_win.cc) are not built here, so they count nowhere.
set -uo pipefail
cd "$(dirname "$0")/.."
preset=linux-coverage
dir="build/$preset"

if ! command -v gcovr >/dev/null; then
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends gcovr >/dev/null
fi

if [ "${1:-}" != "--report" ]; then
  bash scripts/build.sh "$preset" || exit 1
  find "$dir" -name '*.gcda' -delete
  # The suites' own verdicts are printed; a failing suite still leaves counters.
  # A coroutine chain's bounded stack needs the optimiser's tail calls: at
  # -O0 that unit test overflows and would end the whole unit run.
  GTEST_FILTER="${GTEST_FILTER:--Task.LongSynchronousChainsDoNotGrowTheStack}" OSTREL_PRESET="$preset" OSTREL_SUITES="${OSTREL_SUITES:-native-unit native-js}" bash scripts/test.sh
fi

json="$dir/coverage.json"
# Exception and unreachable branches are the compiler's, not the code's.
# Threads race on the counters (gcc without -fprofile-update=atomic), which
# can leave a negative branch count: such lines are read as far as possible.
gcovr --root . "$dir" --filter 'src/' \
  --exclude-throw-branches --exclude-unreachable-branches --gcov-ignore-parse-errors \
  --json-summary "$json" --json-summary-pretty >/dev/null || exit 1

node - "$json" <<'EOF'
const summary = require(require('path').resolve(process.argv[2]));
const rows = new Map();
const add = (key, f) => {
  const r = rows.get(key) || { lt: 0, lc: 0, bt: 0, bc: 0 };
  r.lt += f.line_total; r.lc += f.line_covered; r.bt += f.branch_total; r.bc += f.branch_covered;
  rows.set(key, r);
};
for (const f of summary.files) {
  add(f.filename.split('/')[1], f);
  add('all of src/', f);
}
const pct = (c, t) => (t ? ((100 * c) / t).toFixed(1) + ' %' : '-');
const order = ['runtime', 'scan', 'watch', 'storage', 'mtp', 'media', 'telemetry', 'main', 'all of src/'];
const keys = [...order.filter((k) => rows.has(k)), ...[...rows.keys()].filter((k) => !order.includes(k))];
console.log('| folder | lines | line coverage | branches | branch coverage |');
console.log('|---|---:|---:|---:|---:|');
for (const k of keys) {
  const r = rows.get(k);
  console.log(`| ${k} | ${r.lc}/${r.lt} | ${pct(r.lc, r.lt)} | ${r.bc}/${r.bt} | ${pct(r.bc, r.bt)} |`);
}
EOF

# Test lines against code lines (the doubles and simulators counted apart).
lines() { find "$@" -type f \( -name '*.js' -o -name '*.cc' -o -name '*.h' -o -name '*.c' \) -print0 2>/dev/null | xargs -0 cat | wc -l; }
code=$(lines src lib bin index.js)
tests=$(lines test/js test/native test/addon)
fuzz=$(lines test/fuzz)
fixtures=$(lines test/fixtures)
echo "code (src lib bin index.js): $code lines; tests (test/js test/native test/addon): $tests lines," \
  "$((1000 * tests / code / 10)).$((1000 * tests / code % 10)) % of the code;" \
  "fuzz targets (test/fuzz): $fuzz lines, $((100 * (tests + fuzz) / code)) % with the tests;" \
  "doubles and simulators (test/fixtures): $fixtures lines"
