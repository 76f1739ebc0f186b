#!/usr/bin/env bash
# The lab's before/after check, run by lab/run.sh on the guest's console: takes the two captures
# that lab/guest/before_after.sh printed, compares them with snapshot/compare.sh and checks that
# the comparison names exactly what leak_client did between them. Prints "ok ..." / "FAIL ...".
#   lab/before_after.sh CONSOLE BINARY [SAVE_DIR]   (SAVE_DIR keeps before.tar.gz, after.tar.gz)
set -uo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
console=$1 binary=$2 save=${3:-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
check() {  # check NAME STATUS
  if [ "$2" = 0 ]; then echo "ok $1"; else echo "FAIL $1"; fi
}
for side in before after; do
  sed -n "/^QUARRY-PAIR-BEGIN $side\$/,/^QUARRY-PAIR-END\$/p" "$console" | sed '1d;$d' |
    base64 -d >"$work/$side.tar.gz" 2>/dev/null
done
[ -s "$work/before.tar.gz" ] && [ -s "$work/after.tar.gz" ]
check "before/after: the guest captured twice" $? || exit 0
[ -z "$save" ] || cp "$work/before.tar.gz" "$work/after.tar.gz" "$save/"
pid=$(sed -n 's/^QUARRY-PAIR-CLIENT //p' "$console")
ino() { awk -v n="$1" '$1 == "QUARRY-PAIR-BUFFER" && $2 == n { print $3 }' "$console"; }
owner="[$pid]leak_client"
sort >"$work/want" <<EOF2
dmabuf $(ino freed) no longer unmapped: 65536 bytes, system, was held by $owner
dmabuf $(ino unmap) became unmapped: 131072 bytes, system, held by $owner
dmabuf $(ino park) holders changed: $owner -> kernel
dmabuf $(ino leak) became unmapped: 262144 bytes, system, held by $owner
EOF2
timeout 300 "$top/snapshot/compare.sh" "$work/before.tar.gz" "$work/after.tar.gz" "$binary" >"$work/out" 2>"$work/err"
check "before/after: compare exits 0" $? || cat "$work/err"
# 128 KB unmapped and 256 KB leaked, 64 KB freed: +320 KB.
if [ -s "$work/before.tar.gz" ] && tar -tzf "$work/before.tar.gz" | grep -x './sys/kernel/dmabuf/buffers/' >/dev/null; then
  grep -E '^dmabuf [0-9]+ ' "$work/out" | sort | diff "$work/want" - >"$work/diff"
  check "before/after: compare names the freed, unmapped, parked and leaked buffers, nothing else" $? ||
    cat "$work/diff"
  grep -q '^dmabuf unmapped total: .* (+320 KB)$' "$work/out"
  check "before/after: -u unmapped total up by 320 KB" $?
else
  # A kernel without the DMA-BUF sysfs statistics: -u has no rows to compare, and says so.
  grep -q '^dmabuf: no figures before: no DMA-BUF sysfs statistics$' "$work/out" &&
    grep -q '^dmabuf: no figures after: no DMA-BUF sysfs statistics$' "$work/out"
  check "before/after: compare says -u has no figures without DMA-BUF sysfs statistics" $?
fi
grep -q '^kmem DMA-BUF unmapped: .* (+320 KB)$' "$work/out"
check "before/after: -n DMA-BUF unmapped up by 320 KB" $?
[ "$(grep -c '^reserved .*(+0 KB)$' "$work/out")" = 9 ] && [ "$(grep -c '^reserved ' "$work/out")" = 9 ]
check "before/after: the nine -s summary figures, unchanged" $?
[ "$(grep -c '^kmem ' "$work/out")" = 7 ]
check "before/after: the seven -n figures" $? || cat "$work/out"
