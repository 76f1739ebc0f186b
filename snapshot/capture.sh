#!/bin/sh
# Packs exactly the files quarrystat reads into a gzip'd tarball, for replaying its reports
# elsewhere (snapshot/replay.sh). Runs in a device's root shell (mksh with toybox, or busybox):
#   sh capture.sh /data/local/tmp/quarry-capture.tar.gz
# procfs and sysfs files report a size of 0, so each is copied with cat into a staging folder
# first; /proc/meminfo goes first, before the staging files themselves count as memory.
set -u
out=${1:?usage: capture.sh OUTPUT.tar.gz}
stage=$(mktemp -d "${TMPDIR:-/data/local/tmp}/quarry-capture.XXXXXX" 2>/dev/null || mktemp -d)
# Nothing but the archive stays on the device, however the script ends (a partial one neither).
written=0
trap 'rm -rf "$stage"; [ $written = 1 ] || rm -f "$out"' EXIT
trap 'exit 1' HUP INT TERM
copy() {  # copy PATH [AS]: the file's content, under its own path (or AS) in the stage
	dest=$stage${2:-$1}
	mkdir -p "${dest%/*}"
	cat "$1" >"$dest" 2>/dev/null || rm -f "$dest"
}
copy /proc/meminfo
copy /proc/config.gz
copy /proc/iomem
copy /proc/debug_ext/mem_statis/reserved_memory_stat
copy /proc/debug_ext/mem_statis/ko_memory_stat
for f in /d/memblock/memory /d/memblock/reserved /d/cma/*/used; do
	[ -e "$f" ] && copy "$f"
done
for f in /sys/kernel/ion/total_heaps_kb /sys/kernel/ion/total_pools_kb; do
	[ -e "$f" ] && copy "$f"
done
# Kernels without the DMA-BUF sysfs statistics list their buffers only in the debug table.
[ -e /d/dma_buf/bufinfo ] && copy /d/dma_buf/bufinfo
for d in /sys/kernel/dmabuf/buffers/*; do
	[ -d "$d" ] || continue
	copy "$d/size"
	copy "$d/exporter_name"
done
[ -r /dev/ion ] && mkdir -p "$stage/dev" && : >"$stage/dev/ion"
for p in /proc/[0-9]*; do
	[ -d "$p" ] || continue
	copy "$p/maps"
	copy "$p/comm"
	# The fd links are not kept: a replayed tree cannot hold links to the buffers themselves.
	# The tool follows them only for descriptors whose fdinfo lacks "ino:" (kernels before 5.14).
	mkdir -p "$stage$p/fdinfo"
	for f in "$p"/fdinfo/*; do
		[ -e "$f" ] && copy "$f"
	done
done
# An empty buffers folder is a device without buffers; a missing one, a kernel without the folder.
[ -d /sys/kernel/dmabuf/buffers ] && mkdir -p "$stage/sys/kernel/dmabuf/buffers"
tar -czf "$out" -C "$stage" .
status=$?
[ $status != 0 ] || written=1
exit $status
