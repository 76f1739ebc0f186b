#!/bin/sh
# Runs in the lab guest: starts the DMA-BUF client, runs all five modes of quarrystat and checks
# each against what the kernel itself says (its tables, meminfo, sysfs, the client's record of
# its buffers), not against golden text. Prints "ok ..." / "FAIL ..." lines, each report between
# markers, and a capture of the files the tool read, for the host to replay.
Q=/lab/quarrystat
check() {  # check NAME STATUS
	if [ "$2" = 0 ]; then echo "ok $1"; else echo "FAIL $1"; fi
}
hex() { printf '%d' "$1"; }

/lab/dmabuf_client /tmp/buffers &
client=$!
i=0
while [ ! -f /tmp/buffers ] && [ $i -lt 100 ]; do sleep 0.1; i=$((i + 1)); done
[ -f /tmp/buffers ]
check "client set up its buffers" $?
cat /tmp/buffers

# Live reports first, then the capture, so both see the same buffers and counters.
for args in "-s" "-p 0x8b900000" "-p 0xc0000000" "-k" "-kkernel_init" "-n" "-u"; do
	echo "QUARRY-REPORT-BEGIN $args"
	# shellcheck disable=SC2086  # the arguments are meant to split
	$Q $args 2>/dev/null
	echo "QUARRY-REPORT-END $?"
done
/lab/capture.sh /tmp/capture.tar.gz >/dev/null 2>&1
check "capture made a tarball" $?
# What a capture costs against one run of -u on this board: a figure, not a check (the guest
# is emulated, and its timings move with the host's load). Milliseconds, median of three each.
ms() {
	t=$(date +%s%N 2>/dev/null)
	case $t in
	*N | '') read -r up _ </proc/uptime; echo $(( ${up%.*} * 1000 + 10 * $(echo "${up#*.}" | sed 's/^0//') )) ;;
	*) echo $((t / 1000000)) ;;
	esac
}
median() { printf '%s\n' "$@" | sort -n | sed -n 2p; }
c1='' c2='' c3='' u1='' u2='' u3=''
for i in 1 2 3; do
	s=$(ms); /lab/capture.sh /tmp/cost.tar.gz >/dev/null 2>&1; eval "c$i=\$((\$(ms) - s))"
	s=$(ms); $Q -u >/dev/null 2>&1; eval "u$i=\$((\$(ms) - s))"
done
c=$(median "$c1" "$c2" "$c3") u=$(median "$u1" "$u2" "$u3")
echo "QUARRY-FIGURE capture cost on $(uname -r): a capture $c ms, quarrystat -u $u ms, ratio" \
	"$(awk -v c="$c" -v u="$u" 'BEGIN { if (u > 0) printf "%.1f", c / u; else print "unknown" }')" \
	"(median of three each), $(wc -c </tmp/cost.tar.gz) bytes"
rm -f /tmp/cost.tar.gz
echo "QUARRY-CAPTURE-BEGIN"
base64 /tmp/capture.tar.gz
echo "QUARRY-CAPTURE-END"

# -u: exactly the buffers no process maps, each with the processes that hold it.
$Q -u >/tmp/u.out 2>/dev/null
u_exit=$?
if [ ! -d /sys/kernel/dmabuf/buffers ]; then
	. /lab/checks_bufinfo.sh  # a kernel without the DMA-BUF sysfs statistics
else
check "-u exits 0" $u_exit
awk 'NR > 2 && $2 == "|" { print $1 }' /tmp/u.out | sort >/tmp/u.inodes
# Every exported buffer that no process maps: the client's unmapped ones, nothing else.
awk '$5 == 0 { print $2 }' /tmp/buffers | sort >/tmp/want.inodes
cmp -s /tmp/u.inodes /tmp/want.inodes
check "-u lists exactly the unmapped buffers ($(tr '\n' ' ' </tmp/u.inodes))" $?
while read -r name inode size owners mapped; do
	[ "$mapped" = 0 ] || continue
	row=$(awk -v i="$inode" '$1 == i' /tmp/u.out)
	if [ "$owners" = kernel ]; then
		want="kernel"
	else
		want=""
		for pid in $(echo "$owners" | tr ',' ' '); do
			want="${want}[$pid]$(cat "/proc/$pid/comm") "
		done
	fi
	exporter=$(cat "/sys/kernel/dmabuf/buffers/$inode/exporter_name")
	echo "$row" | grep -qF "| $want" && echo "$row" | grep -q "| *$size | *$exporter |"
	check "-u $name: size $size, exporter $exporter, owner '$want'" $?
