#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, AddressSanitizer + UndefinedBehaviorSanitizer) and runs
# each for SECONDS (default 30), starting from its corpus. New interesting inputs go to a
# scratch folder, not the repository; a crash leaves its input in build/fuzz/crashes/ and fails
# the run: copy it into tests/fuzz/corpus/<target>/ once fixed, so every ctest replays it.
#   fuzz.sh [SECONDS] [TARGET...]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-30}
shift || true
scripts/setup.sh fuzz
scripts/build.sh fuzz >/dev/null
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=($(ls tests/fuzz/corpus))
mkdir -p build/fuzz/crashes
status=0
for t in "${targets[@]}"; do
  scratch=$(mktemp -d)
  log=build/fuzz/$t.log
  if UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 ASAN_OPTIONS=halt_on_error=1 \
      build/fuzz/tests/fuzz/fuzz_$t "$scratch" "tests/fuzz/corpus/$t" -max_total_time="$seconds" \
      -max_len=4096 -artifact_prefix="build/fuzz/crashes/$t-" -print_final_stats=1 >"$log" 2>&1; then
    execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    echo "fuzz_$t: ok, $execs executions in ${seconds}s"
  else
    echo "fuzz_$t: FAILED (see $log)"
    tail -20 "$log"
    status=1
  fi
  rm -rf "$scratch"
done
exit $status
