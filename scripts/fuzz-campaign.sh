#!/usr/bin/env bash
# A long fuzzing campaign: runs each target for RUNS executions (default 10 million) in series,
# starting from its committed corpus, then merges what it found back into that corpus with
# -merge=1 -use_counters=0, which keeps only inputs that reach code (edges) the corpus did not:
# hit-count differences alone would add hundreds of near-copies. Prints executions (and their rate),
# coverage counters (cov, ft) and the number of inputs added per target; a crash or sanitizer
# report stops that target, leaves its input in build/fuzz/crashes/ and fails the campaign.
# The report targets (report_*) write and read a whole device tree per input, some hundred times
# the work of a line: they run for REPORT_RUNS executions (default 1 million, or RUNS if fewer)
# within REPORT_MAX_SECONDS (default 7200; a few hundred executions a second on two busy cores
# make a million in about an hour), the others for RUNS within MAX_SECONDS (default 3600).
#   fuzz-campaign.sh [RUNS] [TARGET...]
# Meant to run at low priority beside other work (nice -n 10); not part of CI, which runs each
# target for a few seconds from the grown corpora (scripts/fuzz.sh).
set -uo pipefail
cd "$(dirname "$0")/.."
runs=${1:-10000000}
shift || true
scripts/setup.sh fuzz
scripts/build.sh fuzz >/dev/null || exit 1
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=($(ls tests/fuzz/corpus))
mkdir -p build/fuzz/crashes build/fuzz/campaign
status=0
for t in "${targets[@]}"; do
  bin=build/fuzz/tests/fuzz/fuzz_$t
  log=build/fuzz/campaign/$t.log
  found=build/fuzz/campaign/$t
  rm -rf "$found" && mkdir -p "$found"
  # Line parsers see at most a few pieces of 127 characters; the whole-file and report targets
  # need room for several files.
  case "$t" in
    maps | fdinfo) max_len=4096 ;;
    report_*) max_len=8192 ;;
    *) max_len=512 ;;
  esac
  t_runs=$runs t_seconds=${MAX_SECONDS:-3600}
  if [[ $t == report_* ]]; then
    t_runs=${REPORT_RUNS:-1000000}
    [ "$runs" -ge "$t_runs" ] || t_runs=$runs
    t_seconds=${REPORT_MAX_SECONDS:-7200}
  fi
  start=$(date +%s)
  # The wall-clock bound keeps a slow target from holding the machine for hours.
  UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 ASAN_OPTIONS=halt_on_error=1 \
    nice -n 10 "$bin" "$found" "tests/fuzz/corpus/$t" -runs="$t_runs" -max_len="$max_len" \
    -max_total_time="$t_seconds" -timeout=10 -artifact_prefix="build/fuzz/crashes/$t-" \
    -print_final_stats=1 -close_fd_mask=3 >"$log" 2>&1
  rc=$?
  secs=$(($(date +%s) - start))
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  last=$(grep -E '^#[0-9]+.*cov: ' "$log" | tail -1)
  cov=$(sed -n 's/.*cov: \([0-9]*\).*/\1/p' <<<"$last")
  ft=$(sed -n 's/.*ft: \([0-9]*\).*/\1/p' <<<"$last")
  before=$(ls "tests/fuzz/corpus/$t" | wc -l)
  nice -n 10 "$bin" -merge=1 -use_counters=0 -max_len="$max_len" "tests/fuzz/corpus/$t" "$found" >"$log.merge" 2>&1
  added=$(($(ls "tests/fuzz/corpus/$t" | wc -l) - before))
  if [ $rc -eq 0 ]; then
    finding=none
  else
    finding="exit $rc, see $log and build/fuzz/crashes/$t-*"
    status=1
  fi
  rate=?
  [ -z "$execs" ] || rate=$((execs / (secs > 0 ? secs : 1)))
  short=""
  [ -z "$execs" ] || [ "$execs" -ge "$t_runs" ] || short=" (short of $t_runs: the time bound came first)"
  printf 'fuzz_%s: %s executions in %ss (%s/s)%s, cov %s ft %s, %s inputs added to the corpus, findings: %s\n' \
    "$t" "${execs:-?}" "$secs" "$rate" "$short" "${cov:-?}" "${ft:-?}" "$added" "$finding"
done
exit $status
