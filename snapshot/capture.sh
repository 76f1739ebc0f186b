#!/bin/sh
# Packs exactly the files quarrystat reads into a gzip'd tarball, for replaying its reports
# elsewhere (snapshot/replay.sh). Runs in a device's root shell (mksh with toybox, or busybox):
#   sh capture.sh [-b BINARY] [--partial] /data/local/tmp/quarry-capture.tar.gz
# Besides the device's files the archive holds ./capture-info: where and when it was taken
# (kernel, model, boot id, uptime and wall clock at the start and the end of the copy) and,
# with -b, the version of the quarrystat binary BINARY.
# Exit status: 0 written; 1 the archive could not be written, or the capture was stopped;
# 2 usage; 3 a file every report needs is missing or empty (each is named on standard error:
# /proc/meminfo for -n; the debug extension's reserved_memory_stat, /d/memblock/memory and
# /d/memblock/reserved for -s; at least one /proc/<pid>/maps for -u). Without root, /d and most
# of /proc cannot be read, so that is what such a run ends with. The incomplete archive is
# removed unless --partial asks to keep it (the status is 3 either way).
# procfs and sysfs files report a size of 0, so each is copied with cat into a staging folder
# first; /proc/meminfo goes first, before the staging files themselves count as memory.
set -u
usage() {
	echo "usage: capture.sh [-b BINARY] [--partial] OUTPUT.tar.gz" >&2
	exit 2
}
binary='' partial=0
while [ $# -gt 0 ]; do
	case $1 in
	-b) [ $# -ge 2 ] || usage; binary=$2; shift 2 ;;
	--partial) partial=1; shift ;;
	--) shift; break ;;
	-?*) usage ;;
	*) break ;;
	esac
done
[ $# = 1 ] && [ -n "$1" ] || usage
out=$1
if [ -n "$binary" ] && [ ! -r "$binary" ]; then
	echo "capture: cannot read the binary $binary" >&2
	exit 2
fi

# One line of device text for capture-info: NULs dropped (the device tree's strings end in
# one), line breaks made spaces, so every key stays on its own line.
one_line() {
	tr -d '\000' | tr '\r\n' '  ' | sed 's/ *$//'
}
now() {  # "UPTIME WALL": the boot clock's seconds (as /proc/uptime prints them), the epoch's
	up=
	[ -r /proc/uptime ] && read -r up _ 2>/dev/null </proc/uptime
	echo "${up:-} $(date +%s 2>/dev/null)"
}
if command -v getprop >/dev/null 2>&1; then
	model=$(getprop ro.product.model 2>/dev/null | one_line)
	fingerprint=$(getprop ro.build.fingerprint 2>/dev/null | one_line)
else
	model='' fingerprint=''
fi
[ -n "$model" ] || model=$(cat /proc/device-tree/model 2>/dev/null | one_line)
release=$(uname -r 2>/dev/null | one_line)
[ -n "$release" ] || release=$(cat /proc/sys/kernel/osrelease 2>/dev/null | one_line)
kversion=$(uname -v 2>/dev/null | one_line)
[ -n "$kversion" ] || kversion=$(cat /proc/version 2>/dev/null | one_line)
boot_id=$(cat /proc/sys/kernel/random/boot_id 2>/dev/null | one_line)
if [ -n "$binary" ]; then
	# The binary embeds "quarrystat version X.Y.Z" between NULs: split it into printable runs
	# (squeezed: sed over a line per byte of a 2 MB binary takes seconds on a slow core).
	binary_version=$(tr -cs 'A-Za-z0-9. _+-' '\n' <"$binary" | grep '^quarrystat version [0-9]' |
		head -n 1 | sed -n 's/^quarrystat version \([0-9][A-Za-z0-9._+-]*\)$/\1/p')
	[ -n "$binary_version" ] || echo "capture: no version text in $binary" >&2
fi

stage=$(mktemp -d "${TMPDIR:-/data/local/tmp}/quarry-capture.XXXXXX" 2>/dev/null || mktemp -d)
# Without a staging folder every copy below would land on the device's own paths.
if [ -z "$stage" ] || [ ! -d "$stage" ]; then
	echo "capture: cannot make a staging folder in ${TMPDIR:-/data/local/tmp}" >&2
	exit 1
fi
# Nothing but the archive stays on the device, however the script ends (a partial one neither).
written=0 packer=
trap 'rm -rf "$stage"; [ $written = 1 ] || rm -f "$out"' EXIT
# A stop while tar packs ends tar too, at once, rather than after it has finished.
trap '[ -z "$packer" ] || { kill -TERM "$packer"; wait "$packer"; } 2>/dev/null; exit 1' HUP INT TERM
copy() {  # copy PATH [AS]: the file's content, under its own path (or AS) in the stage
	dest=$stage${2:-$1}
	mkdir -p "${dest%/*}"
	cat "$1" >"$dest" 2>/dev/null || rm -f "$dest"
}
start=$(now)
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
	# Only a descriptor whose fdinfo has an "exp_name:" line is a DMA-BUF buffer to the tool, so
	# only those are kept: the reports read the same, and a phone's tens of thousands of other
	# descriptors would make the capture, and every replay of it, several times slower.
	mkdir -p "$stage$p/fdinfo"
	for f in $(grep -l 'exp_name:' "$p"/fdinfo/* 2>/dev/null); do
		copy "$f"
	done
done
# An empty buffers folder is a device without buffers; a missing one, a kernel without the folder.
[ -d /sys/kernel/dmabuf/buffers ] && mkdir -p "$stage/sys/kernel/dmabuf/buffers"
end=$(now)
{
	echo "format=1"
	echo "kernel_release=$release"
	echo "kernel_version=$kversion"
	echo "model=$model"
	echo "fingerprint=$fingerprint"
	echo "boot_id=$boot_id"
	echo "uptime_start=${start% *}"
	echo "wall_start=${start#* }"
	echo "uptime_end=${end% *}"
	echo "wall_end=${end#* }"
	[ -z "$binary" ] || echo "binary_version=$binary_version"
} >"$stage/capture-info"

# What every report needs: without these the capture cannot answer -n, -s or -u.
missing=
for f in /proc/meminfo /proc/debug_ext/mem_statis/reserved_memory_stat /d/memblock/memory \
	/d/memblock/reserved; do
	[ -s "$stage$f" ] || missing="$missing $f"
done
maps=0
for f in "$stage"/proc/[0-9]*/maps; do
	[ -s "$f" ] && { maps=1; break; }
done
[ $maps = 1 ] || missing="$missing /proc/<pid>/maps"

tar -czf "$out" -C "$stage" . &
packer=$!
wait "$packer"
status=$?
packer=
if [ $status != 0 ]; then
	exit $status
fi
if [ -n "$missing" ]; then
	for f in $missing; do
		echo "capture: missing or empty: $f" >&2
	done
	if [ $partial = 1 ]; then
		written=1
		echo "capture: kept the incomplete capture $out (--partial)" >&2
	else
		echo "capture: incomplete, not kept (run as root; --partial keeps it)" >&2
	fi
	exit 3
fi
written=1
exit 0
