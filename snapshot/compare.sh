#!/usr/bin/env bash
# Compares two captures of one device (capture.sh), taken before and after a use case:
#   snapshot/compare.sh [--drop-unsafe] BEFORE.tar.gz AFTER.tar.gz BINARY
# Replays -u, -n and -s on each (replay.sh, with its checks and bounds) and prints what changed,
# one fact per line, each line starting with the report it comes from:
#   dmabuf INODE became unmapped: SIZE bytes, EXPORTER, held by OWNERS
#   dmabuf INODE no longer unmapped: SIZE bytes, EXPORTER, was held by OWNERS
#   dmabuf INODE holders changed: OWNERS -> OWNERS
#   dmabuf unmapped total: N KB -> N KB (+N KB)
#   kmem COUNTER: N KB -> N KB (+N KB)           every counter of -n, changed or not
#   reserved FIGURE: N KB -> N KB (+N KB)        every figure of the -s summary
# A report that gives no figures for a capture is named once with the reason, and the figures
# it lacks read "none". Exit status 0 when both captures could be replayed; otherwise the
# status of the replay that failed (2 unreadable, 3 refused, 124 out of time) with its message.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
flags=()
if [ "${1:-}" = --drop-unsafe ]; then flags=(--drop-unsafe); shift; fi
[ $# -eq 3 ] || { echo "usage: $0 [--drop-unsafe] BEFORE.tar.gz AFTER.tar.gz BINARY" >&2; exit 2; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

side=0
for capture in "$1" "$2"; do
  side=$((side + 1))
  for mode in u n s; do
    status=0
    "$here/replay.sh" "${flags[@]}" "$capture" "$3" -$mode >"$work/$side.$mode" 2>"$work/err" ||
      status=$?
    # The tool's own statuses are 0, 1, 239, 244, 251 and 255; these three are replay's.
    case $status in
      2 | 3 | 124)
        cat "$work/err" >&2
        echo "compare: cannot replay $capture" >&2
        exit $status ;;
    esac
    echo "$status" >"$work/$side.$mode.status"
  done
done

# Each report becomes "key<TAB>value" lines (dmabuf rows: inode, then size, exporter and owners),
# or one "-<TAB>reason" line when it gives no figures.
normalize() {  # normalize MODE FILE STATUS
  awk -v mode="$1" -v status="$3" '
    function trim(s) { sub(/^ +/, "", s); sub(/ +$/, "", s); return s }
    function kb(s) { return s ~ /^-?[0-9]+$/ ? s : "unknown" }
    mode == "u" && /^Not support ion$/ { reason = "the device has /dev/ion"; next }
    mode == "u" && /^Unable to read DMA-BUF sysfs stats/ { reason = "no DMA-BUF sysfs statistics"; next }
    mode == "u" && FNR > 2 && index($0, " |") == 17 {
      # "%16u |%16u | %16s | %-64s": the owners may hold bars of their own, so cut at the first three.
      rest = $0; n = 0
      while (n < 3 && (i = index(rest, "|")) > 0) { f[++n] = trim(substr(rest, 1, i - 1)); rest = substr(rest, i + 1) }
      printf "row %s\t%s\t%s\t%s\n", f[1], f[2], f[3], trim(rest); rows++; next
    }
    mode == "u" && /^Unmapped dmabuf total size is / { printf "unmapped total\t%s\n", kb($6); total = 1; next }
    mode == "n" && /^[A-Za-z-]+( [A-Za-z]+)?: +[^ ]+ KB$/ {
      key = substr($0, 1, index($0, ":") - 1); v = $0; sub(/^[^:]*: +/, "", v); sub(/ KB$/, "", v)
      printf "%s\t%s\n", key, kb(v); total = 1; next
    }
    mode == "n" && /unmapped: +unknown/ { key = substr($0, 1, index($0, ":") - 1); printf "%s\tunknown\n", key; next }
    mode == "n" && /^Kernel Memory total size = / { printf "Kernel Memory total size\t%s\n", kb($6); next }
    mode == "s" && /^ReservedMemoryTotal -?[0-9]+ KB \?=$/ { printf "ReservedMemoryTotal\t%s\n", $2; total = 1; next }
    mode == "s" && /^-?[0-9]+ KB = bp hole\(/ {
      line = $0; gsub(/[()]/, " ", line); split(line, w, " ")
      printf "total of the parts\t%s\nbp hole\t%s\nfdt_nomap\t%s\nmb_reserved\t%s\ncma_total\t%s\n", w[1], w[6], w[10], w[14], w[18]
      next
    }
    mode == "s" && /^bootloader_memhole\(/ {
      line = $0; gsub(/[()]/, " ", line); split(line, w, " ")
      printf "bootloader_memhole\t%s\nfdt_nomap_inhole\t%s\n", w[2], w[11]; next
    }
    mode == "s" && /^fdt nomap\(/ {
      line = $0; gsub(/[()]/, " ", line); split(line, w, " ")
      printf "fdt_nomap_inkernel\t%s\n", w[7]; next
    }
    END {
      if (!total && reason == "")
        reason = status == 0 ? "no figures in its output" : "quarrystat -" mode " exit status " status
      if (reason != "") printf "-\t%s\n", reason
    }' "$2"
}
for s in 1 2; do
  for mode in u n s; do
    normalize $mode "$work/$s.$mode" "$(cat "$work/$s.$mode.status")" >"$work/$s.$mode.kv"
  done
done

echo "compare: before $1, after $2"
for mode in u n s; do
  case $mode in u) tag=dmabuf ;; n) tag=kmem ;; s) tag=reserved ;; esac
  awk -v tag=$tag -F '\t' '
    function delta(a, b) {
      if (a !~ /^-?[0-9]+$/ || b !~ /^-?[0-9]+$/) return ""
      return sprintf(" (%s%d KB)", b - a >= 0 ? "+" : "", b - a)
    }
    function show(v) { return v == "" ? "none" : v ~ /^-?[0-9]+$/ ? v " KB" : v }
    FNR == 1 { side++ }
    $1 == "-" { why[side] = $2; next }
    $1 ~ /^row / {
      ino = substr($1, 5); row[side, ino] = $2 " bytes, " $3; own[side, ino] = $4; inodes[ino] = 1; next
    }
    { if (!($1 in seen)) { seen[$1] = 1; order[++keys] = $1 } val[side, $1] = $2 }
    END {
      for (s = 1; s <= 2; s++)
        if (why[s] != "") printf "%s: no figures %s: %s\n", tag, s == 1 ? "before" : "after", why[s]
      # Inodes in numeric order, so the same pair always prints the same text.
      n = 0
      for (i in inodes) list[++n] = i
      for (i = 2; i <= n; i++) { v = list[i]; for (j = i - 1; j > 0 && list[j] + 0 > v + 0; j--) list[j + 1] = list[j]; list[j + 1] = v }
      for (k = 1; k <= n; k++) {
        i = list[k]
        if (!((1, i) in row)) printf "%s %s became unmapped: %s, held by %s\n", tag, i, row[2, i], own[2, i]
        else if (!((2, i) in row)) printf "%s %s no longer unmapped: %s, was held by %s\n", tag, i, row[1, i], own[1, i]
        else if (own[1, i] != own[2, i]) printf "%s %s holders changed: %s -> %s\n", tag, i, own[1, i], own[2, i]
      }
      for (k = 1; k <= keys; k++) {
        key = order[k]
        printf "%s %s: %s -> %s%s\n", tag, key, show(val[1, key]), show(val[2, key]), delta(val[1, key], val[2, key])
      }
    }' "$work/1.$mode.kv" "$work/2.$mode.kv"
done
