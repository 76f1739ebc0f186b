#!/bin/sh
# Runs in the lab guest after the before/after pair: records a series of captures
# (capture/record.sh) while leak_client leaks one buffer every few seconds, and prints the
# recording and the client's record for the host's check (lab/record_leak.sh).
stable() {  # the buffer list, once it stops changing (processes of the pair are still exiting)
	prev="" i=0
	while [ $i -lt 30 ]; do
		now=$(ls /sys/kernel/dmabuf/buffers 2>/dev/null; cat /d/dma_buf/bufinfo 2>/dev/null | wc -l)
		[ "$now" = "$prev" ] && return 0
		prev=$now i=$((i + 1))
		sleep 0.1
	done
}
stable
# Six buffers three seconds apart, recorded every two seconds eight times: the first capture
# sees one leaked buffer, the last all six.
/lab/leak_client --every 3 6 /tmp/slow &
client=$!
i=0
while [ ! -f /tmp/slow ] && [ $i -lt 100 ]; do sleep 0.1; i=$((i + 1)); done
/lab/record.sh -b /lab/quarrystat 2 8 /tmp/recording >/dev/null 2>/tmp/record.err
echo "QUARRY-RECORD-STATUS $?"
sed 's/^/QUARRY-RECORD-MESSAGE /' /tmp/record.err
echo "QUARRY-RECORD-CLIENT $client"
sed 's/^/QUARRY-RECORD-BUFFER /' /tmp/slow
echo "QUARRY-RECORD-BEGIN"
tar -czf - -C /tmp recording | base64
echo "QUARRY-RECORD-END"
kill $client
rm -rf /tmp/recording /tmp/slow /tmp/record.err
