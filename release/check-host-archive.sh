#!/usr/bin/env bash
# Checks the host scripts' archive as a user meets it: unpacked into an empty folder, its
# checksums hold and its replay.sh runs every report of the sample's end-to-end cases on
# CAPTURE (the sample snapshot, packed as a capture of a device) with BINARY, printing what
# the cases' golden output says.
#   check-host-archive.sh ARCHIVE BINARY CAPTURE
# Exit status 0 when all holds; each problem is named on standard error.
set -uo pipefail
[ $# = 3 ] || { echo "usage: $0 ARCHIVE BINARY CAPTURE" >&2; exit 2; }
archive=$(realpath "$1") binary=$(realpath "$2") capture=$(realpath "$3")
cd "$(dirname "$0")/.." || exit 2
name=$(basename "$archive" .tar.gz)
check=$(mktemp -d)
trap 'rm -rf "$check"' EXIT
problem() { echo "check-host-archive: $name: $*" >&2; status=1; }
status=0
tar -xzf "$archive" -C "$check" || { problem "cannot unpack"; exit 1; }
(cd "$check/$name" && sha256sum --quiet -c SHA256SUMS) || problem "checksums differ"
for f in README VERSION snapshot/replay.sh snapshot/unpack.py scripts/run-in-tree.sh capture/members.txt; do
  [ -f "$check/$name/$f" ] || problem "no $f"
done
for case_dir in tests/e2e/cases/*-sample*/; do
  # shellcheck disable=SC2046  # the case's arguments are words
  "$check/$name/snapshot/replay.sh" "$capture" "$binary" $(cat "$case_dir/args") >"$check/out" 2>/dev/null
  got=$?
  want=$(cat "$case_dir/status" 2>/dev/null || echo 0)
  [ "$got" = "$want" ] || problem "$(basename "$case_dir"): exit status $got, not $want"
  # The golden output starts with the command, as the end-to-end runner writes it.
  { printf '$ quarrystat %s\n' "$(cat "$case_dir/args")"; cat "$check/out"; } |
    diff -q "$case_dir/stdout" - >/dev/null || problem "$(basename "$case_dir"): the replayed report differs"
done
exit $status
