#!/usr/bin/env bash
# Tests of the user's capture and snapshot scripts (capture/, snapshot/): capture under mksh,
# replay of a hostile capture, and compare on the lab's before/after pair.
#   snapshot_test.sh BINARY CASE
# The capture program is QUARRY_CAPTURE (default: quarry-capture of BINARY's build).
# Cases: compare-lab-pair, compare-builds, compare-same, compare-unreadable, compare-device-text,
# compare-binary, truncated, hostile, hostile-names, hostile-root, bounds, time-bound, series, stop-unpack,
# capture-mksh, capture-info, capture-incomplete, record-mksh, record-low-space, capture-slim,
# capture-full-disk, capture-stop, capture-live, device-archive.
source "$(dirname "$0")/../case.sh"
program=$(realpath "${QUARRY_CAPTURE:-$(dirname "$binary")/../capture/quarry-capture}")
pair=tests/data/pair
# A sanitizer build of the program cannot run in a device root: the sanitizers read their options
# and stop the process for the leak check through its own /proc entries, which a device tree's
# /proc does not have (in a chroot a process of a pid not known beforehand). Those cases skip;
# capture-live runs such a build on this machine's own /proc.
static_program() {
  if ldd "$program" >/dev/null 2>&1; then
    echo "skip $case_name: $program is dynamically linked (a sanitizer build); see capture-live"
    exit 77
  fi
}
# device_root DIR: a root laid out like the sample device, with mksh as its sh and the busybox
# tools a device's shell has, for running capture.sh and record.sh as a device does.
device_root() {
  mkdir -p "$1/bin" "$1/dev" "$1/data/local/tmp" "$1/out"
  cp -a sample/device/. "$1/"
  cp /usr/lib/klibc/bin/mksh "$1/bin/mksh"
  ln -s mksh "$1/bin/sh"
  cp /bin/busybox "$1/bin/busybox"
  for tool in cat mkdir mktemp rm tar gzip tr sed grep head uname date df stat sleep mv wc kill; do
    ln -s busybox "$1/bin/$tool"
  done
  mknod -m 666 "$1/dev/null" c 1 3
  cp capture/capture.sh capture/record.sh "$1/"
  add_program "$1"
}
# add_program ROOT: the capture program at ROOT/quarry-capture, with the shared libraries of a
# dynamically linked build (the sanitizer one) at their own paths in ROOT.
add_program() {
  cp "$program" "$1/quarry-capture"
  ldd "$program" >/dev/null 2>&1 || return 0
  ldd "$program" | grep -o '/[^ ]*' | while read -r lib; do
    mkdir -p "$1$(dirname "$lib")"
    cp -L "$lib" "$1$lib"
  done
}
# info ARCHIVE KEY: the value of KEY in the capture's capture-info
info() { tar -xzOf "$1" ./capture-info | sed -n "s/^$2=//p"; }

case $case_name in
compare-lab-pair)
  # Two lab captures around leak_client's use case (lab/before_after.sh), compared as a user
  # would; the expected text is the comparison the lab itself checked when they were taken.
  snapshot/compare.sh $pair/before.tar.gz $pair/after.tar.gz "$binary" >"$work/out" 2>"$work/err" ||
    fail "exit status $?: $(cat "$work/err")"
  diff -u $pair/compare.out "$work/out" || fail "output differs from $pair/compare.out"
  ;;
compare-builds)
  # Two lab boots of one board on two builds (lab/build_over_build.sh): modem_region 2 MB
  # smaller, npu_region added, the memory table changed to match; compared as a user would.
  builds=tests/data/builds
  snapshot/compare.sh $builds/build1.tar.gz $builds/build2.tar.gz "$binary" >"$work/out" 2>"$work/err" ||
    fail "exit status $?: $(cat "$work/err")"
  [ -s "$work/err" ] && fail "warned: $(cat "$work/err")"
  diff -u $builds/compare.out "$work/out" || fail "output differs from $builds/compare.out"
  ;;
compare-same)
  # A capture against itself: no buffer lines, every figure +0.
  snapshot/compare.sh $pair/after.tar.gz $pair/after.tar.gz "$binary" >"$work/out" 2>&1 || fail "exit status $?"
  grep -E '^dmabuf [0-9]+ ' "$work/out" && fail "buffer lines for an unchanged device"
  [ "$(grep -cE '^(dmabuf|kmem|reserved) .*\(\+0 KB\)$' "$work/out")" = 17 ] || fail "not 17 unchanged figures: $(cat "$work/out")"
  ;;
compare-unreadable)
  # Not a capture: a clear message and a non-zero status, no comparison.
  echo "not gzip" >"$work/bad.tar.gz"
  snapshot/compare.sh "$work/bad.tar.gz" $pair/after.tar.gz "$binary" >"$work/out" 2>"$work/err"
  status=$?
  [ $status = 2 ] || fail "exit status $status, not 2"
  grep -q "^compare: cannot replay $work/bad.tar.gz (status 2): cannot unpack $work/bad.tar.gz" "$work/err" &&
    [ "$(wc -l <"$work/err")" = 1 ] || fail "messages: $(cat "$work/err")"
  [ -s "$work/out" ] && fail "printed a comparison"
  ;;
hostile)
  # A capture that reaches for this host: device nodes at paths the tool reads (its /dev/zero and
  # /dev/urandom), a FIFO, links out of the capture, a name that climbs out, a hard link out.
  escape="quarry-escape-$$"
  /usr/bin/python3 - "$pair/after.tar.gz" "$work/hostile.tar.gz" "$escape" <<'EOF'
import io, sys, tarfile
src, dst, escape = sys.argv[1:]
bad = {"./proc/meminfo", "./d/memblock/reserved", "./proc/iomem", "./proc/1/comm",
       "./proc/debug_ext/mem_statis/reserved_memory_stat"}
with tarfile.open(src) as tin, tarfile.open(dst, "w:gz") as tout:
    for m in tin:
        if m.name not in bad:
            tout.addfile(m, tin.extractfile(m) if m.isreg() else None)
    def add(name, kind, **kw):
        t = tarfile.TarInfo(name); t.type = kind
        for k, v in kw.items(): setattr(t, k, v)
        tout.addfile(t)
    add("./proc/meminfo", tarfile.CHRTYPE, devmajor=1, devminor=9)
    add("./d/memblock/reserved", tarfile.CHRTYPE, devmajor=1, devminor=5)
    add("./dev/sda", tarfile.BLKTYPE, devmajor=8, devminor=0)
    add("./proc/debug_ext/mem_statis/reserved_memory_stat", tarfile.FIFOTYPE)
    add("./proc/iomem", tarfile.SYMTYPE, linkname="/etc/passwd")
    add("./sys/kernel/dmabuf/up", tarfile.SYMTYPE, linkname="../../../../../../..")
    add("./sys/kernel/dmabuf/up/etc/evil", tarfile.SYMTYPE, linkname="x")
    add("./proc/1/comm", tarfile.LNKTYPE, linkname="/etc/passwd")
    t = tarfile.TarInfo("../" + escape); t.size = 2
    tout.addfile(t, io.BytesIO(b"x\n"))
EOF
  start=$(date +%s)
  snapshot/replay.sh "$work/hostile.tar.gz" "$binary" -s >"$work/out" 2>"$work/err"
  status=$?
  [ $status = 3 ] || fail "replay exit status $status, not 3 (refused)"
  [ -s "$work/out" ] && fail "the tool ran on a refused capture"
  for want in "./proc/meminfo: character device" "./d/memblock/reserved: character device" \
    "./dev/sda: block device" "./proc/debug_ext/mem_statis/reserved_memory_stat: FIFO" \
    "./proc/iomem: link to /etc/passwd, outside the capture" \
    "./sys/kernel/dmabuf/up: link to ../../../../../../.., outside the capture" \
    "./sys/kernel/dmabuf/up/etc/evil: its path runs through a link" \
    "./proc/1/comm: hard link to /etc/passwd, not a file of the capture" \
    "../$escape: its name leaves the capture"; do
    grep -qxF "replay: dropped $want" "$work/err" || fail "no message for $want: $(cat "$work/err")"
  done
  grep -q "^replay: refusing .*--drop-unsafe replays it without them$" "$work/err" || fail "no refusal message"
  # Dropped, the rest replays: each mode ends (the sources it lacks give their usual statuses).
  for mode in -s -n -u -p80000000; do
    snapshot/replay.sh --drop-unsafe "$work/hostile.tar.gz" "$binary" $mode >"$work/out" 2>"$work/err"
    status=$?
    case $mode in -s | -p80000000) want=239 ;; *) want=0 ;; esac
    [ $status = $want ] || fail "--drop-unsafe $mode: exit status $status, not $want: $(tail -3 "$work/err")"
    [ $mode != -u ] || grep -q "^Unmapped dmabuf total size is" "$work/out" || fail "-u without its total"
  done
  [ $(($(date +%s) - start)) -lt 60 ] || fail "took $(($(date +%s) - start)) s"
  [ -e "/tmp/$escape" ] && { rm -f "/tmp/$escape"; fail "a member was written outside the capture"; }
  [ -e /etc/evil ] && fail "a link was made outside the capture"
  ;;