done </tmp/buffers
total=$(awk '$5 == 0 { s += int($3 / 1024) } END { print s + 0 }' /tmp/buffers)
grep -q "^Unmapped dmabuf total size is $total KB$" /tmp/u.out
check "-u total $total KB" $?
fi

# -n: the counters as /proc/meminfo has them; this kernel's stacks are vmalloc-backed.
$Q -n >/tmp/n.out 2>/dev/null
check "-n exits 0" $?
for key in Shmem SUnreclaim PageTables VmallocUsed KernelStack; do
	got=$(awk -v k="$key:" '$1 == k { print $2 }' /tmp/n.out)
	want=$(awk -v k="$key:" '$1 == k { print $2 }' /proc/meminfo)
	diff=$((got > want ? got - want : want - got))
	[ -n "$got" ] && [ "$diff" -le 256 ]
	check "-n $key $got (meminfo $want)" $?
done
# The stacks are in VmallocUsed already: the total must not count KernelStack again.
sum=$(awk '/^(Shmem|SUnreclaim|PageTables|VmallocUsed|DMA-BUF unmapped):/ { s += $(NF - 1) }
	END { print s + 0 }' /tmp/n.out)
zcat /proc/config.gz | grep -qx 'CONFIG_VMAP_STACK=y' && ! grep -q 'CONFIG_VMAP_STACK is not set' /tmp/n.out &&
	grep -qx "Kernel Memory total size = $sum KB" /tmp/n.out
check "-n leaves out vmalloc-backed kernel stacks (total $sum KB)" $?
exported=0
for d in /sys/kernel/dmabuf/buffers/*; do [ -d "$d" ] && exported=$((exported + $(cat "$d/size"))); done
[ -d /sys/kernel/dmabuf/buffers ] || exported=$(awk '/^Total [0-9]+ objects,/ { print $4 }' /d/dma_buf/bufinfo)
mapped=$(awk '$5 == 1 { s += int($3 / 1024) } END { print s + 0 }' /tmp/buffers)
want=$((exported / 1024 - mapped))
grep -q "^DMA-BUF unmapped:   $want KB$" /tmp/n.out
check "-n DMA-BUF unmapped $want KB" $?

# -p: each device-tree region, start, middle and last byte; the holes; memblock reserved; HLOS.
while read -r name start size; do
	for a in $start $((start + size / 2)) $((start + size - 1)); do
		ha=$(printf '0x%x' "$a")
		$Q -p "$ha" | grep -q "^$ha is in \[[a-z_-]*\] $name, "
		check "-p $ha in $name" $?
	done
done <<EOF
sec_region $(hex 0x80000000) $(hex 0x200000)
modem_region $(hex 0x8b800000) $(hex 0x6800000)
adsp_region $(hex 0x92000000) $(hex 0xa00000)
gpu_region $(hex 0xa0000000) $(hex 0x400000)
ramoops $(hex 0xb0000000) $(hex 0x100000)
linux,cma $(hex 0xfc000000) $(hex 0x4000000)
camera_cma $(hex 0x8a0000000) $(hex 0x1000000)
EOF
for a in 0xc0000000 0xc00fffff; do
	$Q -p $a | grep -qx "$a is in bp hole"
	check "-p $a in the unmapped hole" $?
done
# The kernel's code is memblock reserved and in no region; 0x880000000 is free memory.
code=$(awk '/Kernel code/ { split($1, r, "-"); print "0x" r[1] }' /proc/iomem)
$Q -p "$code" | grep -qx "$code is in reserved memory"
check "-p $code (kernel code) in reserved memory" $?
$Q -p 0x880000000 | grep -qx "0x880000000 is for HLOS use"
check "-p 0x880000000 for HLOS use" $?
$Q -p 0x100000000 | grep -qx "0x100000000 is not a ddr physical address"
check "-p 0x100000000 outside DDR" $?

# -s: memblock reserved total from the table; holes from the memory table; bp hole is the
# 1 MiB gap that no no-map region covers.
$Q -s >/tmp/s.out 2>/dev/null
check "-s exits 0" $?
mb=0
while read -r _ range _; do
	mb=$((mb + ${range##*..} - ${range%%..*} + 1))
done </d/memblock/reserved
mb=$((mb / 1024))
grep -qx "\[MemblockReserved\] MemblockReservedTotal: size $mb KB" /tmp/s.out
check "-s memblock reserved total $mb KB" $?
holes=0 prev=""
while read -r _ range _; do
	b=$((${range%%..*})) e=$((${range##*..} + 1))
	if [ -n "$prev" ] && [ $b -ne $prev ] && [ $b -ne $((0x80000000)) ] && [ $b -ne $((0x880000000)) ]; then
		holes=$((holes + b - prev))
	fi
	prev=$e
done </d/memblock/memory
holes=$((holes / 1024))
grep -q "^bootloader_memhole($holes KB) = bp hole(1024 KB) + fdt_nomap_inhole($((holes - 1024)) KB)$" /tmp/s.out
check "-s holes $holes KB, bp hole 1024 KB" $?
grep -qx "\[BpHoles\] BpHoles: size 1024 KB" /tmp/s.out
check "-s bp hole line" $?
cma=$(awk '$1 == "CmaTotal:" { print $2 }' /proc/meminfo)
grep -qx "\[MemblockReserved\] CmaTotal: size $cma KB" /tmp/s.out
check "-s CMA total $cma KB as in meminfo" $?
# Kernel code and data as /proc/iomem has them (inclusive ends).
for name in "Kernel code" "Kernel data"; do
	range=$(awk -v n="$name" 'index($0, n) { print $1; exit }' /proc/iomem)
	b=$((0x${range%-*})) e=$((0x${range#*-}))
	grep -qx "\[MemblockReserved\] $name: addr $(printf '0x%x' $b), size $(((e - b + 1) >> 10)) KB" /tmp/s.out
	check "-s $name at 0x${range%-*}" $?
done
# CMA pages in use, per area (4 KB pages; idle areas print no line) and in total.
sum=0 lines=0
for used in /d/cma/*/used; do
	pages=$(cat "$used") area=${used%/used}
	area=${area##*/}
	sum=$((sum + pages))
	[ "$pages" = 0 ] && continue
	grep -qxF "[cma_fix_used] $area: size $((pages * 4)) KB" /tmp/s.out
	check "-s $area uses $((pages * 4)) KB" $?
	lines=$((lines + 1))
done
[ "$(grep -c '^\[cma_fix_used\]' /tmp/s.out)" = $lines ] &&
	grep -qx "\[CmaFixUsedTotal\] size $((sum * 4)) KB" /tmp/s.out
check "-s CMA in use $((sum * 4)) KB" $?

# -k: every published module is found, and the listing is the first column.
$Q -k | sed 's/ *$//' >/tmp/k.out
cut -d'|' -f1 /proc/debug_ext/mem_statis/ko_memory_stat | sed 's/ *$//' | cmp -s - /tmp/k.out
check "-k lists the module table's first column" $?
tail -n +2 /proc/debug_ext/mem_statis/ko_memory_stat >/tmp/ko.table
while IFS= read -r line; do
	m=${line%% *}
	[ "$($Q -k"$m")" = "$line" ]
	check "-k$m prints its table line" $?
done </tmp/ko.table
[ "$($Q -kno_such_part)" = "no_such_part.ko doesn't exit" ]
check "-kno_such_part is not found" $?

# 6.1: -u and -n again with the sysfs statistics hidden, while the same buffers are alive.
[ -d /sys/kernel/dmabuf/buffers ] && . /lab/sysfs_hidden.sh

kill $client
