#!/usr/bin/env bash
# Replays quarrystat on a capture taken by capture/capture.sh:
#   snapshot/replay.sh [--drop-unsafe] CAPTURE.tar.gz BINARY [ARGS...]
#   snapshot/replay.sh [--drop-unsafe] --reports OUTDIR CAPTURE.tar.gz BINARY
# The first form runs the tool once with ARGS and ends with its status. The second unpacks the
# capture once and runs -u, -n and -s on it, writing OUTDIR/MODE.out, MODE.err and MODE.status
# for each (MODE u, n, s); it ends with 0 when all three ran, whatever their own statuses. It
# also copies out the few files of the capture that no report prints, when the capture holds
# them as regular files (at most 16 MiB each): OUTDIR/files/capture-info (the capture's
# metadata), files/d/memblock/memory and files/d/dma_buf/bufinfo, and the processes' command
# lines as files/cmdline.tar (members proc/PID/cmdline).
#   snapshot/replay.sh [--drop-unsafe] --series OUTDIR BINARY CAPTURE...
# The third does what --reports does for each capture in turn, in one session (one namespace,
# the binary examined once, one unpacking process that keeps the tree from one capture to the
# next and changes only what differs, so that each tree lists exactly as a fresh unpacking
# makes it): capture N (from 1) gets OUTDIR/N/, with the files of --reports, N/replay.err
# (what replay said of it) and N/status (replay's status for it, as the second form would end
# with); the line "N STATUS" on standard output says it is done. A capture refused, truncated
# or stopped does not stop the others. It ends with 0 when it went through them all.
# An arm64 binary runs under user-mode emulation (qemu-aarch64-static) on any other host.
#
# A capture may come from anyone's device. It is unpacked by unpack.py, which keeps only what
# capture/members.txt lists (folders and regular files, each within its size) and names on
# standard error everything it leaves out; a capture holding any of it is refused (status 3)
# unless --drop-unsafe is given, which replays what is left. A capture that does not end properly
# is refused as truncated (status 4). The tool runs from a root of its own, with the capture's
# proc, d, sys and dev bound in read-only (scripts/run-in-tree.sh --in-place), for at most
# QUARRY_REPLAY_SECONDS (default 120) per run, with at most 1 GiB of data memory and writing at
# most QUARRY_REPLAY_OUTPUT bytes (default 64 MiB) to a file: a run stopped by the time limit
# ends replay with status 124, a report past the output bound with status 5 (standard output
# that is a pipe or a terminal is not bounded; the reports of --reports always are).
# Status 2: the capture or the binary cannot be used (said in one line, before anything runs).
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
here=$top/snapshot
usage="usage: $0 [--drop-unsafe] CAPTURE.tar.gz BINARY [ARGS...]
       $0 [--drop-unsafe] --reports OUTDIR CAPTURE.tar.gz BINARY
       $0 [--drop-unsafe] --series OUTDIR BINARY CAPTURE.tar.gz..."
lenient=0
reports=""
series=0
while [ $# -gt 0 ]; do
  case $1 in
    --drop-unsafe) lenient=1; shift ;;
    --reports|--series)
      [ $# -ge 2 ] || { echo "$usage" >&2; exit 2; }
      [ "$1" = --reports ] || series=1
      reports=$2; shift 2 ;;
    *) break ;;
  esac