hostile-root)
  # Nothing of a capture runs: a preload file with its library, an entry named quarrystat, a
  # planted floor for the emulator. Each is refused, dropped by --drop-unsafe, and harmless even
  # in a tree that holds it (the tool runs from a root of its own).
  marker=$work/marker
  cat >"$work/libx.c" <<'C'
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>
/* What a capture's library would do as root: say so, leave the chroot, write on the host. */
__attribute__((constructor)) static void run(void)
{
    puts("PRELOADED");
    fflush(stdout);
    if (chroot("/proc") == 0)
        for (int i = 0; i < 64; i++)
            if (chdir("..") != 0)
                break;
    if (chroot(".") != 0)
        return;
    int fd = open(MARKER, O_CREAT | O_WRONLY, 0644);
    if (fd >= 0)
        close(fd);
}
C
  cc -shared -fPIC -DMARKER="\"$marker\"" -o "$work/libx.so" "$work/libx.c" || fail "cannot build the library"
  # A dynamically linked tool: this build when it is one (the sanitizer build), else a stand-in.
  dyn=$binary
  if ! ldd "$binary" >/dev/null 2>&1; then
    printf '#include <stdio.h>\nint main(void) { puts("dynamic"); return 0; }\n' |
      cc -x c - -o "$work/dyn" || fail "cannot build a dynamic program"
    dyn=$work/dyn
  fi
  # The arm64 tool under the emulator: the aarch64 build when there is one, else a stand-in.
  arm=$top/build/aarch64/tool/quarrystat
  if [ ! -x "$arm" ]; then
    printf '#include <stdio.h>\nint main(void) { puts("arm64"); return 0; }\n' |
      aarch64-linux-gnu-gcc -static -x c - -o "$work/arm" || fail "cannot build an arm64 program"
    arm=$work/arm
  fi
  /usr/bin/python3 - "$pair/after.tar.gz" "$work" "$work/libx.so" <<'PY'
import io, sys, tarfile
src, work, lib = sys.argv[1:]
with open(lib, "rb") as f:
    lib = f.read()
def file(name, data):
    t = tarfile.TarInfo(name); t.size = len(data); t.mode = 0o755
    return t, io.BytesIO(data)
def folder(name):
    t = tarfile.TarInfo(name); t.type = tarfile.DIRTYPE; t.mode = 0o755
    return t, None
def link(name, target):
    t = tarfile.TarInfo(name); t.type = tarfile.SYMTYPE; t.linkname = target
    return t, None
extra = {
    "preload": [file("./etc/ld.so.preload", b"/lib/libx.so\n"), file("./lib/libx.so", lib),
                folder("./quarrystat"), file("./quarrystat/x", b"x\n")],
    "link": [link("./quarrystat", "proc/meminfo")],
    "floor": [file("./proc/sys/vm/mmap_min_addr", b"18446744073709547520\n")],
}
for name, members in extra.items():
    with tarfile.open(src) as tin, tarfile.open(f"{work}/{name}.tar.gz", "w:gz") as tout:
        for m in tin:
            tout.addfile(m, tin.extractfile(m) if m.isreg() else None)
        for m, data in members:
            tout.addfile(m, data)
PY
  check_replay() {  # check_replay NAME BINARY DROPPED...: refused naming them; dropped, replays as the pair
    local name=$1 bin=$2 status; shift 2
    snapshot/replay.sh "$work/$name.tar.gz" "$bin" -n >"$work/out" 2>"$work/err"
    status=$?
    [ $status = 3 ] || fail "$name: exit status $status, not 3: $(cat "$work/err")"
    for want in "$@"; do
      grep -qF "replay: dropped $want: " "$work/err" || fail "$name: $want not named: $(cat "$work/err")"
    done
    [ -s "$work/out" ] && fail "$name: the tool ran on a refused capture"
    snapshot/replay.sh "$pair/after.tar.gz" "$bin" -n >"$work/want" 2>/dev/null
    QUARRY_REPLAY_SECONDS=30 snapshot/replay.sh --drop-unsafe "$work/$name.tar.gz" "$bin" -n >"$work/out" 2>"$work/err"
    status=$?
    [ $status = 0 ] || fail "$name --drop-unsafe: exit status $status: $(tail -2 "$work/err")"
    diff -u "$work/want" "$work/out" >&2 || fail "$name --drop-unsafe: not the pair's report"
  }
  check_replay preload "$dyn" ./etc/ld.so.preload ./lib/libx.so ./quarrystat/ ./quarrystat/x
  check_replay link "$dyn" ./quarrystat
  check_replay floor "$arm" ./proc/sys/vm/mmap_min_addr
  # The same files in a tree the tool runs on in place, past the unpacking's check.
  mkdir -p "$work/tree" "$work/mnt"
  tar -xzf "$work/preload.tar.gz" -C "$work/tree"
  tar -xzf "$work/floor.tar.gz" -C "$work/tree" ./proc/sys
  for bin in "$dyn" "$arm"; do
    snapshot/replay.sh "$pair/after.tar.gz" "$bin" -n >"$work/want" 2>/dev/null
    QEMU= ; [ "$bin" = "$arm" ] && QEMU=/usr/bin/qemu-aarch64-static
    QEMU=$QEMU timeout 60 unshare -m bash -c 'mount -t tmpfs -o nodev,nosuid x "$1" && cp -a "$2" "$1/tree" &&
      scripts/run-in-tree.sh --in-place "$1/tree" "$3" -n' run "$work/mnt" "$work/tree" "$bin" \
      >"$work/out" 2>"$work/err"
    status=$?
    [ $status = 0 ] || fail "in place, $bin: exit status $status: $(tail -2 "$work/err")"
    diff -u "$work/want" "$work/out" >&2 || fail "in place, $bin: not the pair's report"
  done
  [ -e "$marker" ] && fail "the capture's library ran and wrote on the host"
  ;;
bounds)
  # What a capture makes the host do is bounded by what a device writes: a comm past its 64
  # bytes is refused; a report past the output bound is stopped and refused (status 5) by replay,
  # compare and report.py; a number no device prints makes a report malformed, said in one line.
  /usr/bin/python3 - "$pair/after.tar.gz" "$work" <<'PY'
import io, sys, tarfile
src, work = sys.argv[1:]
ones = b"1" * 5000
changes = {
    "comm": {"./proc/488/comm": b"x" * (1 << 20) + b"\n"},
    "digits": {"./proc/debug_ext/mem_statis/reserved_memory_stat": None},
}
for name, new in changes.items():
    with tarfile.open(src) as tin, tarfile.open(f"{work}/{name}.tar.gz", "w:gz") as tout:
        for m in tin:
            data = tin.extractfile(m).read() if m.isreg() else None
            if m.name in new:
                data = new[m.name] or data.replace(b"fdt_reserved total: size 1024 KB",
                                                   b"fdt_reserved total: size " + ones + b" KB")
                m.size = len(data)
            tout.addfile(m, io.BytesIO(data) if data is not None else None)
PY
  snapshot/replay.sh "$work/comm.tar.gz" "$binary" -u >"$work/out" 2>"$work/err"
  status=$?
  [ $status = 3 ] || fail "1 MB comm: exit status $status, not 3"
  grep -qxF "replay: dropped ./proc/488/comm: 1048577 bytes, more than a capture holds there (64)" "$work/err" ||
    fail "1 MB comm: $(head -c 300 "$work/err")"
  mkdir "$work/reports"
  check() {  # check STATUS MESSAGE COMMAND...: the status, the message, nothing on standard output
    local want=$1 message=$2 status; shift 2
    "$@" >"$work/out" 2>"$work/err"
    status=$?
    [ $status = "$want" ] || fail "$*: exit status $status, not $want: $(cat "$work/err")"
    grep -qF "$message" "$work/err" || fail "$*: $(cat "$work/err")"
    grep -q Traceback "$work/err" && fail "$*: a traceback"
    [ -s "$work/out" ] && fail "$*: printed $(head -3 "$work/out")"
    return 0
  }
  export QUARRY_REPLAY_OUTPUT=300
  too_much="replay: refusing $(realpath $pair/after.tar.gz): its -u report passed 300 bytes of output"
  check 5 "$too_much" snapshot/replay.sh --reports "$work/reports" $pair/after.tar.gz "$binary"
  # One report to a file: what the file holds stops at the bound.
  snapshot/replay.sh $pair/after.tar.gz "$binary" -u >"$work/out" 2>"$work/err"
  status=$?
  [ $status = 5 ] && grep -qF "replay: refusing $(realpath $pair/after.tar.gz): its report passed 300 bytes" "$work/err" ||
    fail "one report: exit status $status: $(cat "$work/err")"
  [ "$(stat -c %s "$work/out")" -le 300 ] || fail "one report: $(stat -c %s "$work/out") bytes written"
  check 5 "compare: cannot replay $pair/after.tar.gz (status 5): its -u report passed 300 bytes" \
    snapshot/compare.sh $pair/after.tar.gz $pair/before.tar.gz "$binary"
  [ "$(wc -l <"$work/err")" = 1 ] || fail "compare: $(cat "$work/err")"
  check 5 "report.py: after.tar.gz: refused (status 5): its -u report passed 300" \
    snapshot/report.py --binary "$binary" --json "$work/r.json" $pair/after.tar.gz
  [ "$(wc -l <"$work/err")" = 1 ] || fail "report.py: $(cat "$work/err")"
  unset QUARRY_REPLAY_OUTPUT
  check 2 "compare: cannot read $work/digits.tar.gz: its -s report is malformed: a number of 5000 digits" \
    snapshot/compare.sh $pair/before.tar.gz "$work/digits.tar.gz" "$binary"
  [ "$(wc -l <"$work/err")" = 1 ] || fail "compare: $(cat "$work/err")"
  check 2 "report.py: digits.tar.gz: refused (status 2): its -s report is malformed: a number of 5000 digits" \
    snapshot/report.py --binary "$binary" --json "$work/r.json" "$work/digits.tar.gz"
  [ "$(wc -l <"$work/err")" = 1 ] || fail "report.py: $(cat "$work/err")"
  [ -e "$work/r.json" ] && fail "report.py wrote a refused report"
  ;;
