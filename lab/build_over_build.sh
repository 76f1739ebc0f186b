#!/usr/bin/env bash
# Build over build: boots the lab board twice, as two builds of one device would boot it. The
# second build's device tree makes modem_region 2 MiB smaller (the boot loader hands the freed
# 2 MiB back to the memory node) and adds an 8 MiB no-map npu_region (cut out of the memory
# node); everything else is the same tree, kernel and initramfs. Each boot takes one capture;
# on this host snapshot/compare.sh and report.py --json must name exactly those two regions and
# the two memory-table changes, and no other reserved region.
#   lab/build_over_build.sh IMAGE BINARY [SAVE_DIR]   (SAVE_DIR keeps build1.tar.gz,
#                                                     build2.tar.gz and compare.out)
# BINARY is the host quarrystat that replays the captures (the guest only captures). Prints
# "ok ..." / "FAIL ..." lines.
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
top=$(dirname "$here")
image=$1 binary=$(realpath "$2") save=${3:-}
cache=${QUARRY_LAB_CACHE:-/var/cache/quarrystat-lab}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
check() {  # check NAME STATUS
  if [ "$2" = 0 ]; then echo "ok $1"; else echo "FAIL $1"; fi
}
cd "$work" || exit 1

busybox=$cache/busybox-arm64
if [ ! -x "$busybox" ]; then  # run.sh caches it; without that run, fetched here once
  chmod 755 "$work"
  timeout 300 apt-get download -q busybox-static:arm64 >/dev/null 2>&1 &&
    dpkg-deb -x busybox-static_*_arm64.deb bb && busybox=$work/bb/bin/busybox
fi
# The device's own capture.sh and the arm64 capture program beside it, as lab/run.sh gives them.
capture=$top/capture/capture.sh
program=$(realpath "${QUARRY_LAB_CAPTURE:-$(dirname "$binary")/../capture/quarry-capture}")
mkdir -p root/bin root/lab root/proc root/sys root/dev root/tmp
cp "$busybox" root/bin/busybox &&
  cp "$here/guest/build_init" root/init && cp "$here/guest/getprop" root/bin/getprop &&
  cp "$capture" root/lab/capture.sh && aarch64-linux-gnu-strip -o root/lab/quarry-capture "$program" &&
  chmod +x root/init root/bin/getprop root/lab/capture.sh root/lab/quarry-capture
check "builds: the guest's root is made" $? || exit 0
(cd root && find . | cpio -o -H newc --quiet) >initrd.cpio

# shellcheck disable=SC2054  # the commas are QEMU's
qemu=(qemu-system-aarch64 -M virt,memory-backend=ram -cpu cortex-a57 -smp 1 -m 34G
      -object memory-backend-ram,id=ram,size=34G,reserve=off -nic none -display none -monitor none)
timeout 60 "${qemu[@]}" -M virt,dumpdtb=virt.dtb -serial none 2>/dev/null
dtc -q -I dtb -O dts -o virt.dts virt.dtb
initrd_end=$(printf '0x%x' $((0x8a100000 + $(stat -c %s initrd.cpio))))
sed -e "s/@INITRD_END@/$initrd_end/" -e 's/rdinit=\/init"/rdinit=\/init quarry.build=1"/' \
  "$here/boot/device.dts.in" >build1.dts
# The second build: modem_region 0x6800000 -> 0x6600000 bytes, its last 2 MiB memory again;
# npu_region at 0xc0100000, cut from the front of the memory range that started there (the
# 1 MiB hole before it stays uncovered, so the bp hole keeps its size).
sed -e 's/rdinit=\/init quarry.build=1"/rdinit=\/init quarry.build=2"/' \
    -e 's/<0x0 0x8b800000 0x0 0x6800000>/<0x0 0x8b800000 0x0 0x6600000>/' \
    -e 's/<0x0 0x92600000 0x0 0x2da00000>,/<0x0 0x91e00000 0x0 0x200000>, <0x0 0x92600000 0x0 0x2da00000>,/' \
    -e 's/<0x0 0xc0100000 0x0 0x3ff00000>,/<0x0 0xc0900000 0x0 0x3f700000>,/' \
    -e 's/^\t\tramoops@b0000000 {/\t\tnpu_region@c0100000 {\n\t\t\treg = <0x0 0xc0100000 0x0 0x800000>;\n\t\t\tno-map;\n\t\t};\n&/' \
    build1.dts >build2.dts
