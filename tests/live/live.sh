#!/usr/bin/env bash
# Runs quarrystat on this machine's own kernel (no fixture tree) and checks it against what the
# kernel itself says. Prints "N passed, N failed".
#   live.sh BINARY
set -uo pipefail
binary=$(realpath "$1")
passed=0 failed=0
check() {  # check NAME CONDITION-RESULT
  if [ "$2" = 0 ]; then passed=$((passed + 1)); echo "ok $1"; else failed=$((failed + 1)); echo "FAIL $1"; fi
}
out=$(mktemp) err=$(mktemp)
trap 'rm -f "$out" "$err"' EXIT

# -n: the five counters as /proc/meminfo has them, the VMAP_STACK branch as config.gz says, and
# a total that is their sum plus the unmapped line.
if [ -r /proc/config.gz ] && [ -r /proc/meminfo ]; then
  before=$(mktemp)
  cp /proc/meminfo "$before"
  timeout 120 "$binary" -n >"$out" 2>"$err"
  check "-n exits 0" $?
  for key in Shmem SUnreclaim PageTables VmallocUsed KernelStack; do
    got=$(awk -v k="$key:" '$1 == k { print $2 }' "$out")
    # The counters move while the machine works: the value must lie between what
    # /proc/meminfo said just before and just after the run, give or take a quarter.
    read -r lo hi < <(awk -v k="$key:" '$1 == k { v[n++] = $2 }
        END { lo = v[0] < v[1] ? v[0] : v[1]; hi = v[0] < v[1] ? v[1] : v[0]
              print int(lo * 0.75) - 1024, int(hi * 1.25) + 1024 }' "$before" /proc/meminfo)
    [ -n "$got" ] && [ "$got" -ge "$lo" ] && [ "$got" -le "$hi" ]
    check "-n $key $got within [$lo, $hi] of /proc/meminfo" $?
  done
  rm -f "$before"
  if zcat /proc/config.gz | grep '^CONFIG_VMAP_STACK=y' >/dev/null; then
    ! grep -q 'CONFIG_VMAP_STACK is not set.' "$out"
  else
    grep -q 'CONFIG_VMAP_STACK is not set.' "$out"
  fi
  check "-n follows this kernel's CONFIG_VMAP_STACK" $?
  sum=$(awk '/^(Shmem|SUnreclaim|PageTables|VmallocUsed):/ { s += $2 }
             /^KernelStack:/ { k = $2 }
             /^CONFIG_VMAP_STACK is not set\./ { s += k }
             /unmapped:/ { if ($3 ~ /^-?[0-9]+$/) s += $3 }
             END { print s }' "$out")
  total=$(sed -n 's/^Kernel Memory total size = \(-\?[0-9]*\) KB$/\1/p' "$out")
  [ -n "$total" ] && [ "$total" = "$sum" ]
  check "-n total is the sum of its lines ($total = $sum)" $?
else
  echo "skip -n: this kernel publishes no /proc/config.gz"
fi

# -u: ends in bounded time, and no maps line of any live process fails to parse.
timeout 300 "$binary" -u >"$out" 2>"$err"
status=$?
[ "$status" = 0 ]
check "-u exits 0 in bounded time (status $status)" $?
! grep -q 'Failed to parse' "$err"
check "-u parses every live maps line" $?

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