compare-device-text)
  # The lab pair with an exporter named "a|b" and a holder whose name retitles and clears a
  # terminal: the facts keep their columns and the escape bytes arrive as text.
  /usr/bin/python3 - "$pair/after.tar.gz" "$work/after.tar.gz" <<'PY'
import io, sys, tarfile
src, dst = sys.argv[1:]
new = {"./sys/kernel/dmabuf/buffers/9/exporter_name": b"a|b\n",
       "./sys/kernel/dmabuf/buffers/11/exporter_name": "c\u009b2J\u202eb\u2066\n".encode(),
       "./proc/488/comm": b"evil\x1b]0;pwned\x07\x1b[2J\n"}
with tarfile.open(src) as tin, tarfile.open(dst, "w:gz") as tout:
    for m in tin:
        data = tin.extractfile(m).read() if m.isreg() else None
        if m.name in new:
            data = new[m.name]; m.size = len(data)
        tout.addfile(m, io.BytesIO(data) if data is not None else None)
PY
  snapshot/compare.sh $pair/before.tar.gz "$work/after.tar.gz" "$binary" >"$work/out" 2>"$work/err" ||
    fail "exit status $?: $(cat "$work/err")"
  grep -qxF 'dmabuf 9 became unmapped: 131072 bytes, a|b, held by [488]evil\x1b]0;pwned\x07\x1b[2J' "$work/out" ||
    fail "$(cat -v "$work/out")"
  grep -qxF 'dmabuf 11 became unmapped: 262144 bytes, c\u009b2J\u202eb\u2066, held by [488]evil\x1b]0;pwned\x07\x1b[2J' "$work/out" ||
    fail "$(cat -v "$work/out")"
  grep -q $'\x1b\|\x07\|\u009b\|\u202e\|\u2066' "$work/out" "$work/err" && fail "a control character reached the terminal"
  ;;
truncated)
  # A capture cut short (a download stopped midway) is refused as such, by replay and compare.
  size=$(stat -c %s $pair/after.tar.gz)
  head -c $((size / 2)) $pair/after.tar.gz >"$work/cut.tar.gz"
  snapshot/replay.sh "$work/cut.tar.gz" "$binary" -n >"$work/out" 2>"$work/err"
  status=$?
  [ $status = 4 ] || fail "replay exit status $status, not 4: $(cat "$work/err")"
  grep -q "^replay: .*cut.tar.gz is truncated" "$work/err" || fail "message: $(cat "$work/err")"
  [ -s "$work/out" ] && fail "the tool ran on a truncated capture"
  snapshot/compare.sh $pair/before.tar.gz "$work/cut.tar.gz" "$binary" >"$work/out" 2>"$work/err"
  status=$?
  [ $status = 4 ] || fail "compare exit status $status, not 4"
  grep -q "^compare: cannot replay $work/cut.tar.gz (status 4): .*truncated" "$work/err" &&
    [ "$(wc -l <"$work/err")" = 1 ] || fail "message: $(cat "$work/err")"
  [ -s "$work/out" ] && fail "compare printed facts of a truncated capture"
  ;;
compare-binary)
  # A binary that cannot run here is named once, before any capture is touched, with status 2.
  check() {  # check WANT-MESSAGE COMMAND...
    local want=$1; shift
    "$@" >"$work/out" 2>"$work/err"
    local status=$?
    [ $status = 2 ] || fail "$* : exit status $status, not 2"
    { [ "$want" = usage: ] || [ "$(wc -l <"$work/err")" = 1 ]; } && grep -qF "$want" "$work/err" ||
      fail "$*: $(cat "$work/err")"
    [ -s "$work/out" ] && fail "$*: printed $(cat "$work/out")"
    return 0
  }
  for script in compare.sh replay.sh; do
    args=($pair/before.tar.gz $pair/after.tar.gz)
    [ $script = replay.sh ] && args=($pair/before.tar.gz)
    check "no such binary: $work/nope" snapshot/$script "${args[@]}" "$work/nope"
    # An arm64 program where the emulator is missing (an ELF header is all file(1) reads).
    printf '\177ELF\2\1\1\0\0\0\0\0\0\0\0\0\2\0\267\0\1\0\0\0' >"$work/arm64"
    head -c 40 /dev/zero >>"$work/arm64"
    chmod 755 "$work/arm64"
    QEMU=$work/no-qemu check "it runs through the user-mode emulator $work/no-qemu, which is missing (Debian package qemu-user-static" \
      snapshot/$script "${args[@]}" "$work/arm64"
  done
  check "no such capture: nope.tar.gz" snapshot/replay.sh nope.tar.gz "$binary" -s
  check "usage:" snapshot/replay.sh nope.tar.gz
  check "usage:" snapshot/compare.sh nope.tar.gz
  ;;
hostile-names)
  # Names that pass for two lines, or for a tar option, in a list of the tree: none may bring a
  # file of this host into the replayed tree, and none reaches the terminal raw.
  secret=$work/host-secret
  echo "host secret $$" >"$secret"
  /usr/bin/python3 - "$pair/after.tar.gz" "$work/names.tar.gz" "$secret" <<'PY'
import io, sys, tarfile
src, dst, secret = sys.argv[1:]
with tarfile.open(src) as tin, tarfile.open(dst, "w:gz") as tout:
    for m in tin:
        tout.addfile(m, tin.extractfile(m) if m.isreg() else None)
    for name in ("./z\n" + secret, "./z\n/proc/meminfo", "./esc\x1b]0;pwned\x07"):
        t = tarfile.TarInfo(name); t.size = 2
        tout.addfile(t, io.BytesIO(b"x\n"))
PY
  snapshot/replay.sh "$work/names.tar.gz" "$binary" -n >"$work/out" 2>"$work/err"
  status=$?
  [ $status = 3 ] || fail "replay exit status $status, not 3 (refused)"
  for want in "./z\\x0a$secret" "./z\\x0a/proc/meminfo" "./esc\\x1b]0;pwned\\x07"; do
    grep -qxF "replay: dropped $want: its name holds a control character" "$work/err" ||
      fail "no escaped message for $want: $(cat -v "$work/err")"
  done
  grep -q $'\x1b' "$work/err" && fail "an escape byte reached standard error"
  snapshot/replay.sh --drop-unsafe "$work/names.tar.gz" "$binary" -n >"$work/out" 2>/dev/null ||
    fail "--drop-unsafe: exit status $?"
  snapshot/replay.sh "$pair/after.tar.gz" "$binary" -n >"$work/want" 2>/dev/null
  diff -u "$work/want" "$work/out" || fail "the report read something the capture does not hold"
  # The copy into the private tree trusts no name as a line either (trees reach it from
  # elsewhere than unpack.py too): look from inside the namespace at what it copied.
  # A name is a path: "z<newline>" is a folder here, and so is "x<newline>-C<newline>".
  tree=$work/tree
  mkdir -p "$tree/proc" "$tree/z"$'\n'"$work" "$tree/x"$'\n'"-C"$'\n'
  echo mine >"$tree/proc/meminfo"
  echo x >"$tree/z"$'\n'"$secret"
  echo x >"$tree/x"$'\n'"-C"$'\n'"/etc"$'\n'"hostname"
  cat >"$work/look.sh" <<LOOK
[ -e ".$secret" ] && echo "host file $secret copied" >>"$work/leaks"
[ -e ./hostname ] || [ -e ./etc/hostname ] && echo "host file /etc/hostname copied" >>"$work/leaks"
[ -f "./z"\$'\\n'"$secret" ] || echo "the file named z<newline>... is missing" >>"$work/leaks"
[ -f "./x"\$'\\n'"-C"\$'\\n'"/etc"\$'\\n'"hostname" ] || echo "the file under x<newline>-C<newline> is missing" >>"$work/leaks"
LOOK
  scripts/run-in-tree.sh --prepare "$work/look.sh" "$tree" /bin/true >/dev/null 2>"$work/err"
  status=$?
  [ -e "$work/leaks" ] && fail "$(cat "$work/leaks")"
  [ $status = 0 ] || fail "run-in-tree.sh: exit status $status: $(cat "$work/err")"
  ;;
