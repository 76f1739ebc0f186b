#!/usr/bin/env bash
# Buffers that vanish while -u and -n read /sys/kernel/dmabuf/buffers: a fixture tree on tmpfs
# whose buffer directories a churn loop creates and removes at RATE a second (0: as fast as it
# can), with -u and -n run RUNS times each against it. Prints how many runs could not read the
# statistics and how many reads the others took; asserts nothing.
#   bench/sysfs_churn.sh [BINARY]     RATES="200 2000 0" RUNS=100
# Removal here is three steps (two files, then the directory), so a reader can meet a
# directory without its files, as it can meet a freed buffer's directory in sysfs.
set -euo pipefail
cd "$(dirname "$0")/.."
RATES=${RATES:-200 2000 0} RUNS=${RUNS:-100}
bin=$(realpath "${1:-build/default/tool/quarrystat}")
tree="" churn=""
cleanup() {
  if [ -n "$churn" ]; then kill "$churn" 2>/dev/null || true; wait "$churn" 2>/dev/null || true; fi
  if [ -n "$tree" ]; then rm -rf "$tree"; fi
}
trap cleanup EXIT

for rate in $RATES; do
  tree=$(mktemp -d /dev/shm/quarry-churn.XXXXXX)
  cp -a tests/fixtures/dmabuf-lab/. "$tree/"
  cp "$bin" "$tree/quarrystat"
  timeout 900 python3 - "$tree/sys/kernel/dmabuf/buffers" "$rate" >"$tree/rate" <<'PY' &
import os, signal, sys, time
path, rate = sys.argv[1], float(sys.argv[2])
stop = []
signal.signal(signal.SIGTERM, lambda *_: stop.append(1))
live, n, start = [], 0, time.time()
while not stop:
    d = "%s/%d" % (path, 100000 + n)
    os.mkdir(d)
    for name, text in (("exporter_name", "system\n"), ("size", "4096\n")):
        with open(os.path.join(d, name), "w") as f:
            f.write(text)
    live.append(d)
    n += 1
    if len(live) > 20:
        old = live.pop(0)
        os.remove(old + "/exporter_name")
        os.remove(old + "/size")
        os.rmdir(old)
    if rate > 0 and start + n / rate > time.time():
        time.sleep(start + n / rate - time.time())
print("%.0f" % (n / (time.time() - start)))
PY
  churn=$!
  sleep 1
  u_failed=0 n_failed=0
  : >"$tree/reads"
  for _ in $(seq "$RUNS"); do
    timeout 60 chroot "$tree" /quarrystat -u >"$tree/out" 2>"$tree/err" || true
    grep -q '^Unable to read DMA-BUF sysfs stats' "$tree/out" && u_failed=$((u_failed + 1))
    grep -o 'in [0-9]* attempts' "$tree/err" >>"$tree/reads" || true
    timeout 60 chroot "$tree" /quarrystat -n >"$tree/out" 2>"$tree/err" || true
    grep -q '^DMA-BUF unmapped:   unknown' "$tree/out" && n_failed=$((n_failed + 1))
    grep -o 'in [0-9]* attempts' "$tree/err" >>"$tree/reads" || true
  done
  kill "$churn"
  wait "$churn" || true
  churn=""
  reads=$(sed 's/in \([0-9]*\) attempts/\1/' "$tree/reads" | sort -n | uniq -c | awk '{ printf " %s:%s", $2, $1 }')
  echo "churn at $(cat "$tree/rate") buffers/s: -u without a table $u_failed/$RUNS," \
    "-n without a figure $n_failed/$RUNS; reports read more than once (reads:reports):${reads:- none}"
  rm -rf "$tree"
  tree=""
done
