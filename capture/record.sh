#!/bin/sh
# Records a series of captures on the device: one capture.sh every INTERVAL seconds, COUNT times
# (0: until stopped), into DIR as capture-0001.tar.gz, capture-0002.tar.gz, ... Each is written
# under a hidden temporary name (.capture-NNNN.tar.gz.part) and renamed once complete, so DIR
# only ever holds complete captures; numbering continues after the captures DIR already has.
# Runs in a device's root shell (mksh with toybox, or busybox), with capture.sh and
# quarry-capture beside it:
#   sh record.sh [-b BINARY] [-m MARGIN_MB] INTERVAL COUNT DIR
# -b is passed on to capture.sh (the binary's version goes into every capture's capture-info).
# Free space: DIR's file system must keep MARGIN_MB (default 64) free, since a phone whose data
# partition fills up starts failing its apps' writes. Before each capture there must be room for
# the margin and the next capture, counted as twice the largest so far (a device's captures
# grow as it runs more processes), or 4 MB before the first one (about ten times a phone-scale
# capture's 0.43 MB: the archive is written straight into DIR, nothing is staged). A capture
# that leaves less than the margin all the same is removed. Either way the recording stops with
# a message.
# Exit status: 0 COUNT captures taken, or stopped by TERM or INT (the capture under way is
# dropped); 2 usage; 4 stopped at the free-space margin; otherwise capture.sh's status
# (1 not written, 3 incomplete: a non-root shell), when a capture fails.
set -u
usage() {
	echo "usage: record.sh [-b BINARY] [-m MARGIN_MB] INTERVAL COUNT DIR" >&2
	exit 2
}
number() {  # number TEXT: true when TEXT is a whole decimal number
	case $1 in '' | *[!0-9]*) return 1 ;; esac
}
binary='' margin_mb=64
while [ $# -gt 0 ]; do
	case $1 in
	-b) [ $# -ge 2 ] || usage; binary=$2; shift 2 ;;
	-m) [ $# -ge 2 ] && number "$2" || usage; margin_mb=$2; shift 2 ;;
	--) shift; break ;;
	-?*) usage ;;
	*) break ;;
	esac
done
[ $# = 3 ] && number "$1" && [ "$1" -gt 0 ] && number "$2" && [ -n "$3" ] || usage
interval=$1 count=$2 dir=$3
case $0 in */*) here=${0%/*} ;; *) here=. ;; esac
capture=$here/capture.sh
[ -r "$capture" ] || { echo "record: capture.sh is not beside record.sh ($capture)" >&2; exit 2; }
mkdir -p "$dir" 2>/dev/null && [ -d "$dir" ] && [ -w "$dir" ] ||
	{ echo "record: cannot write into $dir" >&2; exit 2; }

# Leftovers of a run that was killed outright (KILL leaves no chance to clean up).
rm -f "$dir"/.capture-*.tar.gz.part
strip_zeros() {  # 0042 -> 42: leading zeros would read as octal in some shells' arithmetic
	n=$1
	while :; do case $n in 0?*) n=${n#0} ;; *) break ;; esac; done
	echo "$n"
}
last=0
for f in "$dir"/capture-*.tar.gz; do
	n=${f##*/capture-}
	n=${n%.tar.gz}
	number "$n" || continue
	n=$(strip_zeros "$n")
	[ "$n" -gt "$last" ] && last=$n
done

