#!/usr/bin/env bash
# The device lab: boots an emulated arm64 board with a real Linux kernel and a phone-like
# memory layout, runs all five modes of the given static arm64 quarrystat inside it and checks
# them against the kernel's own files; then replays a capture taken in the guest on this host
# and checks that every report matches what the tool printed live.
#   lab/run.sh [BINARY]      (default build/aarch64/tool/quarrystat)
# Prints "N passed, N failed"; exits non-zero on any failure. The kernel is built once and
# cached (lab/kernel/build.sh VERSION).
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
top=$(dirname "$here")
binary=$(realpath "${1:-$top/build/aarch64/tool/quarrystat}")
cache=${QUARRY_LAB_CACHE:-/var/cache/quarrystat-lab}
"$top/scripts/setup.sh" cross lab

# Every check runs on both lab kernels: 6.1 with the DMA-BUF sysfs statistics, 6.12 without.
[ -n "${QUARRY_LAB_KERNEL:-}" ] || exec "$here/kernels.sh" "$binary"
start=$(date +%s)
image=$("$here/kernel/build.sh" "$QUARRY_LAB_KERNEL")
echo "lab: kernel $image ($(( $(date +%s) - start )) s)"

work=$(mktemp -d)
# QUARRY_LAB_KEEP=1 keeps the guest's console, the capture and the reports for a look afterwards.
if [ "${QUARRY_LAB_KEEP:-0}" = 1 ]; then echo "lab: work directory $work"; else trap 'rm -rf "$work"' EXIT; fi
cd "$work"

# A static arm64 busybox, taken from Debian's package without installing it on the host.
busybox=$cache/busybox-arm64
if [ ! -x "$busybox" ]; then
  chmod 755 "$work"  # apt fetches as its own user
  timeout 300 apt-get download -q busybox-static:arm64 >/dev/null 2>&1 ||
    { timeout 300 apt-get update -qq && timeout 300 apt-get download -q busybox-static:arm64 >/dev/null; }
  dpkg-deb -x busybox-static_*_arm64.deb bb
  cp bb/bin/busybox "$busybox"
fi

