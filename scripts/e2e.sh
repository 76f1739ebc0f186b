#!/usr/bin/env bash
# Runs every end-to-end case against one binary and prints "N passed, N failed".
#   e2e.sh BINARY            (QEMU=/usr/bin/qemu-aarch64-static for an arm64 binary)
set -uo pipefail
cd "$(dirname "$0")/.."
binary=$(realpath "$1")
passed=0 failed=0
for case_dir in tests/e2e/cases/*/; do
  if out=$(bash tests/e2e/run.sh "$binary" "$case_dir" 2>&1); then
    passed=$((passed + 1))
  else
    failed=$((failed + 1))
    printf '%s\n' "$out"
  fi
done
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
