#!/bin/sh
# Runs in the lab guest after the checks: captures the device before and after a use case that
# frees, unmaps, hands to the kernel and leaks DMA-BUF buffers (leak_client), and prints both
# captures and the client's record for the host's comparison (lab/before_after.sh).
stable() {  # the buffer list, once it stops changing (processes of the checks are still exiting)
	prev="" i=0
	while [ $i -lt 30 ]; do
		now=$(ls /sys/kernel/dmabuf/buffers | tr '\n' ' ')
		[ "$now" = "$prev" ] && return 0
		prev=$now i=$((i + 1))
		sleep 0.1
	done
}
wait_for() {
	i=0
	while [ ! -f "$1" ] && [ $i -lt 100 ]; do sleep 0.1; i=$((i + 1)); done
	[ -f "$1" ]
}
stable
/lab/leak_client /tmp/leak &
client=$!
if wait_for /tmp/leak; then
	/lab/capture.sh /tmp/before.tar.gz >/dev/null 2>&1
	kill -USR1 $client
	wait_for /tmp/leak.after && /lab/capture.sh /tmp/after.tar.gz >/dev/null 2>&1
fi
echo "QUARRY-PAIR-CLIENT $client"
for f in /tmp/leak /tmp/leak.after; do
	sed 's/^/QUARRY-PAIR-BUFFER /' "$f" 2>/dev/null
done
for side in before after; do
	echo "QUARRY-PAIR-BEGIN $side"
	base64 "/tmp/$side.tar.gz" 2>/dev/null
	echo "QUARRY-PAIR-END"
done
kill $client
