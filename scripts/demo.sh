#!/usr/bin/env bash
# Sets up, builds the static quarrystat and runs every report on the bundled sample device
# snapshot, or on the snapshot given instead:
#   demo.sh [TREE | CAPTURE.tar.gz]
# TREE is a directory laid out like a device's /proc, /d and /sys; CAPTURE is an archive made by
# capture/capture.sh, replayed through snapshot/replay.sh (which checks it first).
# With QUARRY_BINARY set, that binary runs the reports and nothing is set up or built. Each
# report is stopped after QUARRY_REPLAY_SECONDS (default 120), on a tree as on a capture.
set -euo pipefail
usage="usage: $0 [TREE | CAPTURE.tar.gz]"
[ $# -le 1 ] || { echo "$usage" >&2; exit 2; }
case ${1:-} in -*) echo "$usage" >&2; exit 2 ;; esac
# The snapshot is named from where the user stands, before the cd below.
source=""
kind=tree
if [ $# = 1 ]; then
  if [ -d "$1" ]; then
    source=$(realpath -- "$1")
  elif [ -f "$1" ]; then
    source=$(realpath -- "$1")
    kind=capture
  else
    echo "demo: no such snapshot directory or capture: $1" >&2
    exit 2
  fi
fi
binary=${QUARRY_BINARY:+$(realpath -m -- "$QUARRY_BINARY")}
cd "$(dirname "$0")/.."
if [ -z "$binary" ]; then
  scripts/setup.sh
  scripts/build.sh default
  binary=$PWD/build/default/tool/quarrystat
fi
[ -x "$binary" ] || { echo "demo: no executable binary at $binary" >&2; exit 2; }
[ -n "$source" ] || source=sample/device

# The tool's own statuses are 0, 1, 239, 244, 251 and 255. Any other one comes from the script
# around it (no such tree, a capture that cannot be unpacked or is refused, out of time), and
# the next report would only fail the same way: the demo stops there, with that status.
run() {
  local status=0
  printf '\n$ quarrystat %s\n' "$*"
  if [ $kind = capture ]; then
    snapshot/replay.sh "$source" "$binary" "$@" || status=$?
  else
    # A tree may hold a FIFO where the tool reads a file; replay.sh bounds its own runs.
    timeout -k 5 "${QUARRY_REPLAY_SECONDS:-120}" scripts/run-in-tree.sh "$source" "$binary" "$@" || status=$?
  fi
  case $status in
    0) ;;
    1 | 239 | 244 | 251 | 255) printf '[exit status %d]\n' $status ;;
    124) [ $kind = capture ] ||  # replay.sh has said so
           echo "demo: quarrystat $* did not finish within ${QUARRY_REPLAY_SECONDS:-120} s on $source; stopped" >&2
         exit $status ;;
    *) echo "demo: stopped at quarrystat $* (status $status), the reason is above" >&2; exit $status ;;
  esac
}
run -s
run -p 8b900000
run -p 0xc0000000
run -p 880000000
run -k
run -kmodem_ctrl
run -n
run -u
