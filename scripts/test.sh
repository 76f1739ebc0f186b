#!/usr/bin/env bash
# Sets up, builds and runs every test: the static release build, then the same suite under
# AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
for preset in default asan; do
  echo "=== $preset build"
  scripts/build.sh "$preset"
  echo "=== $preset tests"
  ctest --preset "$preset" -j "$(nproc)"
done