time-bound)
  # A run that does not end is stopped at the time limit and said so; the unpacked tree is
  # gone with replay's own namespace, and its mount point with replay.
  mkdir "$work/tmp"
  export TMPDIR=$work/tmp
  start=$(date +%s)
  QUARRY_REPLAY_SECONDS=2 snapshot/replay.sh $pair/after.tar.gz /usr/lib/klibc/bin/mksh \
    -c 'while :; do :; done' 2>"$work/err"
  status=$?
  [ -z "$(ls -A "$work/tmp")" ] || fail "left behind: $(ls -A "$work/tmp")"
  grep -q quarry-replay /proc/self/mounts && fail "a replay tree is still mounted"
  [ $status = 124 ] || fail "exit status $status, not 124"
  grep -q "^replay: quarrystat did not finish within 2 s" "$work/err" || fail "message: $(cat "$work/err")"
  [ $(($(date +%s) - start)) -lt 15 ] || fail "took $(($(date +%s) - start)) s"
  # So is each of the three reports replayed on one unpacking.
  printf 'int main(void) { for (;;) ; }\n' | cc -static -x c - -o "$work/spin" || fail "cannot build a spinner"
  mkdir "$work/reports"
  start=$(date +%s)
  QUARRY_REPLAY_SECONDS=2 snapshot/replay.sh --reports "$work/reports" $pair/after.tar.gz "$work/spin" 2>"$work/err"
  status=$?
  [ $status = 124 ] || fail "--reports: exit status $status, not 124"
  grep -q "^replay: quarrystat did not finish within 2 s" "$work/err" || fail "message: $(cat "$work/err")"
  [ $(($(date +%s) - start)) -lt 30 ] || fail "--reports took $(($(date +%s) - start)) s"
  [ -z "$(ls -A "$work/tmp")" ] || fail "--reports left behind: $(ls -A "$work/tmp")"
  # In a session, an unpacking that takes too long is stopped, that capture said so (124), and
  # the next replayed on a fresh tree, as alone.
  # (960 MB of maps, a few seconds to unpack, about 1 MB of gzip.)
  mkdir -p "$work/slow/proc" "$work/spill"
  for pid in $(seq 16); do
    mkdir "$work/slow/proc/$pid"
    head -c $((60 << 20)) /dev/zero >"$work/slow/proc/$pid/maps"
  done
  tar -C "$work/slow" -I "gzip -1" -cf "$work/slow.tar.gz" . && rm -rf "$work/slow"
  mkdir "$work/series" "$work/alone"
  QUARRY_SPILL_DIR=$work/spill QUARRY_REPLAY_SECONDS=1 snapshot/replay.sh --series "$work/series" "$binary" \
    "$work/slow.tar.gz" $pair/after.tar.gz >"$work/done" || fail "--series: exit status $?"
  [ "$(cat "$work/done")" = "$(printf '1 124\n2 0')" ] || fail "--series said: $(cat "$work/done")"
  grep -q "^replay: unpacking .*slow.tar.gz took more than 1 s; stopped" "$work/series/1/replay.err" ||
    fail "message: $(cat "$work/series/1/replay.err")"
  snapshot/replay.sh --reports "$work/alone" $pair/after.tar.gz "$binary" || fail "alone: exit status $?"
  diff -r -x cmdline.tar -x status -x replay.err "$work/alone" "$work/series/2" || fail "the next capture's reports differ"
  left=$(find "$work/tmp" "$work/spill" -mindepth 1)
  [ -z "$left" ] || fail "--series left behind: $left"
  # A report stopped at its time limit (one that shrugs off TERM, of a dynamically linked build,
  # which has its own /proc entries bound into the tree) leaves the next capture of the session
  # nothing: it lists the tree's /proc as replaying that capture alone does. Nor does a report
  # that writes into the tool's root (kept for the next capture): it is read-only.
  mkdir -p "$work/spin-tree/proc" "$work/series2" "$work/alone2"
  echo spin >"$work/spin-tree/proc/meminfo"
  tar -C "$work/spin-tree" -czf "$work/spin.tar.gz" .
  cc -x c - -o "$work/lister" <<'EOF' || fail "cannot build the lister"
#include <dirent.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>
int main(int argc, char **argv) {
    char head[5] = "";
    FILE *f = fopen("/proc/meminfo", "r");
    if (f && fread(head, 1, 4, f) == 4 && !strcmp(head, "spin") && !strcmp(argv[argc - 1], "-u")) {
        signal(SIGTERM, SIG_IGN);
        for (;;) pause();
    }
    if (!strcmp(argv[argc - 1], "-s") && (f = fopen("/planted", "w"))) fclose(f);
    if (access("/planted", F_OK) == 0) printf("planted\n");
    char self[32];
    snprintf(self, sizeof self, "%d", (int)getpid());
    DIR *d = opendir("/proc");
    for (struct dirent *e; d && (e = readdir(d));)
        if (strcmp(e->d_name, self) && strcmp(e->d_name, "self")) printf("%s\n", e->d_name);
    return 0;
}
EOF
  QUARRY_SPILL_DIR=$work/spill QUARRY_REPLAY_SECONDS=1 snapshot/replay.sh --series "$work/series2" "$work/lister" \
    "$work/spin.tar.gz" $pair/after.tar.gz $pair/after.tar.gz >"$work/done" || fail "--series: exit status $?"
  [ "$(cat "$work/done")" = "$(printf '1 124\n2 0\n3 0')" ] || fail "--series said: $(cat "$work/done")"
  snapshot/replay.sh --reports "$work/alone2" $pair/after.tar.gz "$work/lister" || fail "alone: exit status $?"
  diff "$work/alone2/n.out" "$work/series2/2/n.out" || fail "the next capture met what a report of the one before left (a stopped one, or one that wrote)"
  diff "$work/alone2/n.out" "$work/series2/3/n.out" || fail "a report left the capture after the next a file in the root"
  ;;
series)
  # A recording replayed in one session (--series, as report.py replays it), the tree kept from
  # capture to capture, gives for each capture exactly what replaying it alone gives: processes
  # come and go (a pid sorting amid the others, a pid reused by another program), a capture is
  # refused midway, another is truncated.
  mkdir "$work/base"
  tar -xzf $pair/after.tar.gz -C "$work/base" || fail "cannot unpack the pair"
  /usr/bin/python3 - "$work" <<'EOF' || fail "cannot make the recording"
import os, shutil, subprocess, sys
work = sys.argv[1]
base = os.path.join(work, "base")

def capture(n, change):
    tree = os.path.join(work, "t%d" % n)
    shutil.copytree(base, tree)
    change(lambda p: os.path.join(tree, p))
    # Members in reverse name order, as the device's tar writes them.
    names = subprocess.run(["find", ".", "-mindepth", "1"], cwd=tree, capture_output=True,
                           text=True, check=True).stdout.split()
    subprocess.run(["tar", "-czf", os.path.join(work, "c%d.tar.gz" % n), "--no-recursion", "-C",
                    tree] + sorted(names, reverse=True), check=True)
    shutil.rmtree(tree)

def gained(t):   # pid 1000 sorts before the others; a process gone; a descriptor more
    shutil.copytree(t("proc/488"), t("proc/1000"))
    open(t("proc/1000/comm"), "w").write("newcomer\n")
    shutil.rmtree(t("proc/735"))
    shutil.copy(t("proc/488/fdinfo/7"), t("proc/488/fdinfo/9"))

def refused(t):
    gained(t)
    os.makedirs(t("etc"))
    open(t("etc/ld.so.preload"), "w").write("/lib/x.so\n")

def exited(t):
    shutil.rmtree(t("proc/5"))

def reused(t):   # pid 1000 again, another program's
    shutil.copytree(t("proc/34"), t("proc/1000"))
    open(t("proc/1000/comm"), "w").write("reuser\n")

for n, change in enumerate((lambda t: None, gained, refused, gained, exited, reused, gained), 1):
    capture(n, change)
EOF
  # The fourth is cut short.
  head -c $(($(stat -c %s "$work/c4.tar.gz") / 2)) "$work/c4.tar.gz" >"$work/cut" && mv "$work/cut" "$work/c4.tar.gz"
  mkdir "$work/series"
  snapshot/replay.sh --series "$work/series" "$binary" "$work"/c{1,2,3,4,5,6,7}.tar.gz >"$work/done" ||
    fail "--series: exit status $?"
  [ "$(cat "$work/done")" = "$(printf '1 0\n2 0\n3 3\n4 4\n5 0\n6 0\n7 0')" ] || fail "--series said: $(cat "$work/done")"
  for n in 1 2 3 4 5 6 7; do
    rm -rf "$work/alone" && mkdir "$work/alone"
    status=0
    snapshot/replay.sh --reports "$work/alone" "$work/c$n.tar.gz" "$binary" 2>"$work/alone.err" || status=$?
    got=$work/series/$n
    [ "$(cat "$got/status")" = $status ] || fail "c$n: status $(cat "$got/status"), alone $status"
    diff "$work/alone.err" "$got/replay.err" || fail "c$n: replay said otherwise"
    diff -r -x cmdline.tar -x status -x replay.err "$work/alone" "$got" || fail "c$n: the reports differ"
    # The command lines' archive holds the same files in the same order (dates aside).
    if [ -f "$work/alone/files/cmdline.tar" ]; then
      for list in -t -xO; do
        diff <(tar $list -f "$work/alone/files/cmdline.tar") <(tar $list -f "$got/files/cmdline.tar") ||
          fail "c$n: the command lines differ ($list)"
      done
    fi
  done
  grep -q newcomer "$work/series/2/u.out" && grep -q reuser "$work/series/6/u.out" ||
    fail "the processes that came are not in the reports"
  ;;
