#!/usr/bin/env bash
# Builds the libFuzzer targets of test/fuzz (clang, AddressSanitizer and
# UndefinedBehaviorSanitizer; only the parser sources each needs) and runs
# each for a bounded time, starting from its seed corpus in
# test/fuzz/corpus/<target>. An input that crashes a target is copied into
# that corpus as a regression input (commit it with the fix).
#   scripts/fuzz.sh            30 s per target
#   scripts/fuzz.sh 5          5 s per target
#   scripts/fuzz.sh 60 fuzz_sysfs fuzz_mountinfo   some targets only
# Ends with one line "N passed, N failed" (one per target).
set -uo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-30}"
shift || true
dir=build/fuzz
# clang and its libFuzzer runtime (Debian's package), installed here: the
# other suites do not need them.
if ! command -v clang++ >/dev/null; then
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends clang >/dev/null || exit 1
fi
if [ ! -f "$dir/CMakeCache.txt" ]; then
  cmake -S test/fuzz -B "$dir" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=Debug >/dev/null || exit 1
fi
cmake --build "$dir" -j"$(nproc)" 2>&1 | grep -vE '^\[ *[0-9]+%\]|^(Consolidate|Scanning|Built target)'
test "${PIPESTATUS[0]}" -eq 0 || { echo "0 passed, 1 failed"; exit 1; }

targets=("$@")
((${#targets[@]})) || targets=(fuzz_notify_records fuzz_inotify_records fuzz_mountinfo fuzz_sysfs fuzz_wmi_values fuzz_name_regex)
passed=0
failed=0
for t in "${targets[@]}"; do
  seeds="test/fuzz/corpus/${t#fuzz_}"
  # New inputs the run finds go to a scratch corpus, not the repository.
  work="$dir/work/${t#fuzz_}"
  artifacts="$dir/artifacts/${t#fuzz_}"
  rm -rf "$artifacts" && mkdir -p "$work" "$artifacts"
  log="$dir/$t.log"
  echo "== $t, $seconds s"
  # Parsers log what they drop; their lines would drown the report.
  OSTREL_LOG_STDOUT=stderr "$dir/$t" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=4096 \
    -print_final_stats=1 -artifact_prefix="$artifacts/" "$work" "$seeds" >"$log" 2>&1
  rc=$?
  grep -E '^stat::(number_of_executed_units|average_exec_per_sec|new_units_added)' "$log" | tr -s ' ' | sed 's/^stat::/  /'
  if [ $rc -eq 0 ]; then
    passed=$((passed + 1))
  else
    failed=$((failed + 1))
    grep -E 'ERROR|SUMMARY|deadly signal|==ABORTING|#[0-9]+ in ' "$log" | head -20
    for a in "$artifacts"/*; do
      [ -f "$a" ] || continue
      cp "$a" "$seeds/regression-$(basename "$a")"
      echo "  kept $seeds/regression-$(basename "$a")"
    done
  fi
done
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
