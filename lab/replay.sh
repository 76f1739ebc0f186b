#!/usr/bin/env bash
# Replays quarrystat on a capture made by capture.sh:
#   lab/replay.sh CAPTURE.tar.gz BINARY [ARGS...]
# An arm64 binary runs under user-mode emulation (qemu-aarch64-static) on any other host.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
[ $# -ge 2 ] || { echo "usage: $0 CAPTURE.tar.gz BINARY [ARGS...]" >&2; exit 2; }
capture=$(realpath "$1")
binary=$(realpath "$2")
shift 2
tree=$(mktemp -d)
trap 'rm -rf "$tree"' EXIT
tar -xzf "$capture" -C "$tree"
if file -b "$binary" | grep -q aarch64 && [ "$(uname -m)" != aarch64 ]; then
  export QEMU=${QEMU:-/usr/bin/qemu-aarch64-static}
fi
set +e
"$top/scripts/run-in-tree.sh" "$tree" "$binary" "$@"