stop-unpack)
  # replay.sh stopped while it unpacks a large capture (TERM; INT to its process group, as a
  # Ctrl-C at a terminal sends it): no process of it remains, and nothing of the capture is
  # left on the disk (an unpacking left running writes there once replay's mount point is gone).
  # 36 MB of files that compress poorly: below the 64 MiB unpack.py holds in memory (past
  # it, data waits on disk), read for long enough to be stopped while it reads.
  mkdir -p "$work/tmp" "$work/spill"
  /usr/bin/python3 - "$work/big" <<'EOF' || fail "cannot make the capture"
import base64, os, sys
for pid in range(1, 2001):
    os.makedirs(os.path.join(sys.argv[1], "proc", str(pid)))
    with open(os.path.join(sys.argv[1], "proc", str(pid), "maps"), "wb") as f:
        f.write(base64.encodebytes(os.urandom(13500)))
open(os.path.join(sys.argv[1], "capture-info"), "w").write("format=1\n")
EOF
  tar -C "$work/big" -czf "$work/big.tar.gz" . && rm -rf "$work/big"
  size=$(stat -c %s "$work/big.tar.gz")
  # Every process naming the capture, this grep's own left out by its pattern.
  holders() { grep -ls "$work/big\.tar\.g[z]" /proc/[0-9]*/cmdline 2>/dev/null; }
  for run in "TERM replay" "INT replay" "TERM report" "INT report"; do
    sig=${run% *}
    if [ "${run#* }" = replay ]; then
      cmd=(snapshot/replay.sh "$work/big.tar.gz" "$binary" -u)
    else
      cmd=(/usr/bin/python3 snapshot/report.py --binary "$binary" -o "$work/page.html" "$work/big.tar.gz")
    fi
    # In a process group of its own, with INT not ignored (a script's background job ignores it).
    TMPDIR=$work/tmp QUARRY_SPILL_DIR=$work/spill /usr/bin/python3 -c '
import os, signal, sys
os.setpgrp()
signal.signal(signal.SIGINT, signal.SIG_DFL)
os.execv(sys.argv[1], sys.argv[1:])' "${cmd[@]}" >/dev/null 2>&1 &
    replay=$!
    # Mid-unpack: while the unpacking reads the archive (it makes the tree once it has read it
    # whole), seen by the position of its descriptor of the capture.
    made=0
    for _ in $(seq 1000); do
      for cmd in $(grep -ls "unpack\.p[y]" /proc/[0-9]*/cmdline 2>/dev/null); do
        for fd in "${cmd%/cmdline}"/fd/*; do
          [ "$(readlink "$fd")" = "$work/big.tar.gz" ] || continue
          pos=$(sed -n 's/^pos:\t//p' "${cmd%/cmdline}/fdinfo/${fd##*/}" 2>/dev/null)
          [ -n "$pos" ] && [ "$pos" -gt 0 ] && [ "$pos" -lt $((size / 2)) ] && made=1
        done
      done
      [ $made = 1 ] && break
      sleep 0.01
    done
    [ $made = 1 ] || { kill -KILL -- -$replay; fail "$run: the unpacking was not seen reading the capture"; }
    if [ $sig = TERM ]; then kill -TERM $replay; else kill -INT -- -$replay; fi
    for _ in $(seq 100); do [ -z "$(holders)" ] && break; sleep 0.05; done
    left=$(holders)
    if [ -n "$left" ]; then
      # (On the way out, wait for them, so that what they leave can be named.)
      for _ in $(seq 600); do [ -z "$(holders)" ] && break; sleep 0.1; done
      fail "$run: processes remain after it stopped ($(echo $left)); then left on disk: $(du -sh "$work/tmp" | cut -f1)"
    fi
    wait $replay
    status=$?
    left=$(find "$work/tmp" "$work/spill" -mindepth 1 | head -3)
    [ -z "$left" ] || fail "$run: left behind: $left (and more: $(du -sh "$work/tmp" | cut -f1))"
    [ $status != 0 ] || fail "$run: exit status 0"
    [ ! -e "$work/page.html" ] || fail "$run: a page was written"
  done
  ;;
capture-mksh)
  static_program
  # capture.sh as a device runs it: mksh and busybox tools in a root laid out like the sample
  # device. It must write the archive, leave nothing else, and carry what the tool reads.
  root=$work/root
  device_root "$root"
  (cd "$root" && find . | LC_ALL=C sort) >"$work/before"
  timeout 60 chroot "$root" /bin/mksh /capture.sh /out/capture.tar.gz || fail "capture.sh under mksh: exit status $?"
  (cd "$root" && find . | LC_ALL=C sort) >"$work/after"
  diff "$work/before" "$work/after" | grep '^[<>]' >"$work/changed"
  [ "$(cat "$work/changed")" = "> ./out/capture.tar.gz" ] || fail "left behind: $(cat "$work/changed")"
  tar -tzf "$root/out/capture.tar.gz" | grep -x ./capture-info >/dev/null || fail "no ./capture-info in the capture"
  # Every report on the capture is the report on the tree it was taken from.
  for mode in -s -n -u -k -p8b900000; do
    snapshot/replay.sh "$root/out/capture.tar.gz" "$binary" $mode >"$work/replayed" 2>/dev/null
    scripts/run-in-tree.sh sample/device "$binary" $mode >"$work/direct" 2>/dev/null
    diff "$work/direct" "$work/replayed" || fail "$mode differs on the capture"
  done
  # A capture that cannot be written leaves nothing either.
  timeout 60 chroot "$root" /bin/mksh /capture.sh /no/such/dir/capture.tar.gz 2>/dev/null &&
    fail "capture.sh succeeded writing into a missing folder"
  (cd "$root" && find . | LC_ALL=C sort) | diff "$work/after" - || fail "a failed capture left files behind"
  # Without the program beside it: one line, status 2, nothing written.
  mv "$root/quarry-capture" "$work/aside"
  timeout 60 chroot "$root" /bin/mksh /capture.sh /out/x.tar.gz 2>"$work/err"
  status=$?
  [ $status = 2 ] && grep -qx "capture: quarry-capture is not beside capture.sh (/quarry-capture): push it from the same archive" \
    "$work/err" || fail "without the program: status $status: $(cat "$work/err")"
  [ -e "$root/out/x.tar.gz" ] && fail "an archive without the program"
  ;;
capture-info)
  static_program
  # Where and when: each key from the device's own files, start before end, the binary's
  # version read from the binary itself; device text stays one line per key.
  root=$work/root
  device_root "$root"
  echo "8123.45 16000.10" >"$root/proc/uptime"
  mkdir -p "$root/proc/sys/kernel/random" "$root/proc/device-tree"
  echo 0b6f1c57-4d3e-4f8a-9c1d-2e7a5b3c9d10 >"$root/proc/sys/kernel/random/boot_id"
  printf 'Lab board\nrev 2\0' >"$root/proc/device-tree/model"
  cp "$binary" "$root/quarrystat"
  before=$(date +%s)
  timeout 60 chroot "$root" /bin/busybox sh /capture.sh -b /quarrystat /out/c.tar.gz 2>"$work/err" ||
    fail "capture.sh under busybox: exit status $?: $(cat "$work/err")"
  after=$(date +%s)
  c=$root/out/c.tar.gz
  [ "$(info "$c" format)" = 1 ] || fail "format: $(info "$c" format)"
  [ "$(info "$c" kernel_release)" = "$(uname -r)" ] || fail "kernel_release: $(info "$c" kernel_release)"
  [ "$(info "$c" kernel_version)" = "$(uname -v)" ] || fail "kernel_version: $(info "$c" kernel_version)"
  [ "$(info "$c" model)" = "Lab board rev 2" ] || fail "model: $(info "$c" model | cat -v)"
  [ "$(info "$c" fingerprint)" = "" ] || fail "a fingerprint without getprop"
  [ "$(info "$c" boot_id)" = 0b6f1c57-4d3e-4f8a-9c1d-2e7a5b3c9d10 ] || fail "boot_id: $(info "$c" boot_id)"
  [ "$(info "$c" uptime_start)" = 8123.45 ] && [ "$(info "$c" uptime_end)" = 8123.45 ] ||
    fail "uptime: $(info "$c" uptime_start) $(info "$c" uptime_end)"
  ws=$(info "$c" wall_start) we=$(info "$c" wall_end)
  [ "$before" -le "$ws" ] && [ "$ws" -le "$we" ] && [ "$we" -le "$after" ] ||
    fail "wall clock $ws..$we outside $before..$after"
  want=$(grep -ao 'quarrystat version [0-9][0-9.]*' "$binary" | head -1)
  [ -n "$want" ] && [ "quarrystat version $(info "$c" binary_version)" = "$want" ] ||
    fail "binary_version: $(info "$c" binary_version), the binary says $want"
  [ "$(tar -xzOf "$c" ./capture-info | wc -l)" = 11 ] || fail "not 11 lines: $(tar -xzOf "$c" ./capture-info)"
  # Without -b the key is absent; with a binary that cannot be read nothing is captured.
  timeout 60 chroot "$root" /bin/mksh /capture.sh /out/d.tar.gz 2>/dev/null || fail "capture.sh without -b failed"
  tar -xzOf "$root/out/d.tar.gz" ./capture-info | grep '^binary_version=' >/dev/null && fail "binary_version without -b"
  timeout 60 chroot "$root" /bin/mksh /capture.sh -b /nope /out/e.tar.gz 2>"$work/err"
  status=$?
  [ $status = 2 ] && grep -qx "capture: cannot read the binary /nope" "$work/err" || fail "-b /nope: status $status: $(cat "$work/err")"
  [ -e "$root/out/e.tar.gz" ] && fail "an archive for a missing binary"
  # Android's getprop names the model and the build, before the device tree; its text on one line.
  printf '#!/bin/mksh\ncase $1 in\nro.product.model) busybox printf "Pixel\\r\\n9\\n" ;;\nro.build.fingerprint) echo google/x/y:15/AP3A/1:user/release-keys ;;\nesac\n' >"$root/bin/getprop"
  chmod 755 "$root/bin/getprop"
  timeout 60 chroot "$root" /bin/mksh /capture.sh /out/f.tar.gz 2>/dev/null || fail "capture.sh with getprop failed"
  [ "$(info "$root/out/f.tar.gz" model)" = "Pixel  9" ] || fail "model from getprop: $(info "$root/out/f.tar.gz" model | cat -A)"
  [ "$(info "$root/out/f.tar.gz" fingerprint)" = google/x/y:15/AP3A/1:user/release-keys ] ||
    fail "fingerprint: $(info "$root/out/f.tar.gz" fingerprint)"
  # Run as root, the program writes through no link at the output's name: what it leads to stays.
  echo kept >"$root/victim"
  ln -s ../victim "$root/out/g.tar.gz"
  timeout 60 chroot "$root" /bin/mksh /capture.sh /out/g.tar.gz 2>"$work/err"
  status=$?
  [ $status = 1 ] && grep -qx "capture: cannot write /out/g.tar.gz: it is a link" "$work/err" &&
    [ "$(cat "$root/victim")" = kept ] || fail "output through a link: status $status: $(cat "$work/err")"
  # Nor into a device node (here the null device): one is not even opened.
  mknod "$root/out/h.tar.gz" c 1 3 || fail "cannot make a device node"
  timeout 60 chroot "$root" /bin/mksh /capture.sh /out/h.tar.gz 2>"$work/err"
  status=$?
  [ $status = 1 ] && grep -qx "capture: cannot write /out/h.tar.gz: not a regular file or a FIFO" "$work/err" &&
    [ -c "$root/out/h.tar.gz" ] || fail "output a device node: status $status: $(cat "$work/err")"
  ;;
