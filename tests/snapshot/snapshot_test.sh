#!/usr/bin/env bash
# Tests of the user's snapshot scripts (snapshot/): capture under mksh, replay of a hostile
# capture, and compare on the lab's before/after pair.
#   snapshot_test.sh BINARY CASE
# Cases: compare-lab-pair, compare-builds, compare-same, compare-unreadable, compare-device-text, compare-binary,
# truncated, hostile, hostile-names, time-bound, capture-mksh, capture-info, capture-incomplete,
# record-mksh, record-low-space.
source "$(dirname "$0")/../case.sh"
pair=tests/data/pair
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
  cp snapshot/capture.sh snapshot/record.sh "$1/"
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
  grep -q "^replay: cannot unpack $work/bad.tar.gz" "$work/err" && grep -q "^compare: cannot replay" "$work/err" ||
    fail "messages: $(cat "$work/err")"
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
compare-device-text)
  # The lab pair with an exporter named "a|b" and a holder whose name retitles and clears a
  # terminal: the facts keep their columns and the escape bytes arrive as text.
  /usr/bin/python3 - "$pair/after.tar.gz" "$work/after.tar.gz" <<'PY'
import io, sys, tarfile
src, dst = sys.argv[1:]
new = {"./sys/kernel/dmabuf/buffers/9/exporter_name": b"a|b\n",
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
  grep -q $'\x1b\|\x07' "$work/out" "$work/err" && fail "a control byte reached the terminal"
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
  grep -q "^compare: cannot replay $work/cut.tar.gz" "$work/err" || fail "message: $(cat "$work/err")"
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
  ;;
capture-mksh)
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
  # Nor does one stopped while it writes: here a tar that has begun its archive when TERM comes.
  rm "$root/bin/tar"
  printf '#!/bin/mksh\necho partial >"$2"\nsleep 30\n' >"$root/bin/tar"
  chmod 755 "$root/bin/tar"
  (cd "$root" && find . | LC_ALL=C sort) >"$work/before"
  timeout -s TERM 2 chroot "$root" /bin/mksh /capture.sh /out/stopped.tar.gz 2>/dev/null
  (cd "$root" && find . | LC_ALL=C sort) | diff "$work/before" - || fail "a stopped capture left files behind"
  ;;
capture-info)
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
  ;;
capture-incomplete)
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
  # No staging folder (neither TMPDIR nor /tmp): it stops before copying anything anywhere.
  (cd "$root" && find . -type f -exec md5sum {} + | LC_ALL=C sort) >"$work/before"
  TMPDIR=/nowhere timeout 60 chroot "$root" /bin/mksh /capture.sh /out/c.tar.gz 2>"$work/err"
  status=$?
  [ $status = 1 ] && grep -qx "capture: cannot make a staging folder in /nowhere" "$work/err" ||
    fail "without a staging folder: status $status: $(cat "$work/err")"
  (cd "$root" && find . -type f -exec md5sum {} + | LC_ALL=C sort) | diff "$work/before" - ||
    fail "without a staging folder it wrote into the device's own paths"
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
  # A tar that has begun its archive and takes long: TERM comes while it packs.
  rm "$root/bin/tar"
  printf '#!/bin/mksh\necho partial >"$2"\nexec sleep 30\n' >"$root/bin/tar"
  chmod 755 "$root/bin/tar"
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
  # A target with little room: nothing at all below the default margin (64 MB); with a 1 MB
  # margin, the recording stops by itself before a capture would cut into it.
  root=$work/root
  device_root "$root"
  mkdir -p "$root/rec"
  mount -t tmpfs -o size=4m quarry-rec "$root/rec" || fail "cannot mount a tmpfs"
  trap 'umount -l "$root/rec"; rm -rf "$work"' EXIT
  echo "quarry-rec /rec tmpfs rw 0 0" >"$root/proc/mounts"
  timeout 60 chroot "$root" /bin/mksh /record.sh 1 3 /rec 2>"$work/err"
  status=$?
  [ $status = 4 ] || fail "exit status $status, not 4: $(cat "$work/err")"
  grep -q "^record: stopping after 0 captures: [0-9]* KB free in /rec, the next capture needs 65536 KB (64 MB kept free)$" \
    "$work/err" || fail "message: $(cat "$work/err")"
  [ "$(ls -A "$root/rec")" = "" ] || fail "wrote $(ls -A "$root/rec")"
  # With a 1 MB margin and 16 KB more free, the first capture fits; the next counts as ten
  # times the first (the staging copy is uncompressed) and would cut into the margin.
  avail=$(df -k --output=avail "$root/rec" | tail -1)
  dd if=/dev/zero of="$root/rec/filler" bs=1k count=$((avail - 1024 - 16)) 2>/dev/null
  timeout 60 chroot "$root" /bin/busybox sh /record.sh -m 1 1 5 /rec 2>"$work/err"
  status=$?
  [ $status = 4 ] || fail "-m 1: exit status $status, not 4: $(cat "$work/err")"
  grep -q "^record: stopping after 1 captures: " "$work/err" || fail "message: $(cat "$work/err")"
  [ "$(ls -A "$root/rec" | tr '\n' ' ')" = "capture-0001.tar.gz filler " ] || fail "the folder holds: $(ls -A "$root/rec")"
  ;;
*)
  fail "no such case"
  ;;
esac
echo "ok $case_name"
