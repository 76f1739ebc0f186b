#!/usr/bin/env bash
# Sets up, builds the static quarrystat and runs every report on the bundled sample device
# snapshot (or on the snapshot directory given as the first argument).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/build.sh default >/dev/null
tree=${1:-sample/device}
run() {
  printf '\n$ quarrystat %s\n' "$*"
  scripts/run-in-tree.sh "$tree" build/default/tool/quarrystat "$@" || printf '[exit status %d]\n' $?
}
run -s
run -p 8b900000
run -p 0xc0000000
run -p 880000000
run -k
run -kmodem_ctrl
run -n
run -u