done
if [ $series = 0 ] && [ -n "$reports" ]; then [ $# -eq 2 ] || { echo "$usage" >&2; exit 2; }; fi
[ $# -ge 2 ] || { echo "$usage" >&2; exit 2; }
if [ $series = 1 ]; then
  "$here/check-binary.sh" "$1" || exit 2
  binary=$(realpath "$1")
  shift
  captures=()
  for c in "$@"; do
    # (One that is missing is said so in its turn, as its own replay would.)
    if [ -f "$c" ]; then captures+=("$(realpath "$c")"); else captures+=("$c"); fi
  done
  set --
else
  [ -f "$1" ] || { echo "replay: no such capture: $1" >&2; exit 2; }
  "$here/check-binary.sh" "$2" || exit 2
  captures=("$(realpath "$1")")
  binary=$(realpath "$2")
  shift 2
fi
[ -z "$reports" ] || [ -d "$reports" ] || { echo "replay: no such folder: $reports" >&2; exit 2; }
seconds=${QUARRY_REPLAY_SECONDS:-120}
output=${QUARRY_REPLAY_OUTPUT:-$((64 << 20))}
# The capture is unpacked onto a tmpfs of replay's own (nodev, nosuid), in a mount namespace of
# its own, and the tool runs on it where it lies: no copy is made, and the whole tree is gone
# with the namespace when replay ends, however it ends.
mnt=$(mktemp -d "${TMPDIR:-/tmp}/quarry-replay.XXXXXX")
# File data past unpack.py's memory bound waits on disk (QUARRY_SPILL_DIR, default /var/tmp),
# not on the tree's tmpfs, where it would be held in memory twice.
spill=$(mktemp -d "${QUARRY_SPILL_DIR:-/var/tmp}/quarry-spill.XXXXXX")
trap 'rmdir "$mnt"; rm -rf "$spill"' EXIT
# Stopped (TERM, INT, HUP), replay stops everything it started before its mount point goes:
# timeout(1) puts each bounded step in a process group of its own, which a signal to replay's
# group does not reach, and an unpacking still running when the mount point is removed (its
# tmpfs then detaches) would go on writing the capture onto the disk below it. Each process is
# found through its parent's children files (no subshell, which would be one of them), all are
# stopped first, so that none starts another, then killed, and waited for (a few seconds at
# most).
below=()
list_below() {
  local f kid
  local -a kids
  for f in /proc/"$1"/task/*/children; do
    kids=()
    read -r -a kids <"$f" 2>/dev/null || true
    for kid in "${kids[@]}"; do
      below+=("$kid")
      list_below "$kid"
    done
  done
}
stop() {
  trap '' TERM INT HUP
  local round pid alive
  for round in 1 2 3; do
    below=()
    list_below $$
    [ ${#below[@]} = 0 ] || kill -STOP "${below[@]}" 2>/dev/null || true
  done
  [ ${#below[@]} = 0 ] || kill -KILL "${below[@]}" 2>/dev/null || true
  wait 2>/dev/null || true
  for round in $(seq 100); do
    alive=0
    for pid in "${below[@]}"; do
      # Gone, or a zombie (which holds no mount and writes nothing) about to be reaped.
      if [ -e "/proc/$pid" ] &&
        [ "$(sed -n 's/^State:\t\(.\).*/\1/p' "/proc/$pid/status" 2>/dev/null)" != Z ]; then
        alive=1
        break
      fi
    done
    [ $alive = 1 ] || break
    sleep 0.05
  done
  exit "$1"
}
trap 'stop 143' TERM
trap 'stop 130' INT
trap 'stop 129' HUP
if [ "$(id -u)" -eq 0 ]; then ns=(unshare -m); else ns=(unshare -Urm); fi
status=0
# In the background, so that a signal's trap runs at once, not after the namespace's end.
"${ns[@]}" bash -s -- "$top" "$mnt" "$lenient" "$seconds" "$reports" "$series" "$binary" \
  "$spill" "$output" "${#captures[@]}" "${captures[@]}" "$@" <<'INNER' &
set -euo pipefail
top=$1 mnt=$2 lenient=$3 seconds=$4 reports=$5 series=$6 binary=$7 spill=$8 output=$9
count=${10}
shift 10
captures=("${@:1:$count}")
shift "$count"
# No larger than unpack.py's bound on a capture's files (1 GiB), with room for its folders.
mount -t tmpfs -o mode=755,nodev,nosuid,size=$(((1 << 30) + (64 << 20))) quarry-replay "$mnt"
tree=$mnt/tree
mkdir "$tree"
if [[ $(file -b "$binary") == *aarch64* ]] && [ "$(uname -m)" != aarch64 ]; then
  export QEMU=${QEMU:-/usr/bin/qemu-aarch64-static}
fi
# The data limit leaves user-mode emulation's address-space reservation alone (it is not data);
# a sanitizer build reserves its shadow memory as data, so it runs with the time limit only.
limit=(prlimit --data=$((1 << 30)))
if [[ $(ldd "$binary" 2>/dev/null || true) == *libasan* ]]; then limit=(); fi
export QUARRY_OUTPUT_LIMIT=$output

# One unpacking process for the session (unpack.py --session): asked for one capture at a
# time, it makes the tree that capture's, each folder's entries in name order, as a copy of a
# tree is made (the tool lists folders in the order they were made), and answers with its
# status. It has seconds per capture; past them it is killed, and the next capture, if any, gets
# a new one on an empty tree.
unpacker=""
unpack() { # CAPTURE MESSAGES ("-": standard error) -> ustatus
  local answer=""
  if [ -z "$unpacker" ]; then
    coproc UNPACKER { exec /usr/bin/python3 "$top/snapshot/unpack.py" --session --spill "$spill" "$tree"; }
    unpacker=$UNPACKER_PID to_unpacker=${UNPACKER[1]} from_unpacker=${UNPACKER[0]}
  fi
  # (A write to an unpacking that has ended fails, rather than ending this shell by SIGPIPE.)
  trap '' PIPE
  if printf '%s\0%s\0' "$1" "$2" >&"$to_unpacker" 2>/dev/null &&
    read -r -t "$seconds" -u "$from_unpacker" answer && [[ $answer =~ ^[0-9]+$ ]]; then
    trap - PIPE
    ustatus=$answer
    return
  fi
  trap - PIPE
  ustatus=2
  if kill -0 "$unpacker" 2>/dev/null; then ustatus=124; fi
  afresh
}
# The session starts again from nothing: the unpacking is killed, and what it held (the tree,
# its spilled data) goes with it, as does the tool's root kept beside the tree (detached first,
# whatever is still bound in it).
afresh() {
  if [ -n "$unpacker" ]; then
    kill -KILL "$unpacker" 2>/dev/null || true
    eval "exec $to_unpacker>&- $from_unpacker<&-"
    wait "$unpacker" 2>/dev/null || true
    unpacker=""
  fi
  if [ -d "$tree.root" ]; then
    umount -R -l "$tree.root" 2>/dev/null || true
    rmdir "$tree.root"
  fi
  rm -rf "$tree" "$tree.root.dynamic" "$tree.moving" "$spill"/unpacking-*
  mkdir "$tree"
}
# A run killed by SIGXFSZ (128 + 25) passed the output bound.
too_much() {
  echo "replay: refusing $capture: its $1 passed $output bytes of output, more than any device's" \
    "report; stopped" >&2
}
# replay_one CAPTURE OUTDIR [ARGS...]: one capture unpacked and replayed; its status, as this
# script's when it replays one (OUTDIR empty: the tool runs once with ARGS).
replay_one() {
  local capture=$1 out=$2 status=0 mode
  shift 2
  unpack "$capture" "${messages:--}"
  case $ustatus in
    0) ;;
    3)
      if [ "$lenient" = 0 ]; then
        echo "replay: refusing $capture: it holds entries that a capture never holds (named above);" \
          "--drop-unsafe replays it without them" >&2
        return 3
      fi ;;
    4) return 4 ;;
    124) echo "replay: unpacking $capture took more than $seconds s; stopped" >&2; return 124 ;;
    *) return 2 ;;
  esac
  if [ -z "$out" ]; then
    timeout -k 5 "$seconds" "${limit[@]}" "$top/scripts/run-in-tree.sh" --in-place "$tree" \
      "$binary" "$@" </dev/null || status=$?
    if [ $status = 124 ] || [ $status = 137 ]; then
      echo "replay: quarrystat did not finish within $seconds s on $capture; stopped" >&2
      status=124
    fi
    [ $status != 153 ] || { too_much report; return 5; }
    return $status
  fi
  local f size copy=()
  local -a files=()
  for f in capture-info d/memblock/memory d/dma_buf/bufinfo; do
    [ ! -f "$tree/$f" ] || [ -L "$tree/$f" ] || files+=("$f")
  done
  if [ ${#files[@]} -gt 0 ]; then
    f=0
    while read -r size; do
      [ "$size" -gt $((16 << 20)) ] || copy+=("${files[$f]}")
      f=$((f + 1))
    done < <(cd "$tree" && stat -c %s -- "${files[@]}")
    [ ${#copy[@]} = 0 ] || (mkdir -p "$out/files" && cd "$tree" && cp --parents -- "${copy[@]}" "$out/files/")
  fi
  # Each process's command line (the page names holders by it; no report reads it): its regular
  # files of at most 64 KiB, in one archive, OUTDIR/files/cmdline.tar (a capture holds one a
  # process: a thousand files made one by one would cost more than the reports). find follows no
  # link, so each name runs through folders of the capture only.
  if [ -d "$tree/proc" ] && [ ! -L "$tree/proc" ]; then
    mkdir -p "$out/files"
    (cd "$tree" && find proc -mindepth 2 -maxdepth 2 -path 'proc/[0-9]*/cmdline' -type f \
      -size -65k -print0 | tar -c --null --verbatim-files-from --no-recursion -T - \
      -f "$out/files/cmdline.tar")
  fi
  # The three reports run on the one tree, each bounded on its own. The tool's own root
  # (run-in-tree.sh makes it beside the tree) is kept for the next capture of the session. The
  # bound over all three is above the sum of theirs (each may take 5 s more to die), so that it
  # stops only a run-in-tree.sh stuck outside the reports: one stopped midway would leave a
  # report running on and what it put in the tree and the root (a sanitizer build's own /proc
  # entries), and the next capture would meet them. Should it stop one, the session starts again.
  QUARRY_RUN_SECONDS=$seconds timeout -k 5 $((4 * seconds + 20)) "${limit[@]}" \
    "$top/scripts/run-in-tree.sh" --in-place --keep-root --each "$out" "$tree" "$binary" \
    -u -n -s </dev/null || status=$?
  [ $status = 0 ] || afresh
  local -A ran=()
  for mode in u n s; do
    ran[$mode]=124
    [ ! -f "$out/$mode.status" ] || read -r "ran[$mode]" <"$out/$mode.status" || true
  done
  for mode in u n s; do
    [ "${ran[$mode]}" != 124 ] || status=124
  done
  if [ $status != 0 ]; then
    echo "replay: quarrystat did not finish within $seconds s on $capture; stopped" >&2
    return 124
  fi
  for mode in u n s; do
    [ "${ran[$mode]}" != 153 ] || { too_much "-$mode report"; return 5; }
  done
  return 0
}
# The unpacking ends with its requests, and is waited for (its time counts as replay's).
finish() {
  if [ -n "$unpacker" ]; then
    eval "exec $to_unpacker>&- $from_unpacker<&-"
    wait "$unpacker" 2>/dev/null || true
  fi
}
if [ "$series" = 0 ]; then
  status=0
  replay_one "${captures[0]}" "$reports" "$@" || status=$?
  finish
  exit $status
fi
n=0
for capture in "${captures[@]}"; do
  n=$((n + 1))
  mkdir "$reports/$n"
  messages=$reports/$n/replay.err
  status=0
  if [ -f "$capture" ]; then
    replay_one "$capture" "$reports/$n" 2>>"$messages" || status=$?
  else
    echo "replay: no such capture: $capture" >"$messages"
    status=2
  fi
  echo $status >"$reports/$n/status"
  echo "$n $status"
done
finish
exit 0
INNER
wait $! || status=$?
exit $status