capture-incomplete)
  static_program
  # A shell without root, where /d and the debug extension's tables are root's only: the files
  # -s needs are named, the status is 3 and no archive stays.
  root=$work/user
  device_root "$root"
  chmod 700 "$root/d" "$root/proc/debug_ext"
  chmod 1777 "$root/out" "$root/data/local/tmp"
  timeout 60 chroot --userspec=65534:65534 "$root" /bin/mksh /capture.sh /out/c.tar.gz 2>"$work/err"
  status=$?
  [ $status = 3 ] || fail "without root: exit status $status, not 3: $(cat "$work/err")"
  for f in /proc/debug_ext/mem_statis/reserved_memory_stat /d/memblock/memory /d/memblock/reserved; do
    grep -qxF "capture: missing or empty: $f" "$work/err" || fail "without root: $f not named: $(cat "$work/err")"
  done
  [ -z "$(ls -A "$root/out")" ] && [ -z "$(ls -A "$root/data/local/tmp")" ] || fail "without root: left files"
  # A device without the tables at all: the same, and --partial keeps the archive.
  root=$work/root
  device_root "$root"
  rm -r "$root/d" "$root/proc/debug_ext"
  timeout 60 chroot "$root" /bin/mksh /capture.sh /out/c.tar.gz 2>"$work/err"
  status=$?
  [ $status = 3 ] || fail "exit status $status, not 3"
  for f in /proc/debug_ext/mem_statis/reserved_memory_stat /d/memblock/memory /d/memblock/reserved; do
    grep -qxF "capture: missing or empty: $f" "$work/err" || fail "$f not named: $(cat "$work/err")"
  done
  grep -q "missing or empty: /proc/meminfo" "$work/err" && fail "named /proc/meminfo, which is there"
  [ -e "$root/out/c.tar.gz" ] && fail "kept an incomplete capture without --partial"
  timeout 60 chroot "$root" /bin/mksh /capture.sh --partial /out/c.tar.gz 2>"$work/err"
  status=$?
  [ $status = 3 ] && [ -s "$root/out/c.tar.gz" ] || fail "--partial: status $status, archive: $(ls "$root/out")"
  # Processes whose maps are empty (kernel threads; others' maps without root) count as none.
  for m in "$root"/proc/[0-9]*/maps; do : >"$m"; done
  timeout 60 chroot "$root" /bin/mksh /capture.sh /out/d.tar.gz 2>"$work/err"
  grep -qxF "capture: missing or empty: /proc/<pid>/maps" "$work/err" || fail "maps not named: $(cat "$work/err")"
  ;;
record-mksh)
  static_program
  # A recording: COUNT captures INTERVAL seconds apart, numbered on after an earlier run; a TERM
  # while a capture is being packed leaves only the complete ones and ends at once.
  root=$work/root
  device_root "$root"
  mkdir -p "$root/rec"
  cp "$binary" "$root/quarrystat"
  timeout 60 chroot "$root" /bin/mksh /record.sh -b /quarrystat 1 3 /rec 2>"$work/err" ||
    fail "record.sh under mksh: exit status $?: $(cat "$work/err")"
  timeout 60 chroot "$root" /bin/busybox sh /record.sh 1 1 /rec 2>>"$work/err" ||
    fail "record.sh under busybox: exit status $?: $(cat "$work/err")"
  [ "$(ls -A "$root/rec" | tr '\n' ' ')" = "capture-0001.tar.gz capture-0002.tar.gz capture-0003.tar.gz capture-0004.tar.gz " ] ||
    fail "the folder holds: $(ls -A "$root/rec")"
  # This root has no /proc/uptime, so record.sh schedules on whole wall-clock seconds: the
  # three captures keep their order and span at least a second.
  for c in "$root"/rec/capture-000[123].tar.gz; do
    [ -n "$(info "$c" binary_version)" ] || fail "${c##*/} without the binary's version"
  done
  first=$(info "$root/rec/capture-0001.tar.gz" wall_start)
  second=$(info "$root/rec/capture-0002.tar.gz" wall_start)
  third=$(info "$root/rec/capture-0003.tar.gz" wall_start)
  [ "$first" -le "$second" ] && [ "$second" -le "$third" ] && [ "$third" -ge $((first + 1)) ] ||
    fail "captures began at $first, $second and $third"
  snapshot/replay.sh "$root/rec/capture-0002.tar.gz" "$binary" -s >"$work/replayed" 2>/dev/null
  scripts/run-in-tree.sh sample/device "$binary" -s >"$work/direct" 2>/dev/null
  diff "$work/direct" "$work/replayed" || fail "-s differs on a recorded capture"
  # A capture that has begun its archive and takes long: TERM comes while it writes.
  printf '#!/bin/mksh\neval out=\\${$#}\necho partial >"$out"\nexec sleep 30\n' >"$root/quarry-capture"
  chroot "$root" /bin/mksh /record.sh 1 5 /rec >/dev/null 2>"$work/err" &
  pid=$!
  for _ in $(seq 100); do
    ls -A "$root/rec" | grep -q '^\.capture-0005\.tar\.gz\.part$' && break
    sleep 0.1
  done
  start=$(date +%s)
  kill -TERM $pid
  wait $pid
  status=$?
  [ $(($(date +%s) - start)) -lt 5 ] || fail "took $(($(date +%s) - start)) s to stop"
  [ $status = 0 ] || fail "stopped: exit status $status: $(cat "$work/err")"
  grep -qx "record: stopped after 0 captures in /rec" "$work/err" || fail "message: $(cat "$work/err")"
  [ "$(ls -A "$root/rec" | wc -l)" = 4 ] || fail "left behind: $(ls -A "$root/rec")"
  [ "$(ls -A "$root/data/local/tmp")" = "" ] || fail "a staging folder left behind"
  ;;