mkdir -p root/bin root/lab root/proc root/sys root/dev root/tmp
cp "$busybox" root/bin/busybox
cp "$here/guest/init" root/init
cp "$here/guest/checks.sh" "$here/guest/checks_bufinfo.sh" "$here/guest/sysfs_hidden.sh" "$top/snapshot/capture.sh" root/lab/
cp "$binary" root/lab/quarrystat
# The clients share one helper for their buffers (lab_dmabuf.c).
cc=(aarch64-linux-gnu-gcc -static -O2 -Wall -Wextra -Werror)
"${cc[@]}" -o root/lab/dmabuf_client "$here/guest/dmabuf_client.c" "$here/guest/lab_dmabuf.c"
cp "$here/guest/before_after.sh" "$here/guest/record_leak.sh" "$top/snapshot/record.sh" root/lab/
"${cc[@]}" -o root/lab/leak_client "$here/guest/leak_client.c" "$here/guest/lab_dmabuf.c"
# The motion scenario: a churn client and its checks, run after the still ones.
cp "$here/guest/motion.sh" root/lab/
"${cc[@]}" -o root/lab/churn_client "$here/guest/churn_client.c"
chmod +x root/init root/lab/*
(cd root && find . | cpio -o -H newc --quiet) >initrd.cpio

# QEMU's own device tree with the board's memory layout merged in.
# shellcheck disable=SC2054  # the commas are QEMU's
# 34 GiB of guest address space reaches the second bank; reserve=off leaves it untouched.
qemu=(qemu-system-aarch64 -M virt,memory-backend=ram -cpu cortex-a57 -smp 1 -m 34G
      -object memory-backend-ram,id=ram,size=34G,reserve=off -nic none -display none -monitor none)
timeout 60 "${qemu[@]}" -M virt,dumpdtb=virt.dtb -serial none 2>/dev/null
dtc -q -I dtb -O dts -o virt.dts virt.dtb
# The initramfs sits between the tree and modem_region (no-map, at 0x8b800000): 23 MiB.
initrd_size=$(stat -c %s initrd.cpio)
if [ "$initrd_size" -gt $((0x8b800000 - 0x8a100000)) ]; then
  echo "lab: the initramfs ($initrd_size bytes) does not fit below modem_region; is $binary stripped?" >&2
  exit 1
fi
initrd_end=$(printf '0x%x' $((0x8a100000 + initrd_size)))
sed "s/@INITRD_END@/$initrd_end/" "$here/boot/device.dts.in" >device.dts
dtc -q -I dts -O dtb -o lab.dtb device.dts
aarch64-linux-gnu-as "$here/boot/stub.S" -o stub.o
aarch64-linux-gnu-objcopy -O binary stub.o stub.bin

# Under TCG the guest reaches init in about 0.5 s and is done in about 2 s; five minutes is a hang.
start=$(date +%s)
timeout 300 "${qemu[@]}" -no-reboot -serial file:console.log \
  -device loader,file=stub.bin,addr=0x40400000,cpu-num=0 \
  -device loader,file="$image",addr=0x80200000 \
  -device loader,file=lab.dtb,addr=0x8a000000 \
  -device loader,file=initrd.cpio,addr=0x8a100000 || true
tr -d '\r' <console.log >console.txt
echo "lab: guest booted to init in $(sed -n 's/^QUARRY-LAB-BOOTED //p' console.txt) s (its uptime), ran for $(( $(date +%s) - start )) s"
if ! grep -q QUARRY-LAB-DONE console.txt; then
  tail -40 console.txt
  echo "FAIL the guest did not finish (its console's end is above)"
  echo "$(grep -c '^ok ' console.txt) passed, $(( $(grep -c '^FAIL ' console.txt) + 1 )) failed"
  exit 1
fi

# From here on every failure is counted, not fatal: the summary line must come out.
set +e +o pipefail
passed=$(grep -c '^ok ' console.txt)
failed=$(grep -c '^FAIL ' console.txt)
grep -E '^(ok|FAIL) ' console.txt
grep '^motion: ' console.txt

# Replay the capture on this host and compare each report with the live one.
sed -n '/^QUARRY-CAPTURE-BEGIN$/,/^QUARRY-CAPTURE-END$/p' console.txt | sed '1d;$d' | base64 -d >capture.tar.gz
awk '/^QUARRY-REPORT-BEGIN / { args = substr($0, 21); n++; file = "live." n; print args > ("args." n); next }
     /^QUARRY-REPORT-END / { file = ""; next }
     file != "" { print > file }' console.txt
for args_file in args.*; do
  n=${args_file#args.}
  args=$(cat "$args_file")
  touch "live.$n"
  # shellcheck disable=SC2086
  timeout 120 "$top/snapshot/replay.sh" capture.tar.gz "$binary" $args >"replay.$n" 2>/dev/null
  if [ "$args" = -n ]; then
    # The five counters are a moving kernel's, read at another moment by the capture: they
    # must match the captured /proc/meminfo instead, and everything else the live report.
    tar -xzf capture.tar.gz ./proc/meminfo 2>/dev/null
    for key in Shmem SUnreclaim PageTables VmallocUsed KernelStack; do
      want=$(awk -v k="$key:" '$1 == k { print $2 }' proc/meminfo)
      if grep -qx "$key: $want KB" "replay.$n"; then
        echo "ok replay of quarrystat -n: $key as in the captured meminfo ($want)"; passed=$((passed + 1))
      else
        echo "FAIL replay of quarrystat -n: $key differs from the captured meminfo ($want)"; failed=$((failed + 1))
      fi
    done
    for f in "live.$n" "replay.$n"; do
      sed -E -i 's/^(Shmem|SUnreclaim|PageTables|VmallocUsed|KernelStack): -?[0-9]+ KB$/\1: N KB/
                 s/^(Kernel Memory total size = )-?[0-9]+ KB$/\1N KB/' "$f"
    done
  fi
  if [ "$args" = -u ]; then
    # Rows come in the order sysfs lists the buffers, which a replayed tree cannot reproduce
    # (kernfs orders by a hash of the name): same rows, in any order.
    for f in "live.$n" "replay.$n"; do
      { head -2 "$f"; tail -n +3 "$f" | awk '/ \| /' | sort; tail -n +3 "$f" | awk '!/ \| /'; } >"$f.cmp"
      mv "$f.cmp" "$f"
    done
  fi
  if cmp -s "live.$n" "replay.$n"; then
    echo "ok replay of quarrystat $args matches the live report"
    passed=$((passed + 1))
  else
    echo "FAIL replay of quarrystat $args differs from the live report"
    diff "live.$n" "replay.$n" | head -20
    failed=$((failed + 1))
  fi
done
# Two captures around a use case, compared (QUARRY_LAB_PAIR=DIR keeps them there).
pair=$("$here/before_after.sh" console.txt "$binary" ${QUARRY_LAB_PAIR:+"$QUARRY_LAB_PAIR"})
echo "$pair"
passed=$((passed + $(grep -c '^ok ' <<<"$pair"))) failed=$((failed + $(grep -c '^FAIL ' <<<"$pair")))
# A recording while the client leaks, turned into the report's suspects on this host.
rec=$("$here/record_leak.sh" console.txt "$binary")
echo "$rec"
passed=$((passed + $(grep -c '^ok ' <<<"$rec"))) failed=$((failed + $(grep -c '^FAIL ' <<<"$rec")))
# Two boots of one board on two builds' device trees, compared (one kernel is enough to show it;
# QUARRY_LAB_BUILDS=DIR keeps the pair there).
if [ "$QUARRY_LAB_KERNEL" = 6.1 ]; then
  builds=$("$here/build_over_build.sh" "$image" "$binary" ${QUARRY_LAB_BUILDS:+"$QUARRY_LAB_BUILDS"})
  echo "$builds"
  passed=$((passed + $(grep -c '^ok ' <<<"$builds"))) failed=$((failed + $(grep -c '^FAIL ' <<<"$builds")))
fi
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
