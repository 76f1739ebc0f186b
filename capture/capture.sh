#!/bin/sh
# Captures this device for replaying quarrystat's reports elsewhere (snapshot/replay.sh): the
# files quarrystat reads, as capture/members.txt lists them, in one gzip'd tarball. Runs in a
# device's root shell (mksh with toybox, or busybox), with quarry-capture beside it:
#   sh capture.sh [-b BINARY] [--partial] [--full] /data/local/tmp/quarry-capture.tar.gz
# The copying is quarry-capture's (a program of this project, built for the device): it writes
# the archive straight from the device's files, with no staging folder, in about the time of
# one quarrystat -u. Of each maps file it keeps the lines whose name begins with "/dmabuf", the
# only ones the reports count (--full keeps whole files). The archive's ./capture-info says
# where and when: the model and build fingerprint (getprop, which this script asks; else the
# device tree's model), the kernel and the boot id, the uptime and wall clock at the start and
# the end of the copy; with -b, the version of the quarrystat binary BINARY too.
# Exit status: 0 written; 1 the archive could not be written (the message names the file system
# and its free space), or the capture was stopped; 2 usage, or quarry-capture is missing; 3 a
# file every report needs is missing or empty (each is named on standard error: /proc/meminfo
# for -n; the debug extension's reserved_memory_stat, /d/memblock/memory and
# /d/memblock/reserved for -s; at least one /proc/<pid>/maps for -u). Without root, /d and most
# of /proc cannot be read, so that is what such a run ends with. The incomplete archive is
# removed unless --partial asks to keep it (the status is 3 either way). Only a complete
# archive, or an incomplete one kept by --partial, is ever left behind.
set -u
usage() {
	echo "usage: capture.sh [-b BINARY] [--partial] [--full] OUTPUT.tar.gz" >&2
	exit 2
}
binary='' flags=''
while [ $# -gt 0 ]; do
	case $1 in
	-b) [ $# -ge 2 ] || usage; binary=$2; shift 2 ;;
	--partial | --full) flags="$flags $1"; shift ;;
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
case $0 in */*) here=${0%/*} ;; *) here=. ;; esac
program=$here/quarry-capture
if [ ! -f "$program" ]; then
	echo "capture: quarry-capture is not beside capture.sh ($program): push it from the same archive" >&2
	exit 2
fi
[ -x "$program" ] || chmod 755 "$program" 2>/dev/null
if [ ! -x "$program" ]; then
	echo "capture: cannot run $program (chmod 755 it)" >&2
	exit 2
fi

# What only the shell tells: Android's build properties. The program reads the kernel's release,
# version and boot id itself, and the device tree's model where getprop gives none; it makes
# each value one line. Two processes in all, where a fork costs as much as a small file's copy.
model='' fingerprint=''
if command -v getprop >/dev/null 2>&1; then
	model=$(getprop ro.product.model 2>/dev/null)
	fingerprint=$(getprop ro.build.fingerprint 2>/dev/null)
fi

# The program is this process from here on, so a TERM or INT meant for the capture reaches it:
# it removes the archive it had begun and exits 1.
# shellcheck disable=SC2086
exec "$program" $flags ${binary:+--binary "$binary"} --info "model=$model" \
	--info "fingerprint=$fingerprint" -- "$out"
