# Sourced by checks.sh on a kernel without the DMA-BUF sysfs statistics (6.12), with -u's report
# in /tmp/u.out. The kernel's only list of its buffers is the debug file system's table: it
# must hold exactly the client's buffers, and -u, which reports from the sysfs statistics alone,
# must say that it cannot, as on any device without them.
# Zero-padded numbers: busybox awk would read them as octal, so the zeros go as text.
awk '/^[0-9]/ { i = $6; s = $1; sub(/^0+/, "", i); sub(/^0+/, "", s); print i " " s }' \
	/d/dma_buf/bufinfo | sort >/tmp/table.rows
awk '{ print $2 " " $3 }' /tmp/buffers | sort >/tmp/want.rows
cmp -s /tmp/table.rows /tmp/want.rows
check "bufinfo lists exactly the client's buffers and sizes ($(wc -l </tmp/table.rows) rows)" $?
[ "$u_exit" = 0 ] && [ "$(cat /tmp/u.out)" = "Unable to read DMA-BUF sysfs stats from device" ]
check "-u without sysfs statistics prints only the sysfs message" $?
