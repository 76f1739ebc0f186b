# Sourced by checks.sh on a kernel with the DMA-BUF sysfs statistics (6.1): -n and -u once with
# them visible and once with an empty tmpfs mounted over /sys/kernel/dmabuf, in the same boot
# and with the same buffers alive. -n's DMA-BUF figure then comes from the debug file system's
# table and must be the same figure; -u reports from the sysfs statistics only.
$Q -n >/tmp/n.visible 2>/dev/null
$Q -u >/tmp/u.visible 2>/dev/null
if mount -t tmpfs hidden /sys/kernel/dmabuf; then
	[ ! -e /sys/kernel/dmabuf/buffers ]
	check "sysfs statistics hidden under an empty tmpfs" $?
	$Q -n >/tmp/n.hidden 2>/tmp/n.hidden.err
	n_status=$?
	$Q -u >/tmp/u.hidden 2>/dev/null
	u_status=$?
	umount /sys/kernel/dmabuf
else
	check "mount an empty tmpfs over /sys/kernel/dmabuf" 1
fi
visible=$(grep '^DMA-BUF unmapped:' /tmp/n.visible)
hidden=$(grep '^DMA-BUF unmapped:' /tmp/n.hidden)
[ "$n_status" = 0 ] && [ -n "$visible" ] && [ "$visible" = "$hidden" ]
check "-n from bufinfo as from sysfs: '$hidden'" $?
# The five counters are the kernel's moving ones; every other line must be the same.
grep -v -E '^(Shmem|SUnreclaim|PageTables|VmallocUsed|KernelStack|Kernel Memory total size)' /tmp/n.visible >/tmp/n.a
grep -v -E '^(Shmem|SUnreclaim|PageTables|VmallocUsed|KernelStack|Kernel Memory total size)' /tmp/n.hidden >/tmp/n.b
cmp -s /tmp/n.a /tmp/n.b && [ "$(wc -l </tmp/n.visible)" = "$(wc -l </tmp/n.hidden)" ]
check "-n reports agree line for line with sysfs visible and hidden" $?
[ "$u_status" = 0 ] && [ "$(cat /tmp/u.hidden)" = "Unable to read DMA-BUF sysfs stats from device" ] &&
	[ "$(wc -l </tmp/u.visible)" -gt 3 ]
check "-u with sysfs hidden prints only the sysfs message (visible: $(($(wc -l </tmp/u.visible) - 4)) rows)" $?