aarch64-linux-gnu-as "$here/boot/stub.S" -o stub.o && aarch64-linux-gnu-objcopy -O binary stub.o stub.bin
for n in 1 2; do
  dtc -q -I dts -O dtb -o "build$n.dtb" "build$n.dts" || { check "builds: device tree $n compiles" 1; exit 0; }
  # Under TCG the guest is done in a few seconds; two minutes is a hang.
  timeout 120 "${qemu[@]}" -no-reboot -serial "file:console$n.log" \
    -device loader,file=stub.bin,addr=0x40400000,cpu-num=0 \
    -device loader,file="$image",addr=0x80200000 \
    -device loader,file="build$n.dtb",addr=0x8a000000 \
    -device loader,file=initrd.cpio,addr=0x8a100000 >/dev/null 2>&1
  tr -d '\r' <"console$n.log" >"console$n.txt"
  sed -n '/^QUARRY-BUILD-BEGIN$/,/^QUARRY-BUILD-END$/p' "console$n.txt" | sed '1d;$d' |
    base64 -d >"build$n.tar.gz" 2>/dev/null
  grep -q '^QUARRY-BUILD-CAPTURED 0$' "console$n.txt" && [ -s "build$n.tar.gz" ]
  check "builds: build $n booted and took a capture" $? ||
    { grep '^QUARRY-BUILD-LOG ' "console$n.txt"; tail -20 "console$n.txt"; exit 0; }
done

timeout 300 "$top/snapshot/compare.sh" build1.tar.gz build2.tar.gz "$binary" >compare.out 2>compare.err
check "builds: compare exits 0, warning about nothing" "$(( $? + $(wc -c <compare.err) ))" || cat compare.err
[ -z "$save" ] || cp build1.tar.gz build2.tar.gz compare.out "$save/"
grep -qx 'compare: one board (quarry lab board), two builds: quarry/lab_board/lab:6.1/LAB.1/1:userdebug/test-keys -> quarry/lab_board/lab:6.1/LAB.2/2:userdebug/test-keys' compare.out
check "builds: compare names one board and its two builds" $?
cat >want <<'EOF'
reserved region [fdt_no-map] modem_region resized: 106496 KB -> 104448 KB (-2048 KB)
reserved region [fdt_no-map] npu_region added: 0xc0100000, 8192 KB
reserved memory table added: 0x91e00000..0x91ffffff (+2048 KB)
reserved memory table cut: 0xc0100000..0xffffffff -> 0xc0900000..0xffffffff (-8192 KB)
EOF
grep -E '^reserved (region|figure|memory table) ' compare.out | diff want - >diff.out
check "builds: compare names modem_region smaller, npu_region added, the memory table's two changes, nothing else" $? ||
  cat diff.out
grep -qx 'reserved fdt_nomap: 122880 KB -> 129024 KB (+6144 KB)' compare.out &&
  grep -qx 'reserved bp hole: 1024 KB -> 1024 KB (+0 KB)' compare.out
check "builds: the summary's no-map total up by 6144 KB, the bp hole unchanged" $? || grep '^reserved ' compare.out

timeout 300 /usr/bin/python3 "$top/snapshot/report.py" --binary "$binary" --json report.json -o report.html \
  build1.tar.gz build2.tar.gz 2>report.err
check "builds: report.py makes the pair's page and JSON" $? || cat report.err
/usr/bin/python3 - report.json <<'EOF'
import json, sys
doc = json.load(open(sys.argv[1]))
got = [(r["kind"], r["name"], r["change"], r["before"], r["after"], r["change_bytes"] // 1024)
       for r in doc["facts"]["regions"] if r["change"] != "unchanged"]
at = lambda start, kb: {"start": "0x%016x" % start, "end": "0x%016x" % (start + kb * 1024), "size_bytes": kb * 1024}
want = [("fdt_no-map", "modem_region", "resized", at(0x8b800000, 106496), at(0x8b800000, 104448), -2048),
        ("fdt_no-map", "npu_region", "added", None, at(0xc0100000, 8192), 8192)]
memory = [(m["change"], m["change_bytes"] // 1024) for m in doc["facts"]["memory"]]
ok = got == want and memory == [("added", 2048), ("cut", -8192)] and doc["board"]["same"]
print("ok" if ok else "FAIL", "builds: the JSON's facts name the same two regions and memory changes")
if not ok:
    print(got, memory, doc["board"])
EOF