record-low-space)
  static_program
  # A target with little room: nothing at all below the default margin (64 MB) and a first
  # capture counted as 4 MB; with a 1 MB margin, the first capture is counted before anything
  # is written, and a capture that cuts into the margin all the same is removed.
  root=$work/root
  device_root "$root"
  mkdir -p "$root/rec"
  mount -t tmpfs -o size=8m quarry-rec "$root/rec" || fail "cannot mount a tmpfs"
  trap 'umount -l "$root/rec"; rm -rf "$work"' EXIT
  echo "quarry-rec /rec tmpfs rw 0 0" >"$root/proc/mounts"
  timeout 60 chroot "$root" /bin/mksh /record.sh 1 3 /rec 2>"$work/err"
  status=$?
  [ $status = 4 ] || fail "exit status $status, not 4: $(cat "$work/err")"
  grep -q "^record: stopping after 0 captures: [0-9]* KB free in /rec, the next capture needs 69632 KB (64 MB kept free)$" \
    "$work/err" || fail "message: $(cat "$work/err")"
  [ "$(ls -A "$root/rec")" = "" ] || fail "wrote $(ls -A "$root/rec")"
  # 16 KB short of the margin and the first capture's 4 MB: no capture at all (the first one
  # used to count as 0 KB and fill the file system).
  fill() {  # fill KB: leaves KB free on the tmpfs
    rm -f "$root/rec/filler"
    avail=$(df -k --output=avail "$root/rec" | tail -1)
    dd if=/dev/zero of="$root/rec/filler" bs=1k count=$((avail - $1)) 2>/dev/null
  }
  fill $((1024 + 4096 - 16))
  timeout 60 chroot "$root" /bin/busybox sh /record.sh -m 1 1 5 /rec 2>"$work/err"
  status=$?
  [ $status = 4 ] || fail "-m 1, first capture: exit status $status, not 4: $(cat "$work/err")"
  grep -q "^record: stopping after 0 captures: .* needs 5120 KB (1 MB kept free)$" "$work/err" ||
    fail "-m 1, first capture: $(cat "$work/err")"
  [ "$(ls -A "$root/rec")" = filler ] || fail "-m 1, first capture: the folder holds $(ls -A "$root/rec")"
  # Room for the estimate, but a capture of 4.5 MB: it cuts into the margin and is removed.
  fill $((1024 + 4096 + 16))
  mv "$root/quarry-capture" "$work/aside"
  printf '#!/bin/mksh\neval out=\\${$#}\nhead -c 4608k /dev/zero >"$out"\n' >"$root/quarry-capture"
  chmod 755 "$root/quarry-capture"
  mknod -m 444 "$root/dev/zero" c 1 5
  timeout 60 chroot "$root" /bin/busybox sh /record.sh -m 1 1 5 /rec 2>"$work/err"
  status=$?
  [ $status = 4 ] || fail "-m 1, a large capture: exit status $status, not 4: $(cat "$work/err")"
  grep -q "^record: stopping after 0 captures: capture-0001.tar.gz left [0-9]* KB free in /rec, less than the 1 MB kept free; it was removed$" \
    "$work/err" || fail "-m 1, a large capture: $(cat "$work/err")"
  [ "$(ls -A "$root/rec")" = filler ] || fail "-m 1, a large capture: the folder holds $(ls -A "$root/rec")"
  # With room, captures of the sample go on until COUNT.
  mv "$work/aside" "$root/quarry-capture"
  rm "$root/rec/filler"
  timeout 60 chroot "$root" /bin/busybox sh /record.sh -m 1 1 2 /rec 2>"$work/err" ||
    fail "-m 1 with room: exit status $?: $(cat "$work/err")"
  [ "$(ls -A "$root/rec" | tr '\n' ' ')" = "capture-0001.tar.gz capture-0002.tar.gz " ] || fail "the folder holds: $(ls -A "$root/rec")"
  ;;
capture-slim)
  static_program
  # A slim capture (maps cut to their /dmabuf lines) replays every report as the tree it was
  # taken from, output, messages and status: on the sample, every fixture tree, and a small
  # generated tree with the lines the tool's maps reader treats specially. Its members are the
  # ones capture/members.txt allows, each within its limit.
  gen=$(dirname "$binary")/../bench/gen_tree
  mkdir "$work/gen"
  "$gen" "$work/gen" 0.02 >/dev/null || fail "gen_tree failed"
  # The sample's memory files (its /d is a link to sys/kernel/debug, as on a device).
  cp -a sample/device/d "$work/gen/"
  cp -a sample/device/sys/kernel/debug "$work/gen/sys/kernel/"
  cp -a sample/device/proc/debug_ext sample/device/proc/iomem "$work/gen/proc/"
  # A /dmabuf line longer than any read, a line the reader cannot parse (it stops there: the
  # buffer after it must stay uncounted), an empty line and one cut by a NUL; a command line of
  # more than the 4 KiB kept, with its NULs.
  long=$(head -c 100000 /dev/zero | tr '\0' x)
  printf '7f00000000-7f00100000 rw-s 00000000 00:0a 40001                      /dmabuf:%s\n' "$long" >>"$work/gen/proc/1000/maps"
  { printf '\n7f10000000-7f10001000 rw-s 00000000 00:0a 40002 /dmabuf:\0tail\n'
    printf 'not a maps line\n7f20000000-7f20001000 rw-s 00000000 00:0a 40003 /dmabuf:\n'; } >>"$work/gen/proc/1001/maps"
  { printf 'com.example.app\0--flag\0'; head -c 5000 /dev/zero | tr '\0' y; } >"$work/gen/proc/1002/cmdline"
  trees=("$work/gen" sample/device)
  # Not dirs-for-files: folders where the tool reads files are no device's, and a capture holds
  # files there or nothing.
  for t in tests/fixtures/*/; do [ "$t" = tests/fixtures/dirs-for-files/ ] || trees+=("${t%/}"); done
  for tree in "${trees[@]}"; do
    label=${tree#"$work/"}
    root=$work/root
    rm -rf "$root" "$work/live" "$work/replayed"
    mkdir -p "$root/out" "$work/live" "$work/replayed"
    cp -a "$tree/." "$root/"
    add_program "$root"
    timeout 60 chroot "$root" /quarry-capture --partial /out/c.tar.gz 2>"$work/err"
    status=$?
    [ $status = 0 ] || [ $status = 3 ] || fail "$label: capture status $status: $(cat "$work/err")"
    mv "$root/out/c.tar.gz" "$work/c.tar.gz"
    scripts/run-in-tree.sh --each "$work/live" "$tree" "$binary" -u -n -s >/dev/null 2>&1 || fail "$label: run-in-tree failed"
    snapshot/replay.sh --reports "$work/replayed" "$work/c.tar.gz" "$binary" 2>"$work/err" ||
      fail "$label: replay failed: $(cat "$work/err")"
    for mode in u n s; do
      for part in out err status; do
        cmp -s "$work/live/$mode.$part" "$work/replayed/$mode.$part" ||
          fail "$label: -$mode: $part differs: $(diff "$work/live/$mode.$part" "$work/replayed/$mode.$part" | head -5)"
      done
    done
    /usr/bin/python3 - "$work/c.tar.gz" <<'PY' || fail "$label: members the list does not allow"
import sys, tarfile
sys.path.insert(0, "snapshot")
import members
with tarfile.open(sys.argv[1]) as t:
    for m in t.getmembers():
        name = m.name[2:] if m.name.startswith("./") else m.name
        if name in ("", "."):
            continue
        found = members.lookup(name, m.isdir())
        if found is None or (m.isfile() and m.size > found.limit):
            sys.exit("not allowed: %s (%d bytes)" % (m.name, m.size))
PY
  done
  # What the generated tree's capture holds: the /dmabuf lines (the long one whole), the line the
  # reader stops at and nothing after it, the first 4 KiB of the command line; --full keeps maps
  # whole.
  root=$work/root
  rm -rf "$root"; mkdir -p "$root/out"; cp -a "$work/gen/." "$root/"; add_program "$root"
  chroot "$root" /quarry-capture /out/slim.tar.gz && chroot "$root" /quarry-capture --full /out/full.tar.gz ||
    fail "captures of the generated tree failed"
  tar -xzOf "$root/out/slim.tar.gz" ./proc/1000/maps | grep -v '/dmabuf' && fail "slim maps hold other lines"
  [ "$(tar -xzOf "$root/out/slim.tar.gz" ./proc/1000/maps | grep -c '/dmabuf')" = 11 ] || fail "not the 11 /dmabuf lines"
  tar -xzOf "$root/out/slim.tar.gz" ./proc/1000/maps | tail -n 1 | cmp -s - <(tail -n 1 "$work/gen/proc/1000/maps") ||
    fail "the long /dmabuf line is not whole"
  tar -xzOf "$root/out/slim.tar.gz" ./proc/1001/maps | tail -n 2 | cmp -s - <(printf '7f10000000-7f10001000 rw-s 00000000 00:0a 40002 /dmabuf:\0tail\nnot a maps line\n') ||
    fail "the cut line and the line the reader stops at are not the last kept"
  tar -xzOf "$root/out/slim.tar.gz" ./proc/1002/cmdline | cmp -s - <(head -c 4096 "$work/gen/proc/1002/cmdline") ||
    fail "cmdline is not its first 4 KiB"
  tar -xzOf "$root/out/full.tar.gz" ./proc/1001/maps | cmp -s - "$work/gen/proc/1001/maps" || fail "--full did not keep maps whole"
  [ "$(tar -tzf "$root/out/slim.tar.gz" | grep -c '/fdinfo/[0-9]')" = $((20 * 8)) ] || fail "not only the DMA-BUF fdinfo files"
  ;;
capture-full-disk)
  static_program
  # The archive's file system fills up: one message naming it and its free space, status 1, and
  # no archive. The sample with 1 MB of filler maps text per process needs more than the room.
  root=$work/root
  device_root "$root"
  for m in "$root"/proc/[0-9]*/maps; do
    head -c 3000000 /dev/urandom | base64 -w 100 | sed 's/^/7f00000000-7f00001000 r--p 00000000 fd:05 1 \/x/' >>"$m"
  done
  mount -t tmpfs -o size=256k quarry-out "$root/out" || fail "cannot mount a tmpfs"
  trap 'umount -l "$root/out"; rm -rf "$work"' EXIT
  echo "quarry-out /out tmpfs rw 0 0" >"$root/proc/mounts"
  timeout 60 chroot "$root" /bin/mksh /capture.sh --full /out/c.tar.gz 2>"$work/err"
  status=$?
  [ $status = 1 ] || fail "exit status $status, not 1: $(cat "$work/err")"
  grep -qx "capture: cannot write /out/c.tar.gz: No space left on device (the file system on /out has [0-9]* KB free); nothing kept" \
    "$work/err" && [ "$(wc -l <"$work/err")" = 1 ] || fail "message: $(cat "$work/err")"
  [ -z "$(ls -A "$root/out")" ] || fail "left behind: $(ls -A "$root/out")"
  # The same without --full fits: only the /dmabuf lines are kept.
  timeout 60 chroot "$root" /bin/mksh /capture.sh /out/c.tar.gz 2>"$work/err" || fail "slim: exit status $?: $(cat "$work/err")"
  ;;
