#!/usr/bin/env bash
# Runs the whole lab (lab/run.sh) once per lab kernel, 6.1 (with the DMA-BUF sysfs statistics)
# and then 6.12 (without them), and adds up their results into one summary line.
#   lab/kernels.sh BINARY
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
passed=0 failed=0
for kernel in 6.1 6.12; do
  out=$(mktemp)
  QUARRY_LAB_KERNEL=$kernel "$here/run.sh" "$1" 2>&1 | sed -u "s/^/[$kernel] /" | tee "$out"
  summary=$(sed -n 's/^\[[0-9.]*\] \([0-9]*\) passed, \([0-9]*\) failed$/\1 \2/p' "$out" | tail -1)
  rm -f "$out"
  if [ -z "$summary" ]; then
    echo "FAIL the $kernel lab gave no summary line"
    failed=$((failed + 1))
    continue
  fi
  passed=$((passed + ${summary% *})) failed=$((failed + ${summary#* }))
done
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
