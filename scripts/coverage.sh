#!/usr/bin/env bash
# Line and branch coverage of the product code (tool/, libmeminfo/, procinfo/, base/) over the
# unit tests and every end-to-end case, the damaged-device trees included. The end-to-end runs
# happen inside a chroot, so run-in-tree.sh binds the build directory into each tree at its own
# path (QUARRY_GCOV_DIR) and the binary adds its counters to the same files as the unit tests.
# Prints a per-file table of lines and branches, then every line no test reaches, each with the
# reason it cannot be reached or "NOT EXPLAINED".
#   coverage.sh [--json FILE]
set -euo pipefail
cd "$(dirname "$0")/.."
json_out=""
[ "${1:-}" = "--json" ] && json_out=$2
scripts/setup.sh coverage
cmake --preset coverage >/dev/null
build=$(realpath build/coverage)
# Counters of an earlier build would not match the new objects (test discovery runs during the
# build), so they go before the build and again after it.
find "$build" -name '*.gcda' -delete
cmake --build --preset coverage -j 2 >/dev/null
find "$build" -name '*.gcda' -delete

# Unit tests first: they create a counter file for every library object.
timeout 600 ctest --test-dir "$build" -j 2 -E '^(live|e2e)\.' --output-on-failure >/dev/null
# Counters of the binary's own main(), then every counter file writable by the uid some cases
# run as, since their runs add to the same files.
(cd /tmp && "$build/tool/quarrystat" -h >/dev/null) || true
find "$build" -name '*.gcda' -exec chmod a+rw {} +
find "$build" -type d -exec chmod a+rwx {} +
QUARRY_GCOV_DIR=$build timeout 900 ctest --test-dir "$build" -j 2 -R '^e2e\.' --output-on-failure >/dev/null

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
filters=(--filter 'tool/' --filter 'libmeminfo/' --filter 'procinfo/' --filter 'base/')
gcovr -r . --object-directory "$build" "${filters[@]}" --exclude-throw-branches \
  --exclude-unreachable-branches --json "$tmp/cov.json" >/dev/null
[ -z "$json_out" ] || cp "$tmp/cov.json" "$json_out"
python3 scripts/coverage_table.py "$tmp/cov.json"