capture-stop)
  static_program
  # A signal at any moment of a capture: status 1 and no archive. First while the program is
  # blocked in the middle of its archive (written into a FIFO that nobody reads), then TERM and
  # INT at a range of moments of captures of a generated tree.
  root=$work/root
  device_root "$root"
  "$(dirname "$binary")/../bench/gen_tree" "$root" 0.05 >/dev/null || fail "gen_tree failed"
  # (QUIT is left out: a shell starts a background command with it ignored.)
  for sig in TERM INT HUP USR1; do
    mkfifo "$root/out/c.tar.gz"
    chroot "$root" /bin/mksh /capture.sh --full /out/c.tar.gz 2>"$work/err" &
    pid=$!
    exec 3<"$root/out/c.tar.gz"
    head -c 1000 <&3 >/dev/null
    sleep 0.3
    kill -$sig $pid
    # A program that ignored the signal would wait for its reader for ever.
    for _ in $(seq 50); do kill -0 $pid 2>/dev/null || break; sleep 0.1; done
    kill -0 $pid 2>/dev/null && { kill -KILL $pid; fail "$sig while blocked: still running after 5 s"; }
    wait $pid
    status=$?
    exec 3<&-
    [ $status = 1 ] || fail "$sig while blocked: status $status: $(cat "$work/err")"
    [ -z "$(ls -A "$root/out")" ] || fail "$sig while blocked: left $(ls -A "$root/out")"
  done
  for delay in 0 0.01 0.02 0.04 0.08 0.15; do
    for sig in TERM INT; do
      chroot "$root" /bin/mksh /capture.sh /out/c.tar.gz 2>"$work/err" &
      pid=$!
      sleep $delay
      kill -$sig $pid 2>/dev/null
      wait $pid
      status=$?
      if [ $status = 0 ]; then
        rm -f "$root/out/c.tar.gz"
        continue
      fi
      # Before the shell has made the program of itself the shell's own default ends it.
      [ $status = 1 ] || [ $status = $((128 + $(kill -l $sig))) ] || fail "$sig after $delay s: status $status: $(cat "$work/err")"
      [ -z "$(ls -A "$root/out")" ] || fail "$sig after $delay s: left $(ls -A "$root/out")"
    done
  done
  ;;
capture-live)
  # The program on this machine's own /proc and /sys, as on a device (the sanitizer build too):
  # its archive replays, -u and -n as the tool prints them here give the same buffers; the
  # archive's file system full: status 1, one message, nothing left.
  "$program" --partial --info model=host "$work/c.tar.gz" 2>"$work/err"
  status=$?
  [ $status = 0 ] || [ $status = 3 ] || fail "status $status: $(cat "$work/err")"
  grep -v '^capture: \(missing or empty: \|kept the incomplete\)' "$work/err" && fail "messages: $(cat "$work/err")"
  [ "$(info "$work/c.tar.gz" model)" = host ] || fail "model: $(info "$work/c.tar.gz" model)"
  [ "$(tar -tzf "$work/c.tar.gz" | grep -c '^\./proc/[0-9]*/$')" -gt 1 ] || fail "no processes captured"
  snapshot/replay.sh "$work/c.tar.gz" "$binary" -n >"$work/out" 2>"$work/err2" || fail "replay -n: $(cat "$work/err2")"
  grep -q "^Kernel" "$work/out" || grep -q "kB\|KB" "$work/out" || fail "replay -n printed: $(cat "$work/out")"
  # Processes that start and exit while the capture runs: each process is in it whole (its comm,
  # which anyone may read, and its fdinfo folder) or not at all, never a folder its process left
  # half-read. (Its maps may be unreadable here: another process's, in a container.)
  (end=$((SECONDS + 5)); while [ $SECONDS -lt $end ]; do for _ in 1 2 3 4 5 6 7 8; do sleep 0.01 & done; wait; done) &
  churn=$!
  for n in 1 2 3; do
    "$program" --partial "$work/m$n.tar.gz" 2>/dev/null
    /usr/bin/python3 - "$work/m$n.tar.gz" <<'PY' || fail "capture $n under churn: a process captured in part"
import re, sys, tarfile
names = set(tarfile.open(sys.argv[1]).getnames())
pids = {m.group(1) for n in names for m in [re.match(r"\./proc/([0-9]+)$", n)] if m}
bad = [p for p in pids if not {"./proc/%s/%s" % (p, f) for f in ("comm", "fdinfo")} <= names]
sys.exit("no process" if not pids else "in part: %s" % bad if bad else 0)
PY
  done
  kill $churn 2>/dev/null; wait $churn 2>/dev/null
  mkdir "$work/full"
  mount -t tmpfs -o size=16k quarry-full "$work/full" || fail "cannot mount a tmpfs"
  trap 'umount -l "$work/full"; rm -rf "$work"' EXIT
  "$program" --partial --full "$work/full/c.tar.gz" 2>"$work/err"
  status=$?
  [ $status = 1 ] || fail "full: status $status: $(cat "$work/err")"
  grep -qx "capture: cannot write $work/full/c.tar.gz: No space left on device (the file system on $work/full has [0-9]* KB free); nothing kept" "$work/err" ||
    fail "full: message: $(cat "$work/err")"
  [ -z "$(ls -A "$work/full")" ] || fail "full: left $(ls -A "$work/full")"
  ;;
device-archive)
  static_program
  # The device archive as a user unpacks and pushes it: every file listed in SHA256SUMS, the
  # README naming each and the one command, and capture.sh run from it in a device's root.
  version=$(sed -n 's/^project(quarrystat VERSION \([0-9][0-9.]*\) .*/\1/p' CMakeLists.txt)
  archive=$(release/device-archive.sh "$version" 0 x86_64 "$binary" "$program" "$work/dist") || fail "device-archive.sh failed"
  name=quarrystat-$version-x86_64-linux
  [ "$(tar -tzf "$archive" | LC_ALL=C sort | tr '\n' ' ')" = "$name/ $name/README $name/SHA256SUMS $name/VERSION $name/capture.sh $name/quarry-capture $name/quarrystat $name/quarrystat.1 $name/record.sh " ] ||
    fail "contents: $(tar -tzf "$archive")"
  root=$work/root
  device_root "$root"
  rm "$root/capture.sh" "$root/record.sh" "$root/quarry-capture"
  tar -xzf "$archive" -C "$root/data/local/tmp" --strip-components=1
  (cd "$root/data/local/tmp" && sha256sum --quiet -c SHA256SUMS) || fail "checksums differ"
  [ "$(cut -c67- "$root/data/local/tmp/SHA256SUMS" | LC_ALL=C sort | tr '\n' ' ')" = "README VERSION capture.sh quarry-capture quarrystat quarrystat.1 record.sh " ] ||
    fail "SHA256SUMS lists: $(cat "$root/data/local/tmp/SHA256SUMS")"
  for f in quarrystat quarry-capture capture.sh record.sh; do
    grep -q "^    $f  " "$root/data/local/tmp/README" || fail "README does not name $f"
  done
  grep -qx "    adb push quarrystat quarry-capture capture.sh record.sh /data/local/tmp/" "$root/data/local/tmp/README" ||
    fail "README does not push the four files"
  grep -qx "    adb shell sh /data/local/tmp/capture.sh /data/local/tmp/capture.tar.gz" "$root/data/local/tmp/README" ||
    fail "README does not give the one command"
  timeout 60 chroot "$root" /bin/busybox sh /data/local/tmp/capture.sh -b /data/local/tmp/quarrystat /data/local/tmp/c.tar.gz ||
    fail "the archive's capture.sh: exit status $?"
  [ "$(info "$root/data/local/tmp/c.tar.gz" binary_version)" = "$version" ] || fail "binary_version: $(info "$root/data/local/tmp/c.tar.gz" binary_version)"
  snapshot/replay.sh "$root/data/local/tmp/c.tar.gz" "$binary" -u >"$work/replayed" 2>/dev/null
  scripts/run-in-tree.sh sample/device "$binary" -u >"$work/direct" 2>/dev/null
  diff "$work/direct" "$work/replayed" || fail "-u differs on the archive's capture"
  ;;
*)
  fail "no such case"
  ;;
esac
echo "ok $case_name"