# mksh's arithmetic is 32-bit: free space is reported up to this many KB (about 1.9 TB), which
# is "plenty" for any margin.
plenty=1999999999
free_kb() {  # free_kb DIR: kilobytes available to DIR's file system, or nothing
	target=$1
	# df -k: "Filesystem 1K-blocks Used Available Use% Mounted-on", where a long device name
	# may put the figures on a line of their own; Available is the third field from the end.
	# shellcheck disable=SC2046
	set -- $(df -k "$target" 2>/dev/null | sed 1d)
	if [ $# -ge 4 ]; then
		eval "avail=\${$(($# - 2))}"
		if number "$avail"; then
			[ ${#avail} -lt 10 ] || avail=$plenty
			echo "$avail"
			return
		fi
	fi
	# Some df builds need a mount table to name the file system; stat -f does not.
	# shellcheck disable=SC2046
	set -- $(stat -f -c '%a %S' "$target" 2>/dev/null)
	[ $# = 2 ] && number "$1" && number "$2" && [ "$2" -ge 1024 ] && [ ${#2} -lt 10 ] || return
	per_block=$(($2 / 1024))
	if [ ${#1} -ge 10 ] || [ "$1" -gt $((plenty / per_block)) ]; then
		echo $plenty
	else
		echo $(($1 * per_block))
	fi
}

child='' tmp='' taken=0
stop() {
	[ -z "$child" ] || { kill -TERM "$child" 2>/dev/null; wait "$child" 2>/dev/null; }
	[ -z "$tmp" ] || rm -f "$tmp"
	echo "record: stopped after $taken captures in $dir" >&2
	exit 0
}
trap stop HUP INT TERM

uptime_cs() {  # the boot clock (/proc/uptime) in hundredths of a second, or nothing
	up=''
	[ -r /proc/uptime ] && read -r up _ 2>/dev/null </proc/uptime
	case $up in
	*.[0-9][0-9]) ;;
	*) return ;;
	esac
	whole=${up%.*}
	# Up to 115 days: hundredths of a second stay within mksh's 32-bit arithmetic.
	case $whole in '' | *[!0-9]* | ????????*) return ;; esac
	echo $(( $(strip_zeros "$whole") * 100 + $(strip_zeros "${up#*.}") ))
}
if [ -n "$(uptime_cs)" ]; then
	now_cs() { uptime_cs; }
else
	# Whole wall seconds only, counted from the recording's start (epoch seconds times 100 do
	# not fit in 32 bits), which begins on a second's edge (at most a second's wait, 20 naps).
	# At a second's resolution two captures can start up to a second closer than INTERVAL.
	wall_base=$(date +%s)
	n=0
	while [ "$(date +%s)" = "$wall_base" ] && [ $n -lt 20 ]; do
		sleep 0.1 2>/dev/null || sleep 1
		n=$((n + 1))
	done
	wall_base=$(date +%s)
	now_cs() { echo $(( ($(date +%s) - wall_base) * 100 )); }
fi

# A sleep without fractions of a second rounds each wait up to the next whole second.
fractions=0
sleep 0.01 2>/dev/null && fractions=1
largest_kb=0 first_kb=4096
started=$(now_cs)
i=0
while [ "$count" = 0 ] || [ "$i" -lt "$count" ]; do
	if [ "$i" -gt 0 ]; then
		# Captures start every INTERVAL seconds from the first, whatever each took.
		wait_cs=$((started + i * interval * 100 - $(now_cs)))
		if [ "$wait_cs" -gt 0 ]; then
			frac=$((wait_cs % 100))
			[ ${#frac} = 2 ] || frac=0$frac
			if [ $fractions = 1 ]; then
				sleep "$((wait_cs / 100)).$frac" &
			else
				sleep $((wait_cs / 100 + 1)) &
			fi
			child=$!
			wait "$child"
			child=
		fi
	fi
	avail=$(free_kb "$dir")
	if [ -z "$avail" ]; then
		echo "record: cannot tell the free space of $dir (df -k, stat -f); stopping" >&2
		exit 4
	fi
	next_kb=$((2 * largest_kb))
	[ "$next_kb" -gt 0 ] || next_kb=$first_kb
	need=$((margin_mb * 1024 + next_kb))
	if [ "$avail" -lt "$need" ]; then
		echo "record: stopping after $taken captures: $avail KB free in $dir, the next capture" \
			"needs $need KB ($margin_mb MB kept free)" >&2
		exit 4
	fi
	i=$((i + 1))
	n=$((last + i))
	while [ ${#n} -lt 4 ]; do n=0$n; done
	name=capture-$n.tar.gz
	tmp=$dir/.$name.part
	sh "$capture" ${binary:+-b "$binary"} "$tmp" &
	child=$!
	wait "$child"
	status=$?
	child=
	if [ $status != 0 ]; then
		rm -f "$tmp"
		echo "record: $name failed (capture.sh exit status $status); stopping after $taken captures" >&2
		exit $status
	fi
	avail=$(free_kb "$dir")
	if [ -n "$avail" ] && [ "$avail" -lt $((margin_mb * 1024)) ]; then
		rm -f "$tmp"
		echo "record: stopping after $taken captures: $name left $avail KB free in $dir, less" \
			"than the $margin_mb MB kept free; it was removed" >&2
		exit 4
	fi
	mv "$tmp" "$dir/$name" || exit 1
	tmp=
	taken=$((taken + 1))
	size=$(wc -c <"$dir/$name" 2>/dev/null)
	size=$(( (${size:-0} + 1023) / 1024 ))
	[ "$size" -gt "$largest_kb" ] && largest_kb=$size
	echo "record: $name" >&2
done
echo "record: $taken captures in $dir" >&2
exit 0
