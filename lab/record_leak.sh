#!/usr/bin/env bash
# The lab's recording check, run by lab/run.sh on the guest's console: takes the recording that
# lab/guest/record_leak.sh printed (capture/record.sh while leak_client leaked a "lab-leak"
# buffer every three seconds) and checks the recording itself, the leak in the tool's own
# reports of its first and last captures, and the report's suspects. Prints "ok ..." / "FAIL ...".
#   lab/record_leak.sh CONSOLE BINARY
set -uo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
console=$1 binary=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
check() {  # check NAME STATUS
  if [ "$2" = 0 ]; then echo "ok $1"; else echo "FAIL $1"; fi
}
status=$(sed -n 's/^QUARRY-RECORD-STATUS //p' "$console")
[ "$status" = 0 ]
check "recording: record.sh in the guest exits 0 (${status:-no status})" $? ||
  sed -n 's/^QUARRY-RECORD-MESSAGE /  /p' "$console"
sed -n '/^QUARRY-RECORD-BEGIN$/,/^QUARRY-RECORD-END$/p' "$console" | sed '1d;$d' | base64 -d 2>/dev/null |
  tar -xzf - -C "$work" 2>/dev/null
rec=$work/recording
[ "$(ls -A "$rec" 2>/dev/null | tr '\n' ' ')" = "$(printf 'capture-%04d.tar.gz ' 1 2 3 4 5 6 7 8)" ]
check "recording: the folder holds the eight complete captures, nothing else" $? || exit 0
pid=$(sed -n 's/^QUARRY-RECORD-CLIENT //p' "$console")
holder="[$pid]leak_client"
awk '$1 == "QUARRY-RECORD-BUFFER" { print $3 }' "$console" >"$work/leaked"
sysfs=0
tar -tzf "$rec/capture-0001.tar.gz" | grep -x './sys/kernel/dmabuf/buffers/' >/dev/null && sysfs=1

# Each capture says when it was taken, on one boot, in order, with the binary's version.
/usr/bin/python3 - "$rec" <<'PY'
import os, sys, tarfile
rec = sys.argv[1]
infos = []
for name in sorted(os.listdir(rec)):
    with tarfile.open(os.path.join(rec, name)) as t:
        text = t.extractfile("./capture-info").read().decode()
    infos.append(dict(line.split("=", 1) for line in text.splitlines()))
ups = [float(i["uptime_start"]) for i in infos]
ok = (all(i["format"] == "1" and i["binary_version"] for i in infos)
      and len({i["boot_id"] for i in infos}) == 1
      # Captures start on the two-second marks from the first, never before (one that follows
      # a capture that ran long starts late, so two may stand closer than two seconds).
      and all(b >= a for a, b in zip(ups, ups[1:]))
      and all(u - ups[0] >= 2 * k - 0.5 for k, u in enumerate(ups))
      and all(float(i["uptime_end"]) >= float(i["uptime_start"]) for i in infos))
if not ok:
    print("\n".join(f"  {i.get('uptime_start')} {i.get('boot_id')} {i.get('binary_version')}" for i in infos))
sys.exit(0 if ok else 1)
PY
check "recording: each capture-info has the boot, the binary's version, and starts on the two-second marks" $?

# The tool's own reports of the first and last captures: the leak is in -n's DMA-BUF figure
# (sysfs or, on 6.12, the debug table), and on 6.1 in -u's rows, held by the client.
count() { tar -xzOf "$1" ./d/dma_buf/bufinfo 2>/dev/null | grep -cw lab-leak; }
dmabuf_kb() {
  timeout 120 "$top/snapshot/replay.sh" "$1" "$binary" -n 2>/dev/null |
    sed -n 's/^DMA-BUF unmapped: *\([0-9]*\) KB$/\1/p'
}
first=$rec/capture-0001.tar.gz last=$rec/capture-0008.tar.gz
n_first=$(count "$first") n_last=$(count "$last")
[ "$n_first" -ge 1 ] && [ $((n_last - n_first)) -ge 3 ]
check "recording: the debug table lists the leak growing, $n_first to $n_last buffers" $?
kb_first=$(dmabuf_kb "$first") kb_last=$(dmabuf_kb "$last")
[ -n "$kb_first" ] && [ -n "$kb_last" ] && [ $((kb_last - kb_first)) = $(((n_last - n_first) * 256)) ]
check "recording: -n DMA-BUF unmapped grows by 256 KB a leaked buffer (${kb_first:-?} to ${kb_last:-?} KB)" $?
if [ $sysfs = 1 ]; then
  timeout 120 "$top/snapshot/replay.sh" "$last" "$binary" -u 2>/dev/null |
    awk -F' [|] ' -v h="$holder" '{ gsub(/ +/, " "); gsub(/^ | $/, "") } $4 == h { print $1, $2, $3 }' |
    sort >"$work/rows"
  rows_ok=1
  [ "$(wc -l <"$work/rows")" = "$n_last" ] || rows_ok=0
  while read -r inode size exporter; do
    grep -qx "$inode" "$work/leaked" && [ "$size" = 262144 ] && [ "$exporter" = system ] || rows_ok=0
  done <"$work/rows"
  [ $rows_ok = 1 ]
  check "recording: -u of the last capture has each leaked buffer, 262144 bytes, system, held by $holder" $? ||
    cat "$work/rows"
fi

# The report's suspects: growth names exactly the leak's exporter and holder (and, grouped by
# name, the buffers' own name) and nothing else. Without the sysfs statistics -u has no rows,
# so nothing can be put on an exporter or a holder: growth must not name any.
if [ ! -f "$top/snapshot/report.py" ]; then
  echo "skip recording: no snapshot/report.py in this tree, the suspects are not checked"
  exit 0
fi
timeout 600 /usr/bin/python3 "$top/snapshot/report.py" --binary "$binary" --json "$work/report.json" "$rec" \
  >/dev/null 2>"$work/err"
check "recording: report.py --json on the recording exits 0" $? || { head -5 "$work/err"; exit 0; }
/usr/bin/python3 - "$work/report.json" "$holder" $sysfs <<'PY'
import json, sys
path, holder, sysfs = sys.argv[1], sys.argv[2], sys.argv[3] == "1"
growth = json.load(open(path))["suspects"]["growth"]
want = {("exporter", "system"), ("holder", holder)} if sysfs else set()
# Schema 2: a holder is an object; the report's key for it is "[pid]comm".
key = lambda g: "[%d]%s" % (g["holder"]["pid"], g["holder"]["comm"]) if g["by"] == "holder" else g[g["by"]]  # noqa: E731
got = {(g["by"], key(g)) for g in growth if g["by"] != "name"}
names = {g["name"] for g in growth if g["by"] == "name"}
ok = (got == want and names <= {"lab-leak"}
      and all(g["shape"] == "growing" and g["bytes_per_minute"] > 0 and g["last_bytes"] > g["first_bytes"]
              for g in growth))
if not ok:
    print(f"  growth: {json.dumps(growth)}")
sys.exit(0 if ok else 1)
PY
suspects=$?
if [ $sysfs = 1 ]; then
  check "recording: the suspects' growth is the system exporter and $holder, growing, nothing else" $suspects
else
  check "recording: without sysfs statistics the suspects' growth names no exporter or holder" $suspects
fi
