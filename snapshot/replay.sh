#!/usr/bin/env bash
# Replays quarrystat on a capture made by capture.sh:
#   snapshot/replay.sh [--drop-unsafe] CAPTURE.tar.gz BINARY [ARGS...]
# An arm64 binary runs under user-mode emulation (qemu-aarch64-static) on any other host.
#
# A capture may come from anyone's device. It is unpacked by unpack.py, which keeps folders and
# regular files only and names on standard error every device node, FIFO, socket and link out of
# the capture that it leaves out; a capture holding any of them is refused (status 3) unless
# --drop-unsafe is given, which replays what is left. The tool runs in a chroot on a private
# nodev,nosuid tmpfs (scripts/run-in-tree.sh), for at most QUARRY_REPLAY_SECONDS (default 120)
# and with at most 1 GiB of data memory; a run stopped by the time limit exits with status 124.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
here=$top/snapshot
usage="usage: $0 [--drop-unsafe] CAPTURE.tar.gz BINARY [ARGS...]"
lenient=0
if [ "${1:-}" = --drop-unsafe ]; then lenient=1; shift; fi
[ $# -ge 2 ] || { echo "$usage" >&2; exit 2; }
capture=$(realpath "$1")
binary=$(realpath "$2")
shift 2
[ -f "$capture" ] || { echo "replay: no such capture: $1" >&2; exit 2; }
seconds=${QUARRY_REPLAY_SECONDS:-120}
tree=$(mktemp -d)
trap 'rm -rf "$tree"' EXIT
status=0
timeout -k 5 "$seconds" /usr/bin/python3 "$here/unpack.py" "$capture" "$tree" || status=$?
case $status in
  0) ;;
  3)
    if [ "$lenient" = 0 ]; then
      echo "replay: refusing $capture: it holds entries that capture.sh never writes (named above);" \
        "--drop-unsafe replays it without them" >&2
      exit 3
    fi ;;
  124) echo "replay: unpacking $capture took more than $seconds s; stopped" >&2; exit 124 ;;
  *) exit 2 ;;
esac
if [[ $(file -b "$binary") == *aarch64* ]] && [ "$(uname -m)" != aarch64 ]; then
  export QEMU=${QEMU:-/usr/bin/qemu-aarch64-static}
fi
# The data limit leaves user-mode emulation's address-space reservation alone (it is not data);
# a sanitizer build reserves its shadow memory as data, so it runs with the time limit only.
limit=(prlimit --data=$((1 << 30)))
if [[ $(ldd "$binary" 2>/dev/null || true) == *libasan* ]]; then limit=(); fi
set +e
timeout -k 5 "$seconds" "${limit[@]}" "$top/scripts/run-in-tree.sh" "$tree" "$binary" "$@"
status=$?
if [ $status = 124 ] || [ $status = 137 ]; then
  echo "replay: quarrystat did not finish within $seconds s on $capture; stopped" >&2
  status=124
fi
exit $status
