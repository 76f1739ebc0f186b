#!/bin/sh
# Runs in the lab guest after the still checks: quarrystat -u and -n, RUNS times each, while
# churn_client starts and ends processes that hold and map DMA-BUF buffers and allocates and
# frees short-lived buffers, as on a busy phone. A fresh dmabuf_client holds the steady buffers.
# Every run must succeed with a full report, every steady buffer must be listed in every -u
# report as it is (holders, size) and no process may be skipped. On a kernel without the DMA-BUF
# sysfs statistics (6.12) every -u report must instead say only that it has none, and -n must
# still give a figure (from the debug file system's table). Prints "ok ..." / "FAIL ..."
# lines and "motion: ..." figures (passes per walk, sysfs reads per report, the churn's rate).
Q=/lab/quarrystat
RUNS=${RUNS:-30}
SYSFS=1
[ -d /sys/kernel/dmabuf/buffers ] || SYSFS=0
NO_SYSFS="Unable to read DMA-BUF sysfs stats from device"
check() {  # check NAME STATUS
	if [ "$2" = 0 ]; then echo "ok motion: $1"; else echo "FAIL motion: $1"; fi
}

/lab/dmabuf_client /tmp/steady &
steady=$!
i=0
while [ ! -f /tmp/steady ] && [ $i -lt 100 ]; do sleep 0.1; i=$((i + 1)); done
# Each unmapped steady buffer's expected row text: "<inode> <size> <owner text>".
: >/tmp/steady.rows
while read -r _ inode size owners mapped; do
	want=""
	if [ "$owners" = kernel ]; then
		want="kernel"
	elif [ "$owners" != - ]; then
		for pid in $(echo "$owners" | tr ',' ' '); do want="${want}[$pid]$(cat "/proc/$pid/comm") "; done
	fi
	echo "$inode $size $mapped $want" >>/tmp/steady.rows
done </tmp/steady

/lab/churn_client /tmp/churn.stats &
churn=$!
sleep 1  # let the churn get going

bad_u=0 bad_rows=0 bad_n=0 skipped=0
: >/tmp/motion.err
n=0
while [ $n -lt "$RUNS" ]; do
	n=$((n + 1))
	$Q -u >/tmp/mu.out 2>/tmp/mu.err
	status=$?
	cat /tmp/mu.err >>/tmp/motion.err
	if [ $SYSFS = 0 ]; then
		[ $status = 0 ] && [ "$(cat /tmp/mu.out)" = "$NO_SYSFS" ]
	else
		[ $status = 0 ] && head -2 /tmp/mu.out | grep -q '^    Dmabuf Inode |' &&
			tail -1 /tmp/mu.out | grep -q '^Unmapped dmabuf total size is -\?[0-9]* KB$'
	fi || {
		[ $bad_u = 0 ] && { echo "-u run $n (status $status):"; head -5 /tmp/mu.out; }
		bad_u=$((bad_u + 1))
	}
	[ $SYSFS = 1 ] && while read -r inode size mapped want; do
		row=$(awk -v i="$inode" '$1 == i && $2 == "|"' /tmp/mu.out)
		if [ "$mapped" = 1 ]; then
			[ -z "$row" ]
		else
			echo "$row" | grep -q "^ *$inode | *$size |" && echo "$row" | grep -qF "| $want"
		fi || {
			[ $bad_rows = 0 ] && echo "-u run $n: buffer $inode (mapped $mapped) row '$row', want '$want'"
			bad_rows=$((bad_rows + 1))
		}
	done </tmp/steady.rows
	grep -q 'skipped' /tmp/mu.err && skipped=$((skipped + 1))

	$Q -n >/tmp/mn.out 2>/tmp/mn.err
	status=$?
	cat /tmp/mn.err >>/tmp/motion.err
	if [ $status != 0 ] || ! grep -q '^DMA-BUF unmapped:   -\?[0-9]* KB$' /tmp/mn.out ||
		! grep -q '^Kernel Memory total size = -\?[0-9]* KB$' /tmp/mn.out; then
		[ $bad_n = 0 ] && { echo "-n run $n (status $status):"; cat /tmp/mn.out; }
		bad_n=$((bad_n + 1))
	fi
	grep -q 'skipped' /tmp/mn.err && skipped=$((skipped + 1))
done
kill $churn
wait $churn
kill $steady

u_ok=$([ $bad_u = 0 ]; echo $?)
if [ $SYSFS = 1 ]; then
	check "$RUNS -u runs under churn exit 0 with a full table ($bad_u did not)" "$u_ok"
	[ $bad_rows = 0 ]
	check "every steady buffer in every -u report with its holders and size ($bad_rows misses)" $?
else
	check "$RUNS -u runs under churn exit 0 saying there are no sysfs statistics ($bad_u did not)" "$u_ok"
fi
[ $bad_n = 0 ]
check "$RUNS -n runs under churn exit 0 with a DMA-BUF figure ($bad_n did not)" $?
[ $skipped = 0 ]
check "no process skipped in any run ($skipped runs skipped some)" $?
grep 'skipped' /tmp/motion.err | head -3

# Passes: each -u run makes a mapped and a held walk, each -n run a mapped walk; a walk that
# needed more than one says so on standard error. Sysfs reads: one per report, likewise.
for walk in mapped held; do
	total=$([ $walk = mapped ] && echo $((2 * RUNS)) || echo "$RUNS")
	more=$(grep -c "the $walk DMA-BUF walk took" /tmp/motion.err)
	dist=$(sed -n "s/.*the $walk DMA-BUF walk took \([0-9]*\) passes/\1/p" /tmp/motion.err |
		sort -n | uniq -c | awk '{ printf " %s:%s", $2, $1 }')
	echo "motion: $walk walk passes (passes:walks): 1:$((total - more))$dist"
done
[ $SYSFS = 1 ] || echo "motion: sysfs reads per report: none, the kernel has no DMA-BUF sysfs statistics"
[ $SYSFS = 0 ] || more=$(grep -c 'read /sys/kernel/dmabuf/buffers in' /tmp/motion.err)
dist=$(sed -n 's/.*read \/sys\/kernel\/dmabuf\/buffers in \([0-9]*\) attempts/\1/p' /tmp/motion.err |
	sort -n | uniq -c | awk '{ printf " %s:%s", $2, $1 }')
[ $SYSFS = 0 ] || echo "motion: sysfs reads per report (reads:reports): 1:$((2 * RUNS - more))$dist"
# The library's per-read messages: each names a process whose files vanished mid-read.
echo "motion: reads that failed on a process gone mid-walk: $(grep -c 'for pid' /tmp/motion.err)"
read -r procs bufs ms </tmp/churn.stats
echo "motion: churn started $procs processes and allocated $bufs buffers in $ms ms" \
	"($(awk -v p="$procs" -v b="$bufs" -v t="$ms" 'BEGIN { printf "%.1f processes/s, %.1f buffers/s", p * 1000 / t, b * 1000 / t }'))"
