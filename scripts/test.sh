#!/usr/bin/env bash
# Sets up, builds and runs every test:
#   1. the static release build: unit tests, end-to-end cases, live kernel checks (ctest);
#   2. the same suite built with AddressSanitizer and UndefinedBehaviorSanitizer;
#   3. the static arm64 build, end to end under user-mode emulation, same golden outputs; the
#      release archives, each binary checked on the sample snapshot (scripts/release.sh);
#   4. the device lab: the arm64 binary in an emulated arm64 board with a real kernel, checked
#      against the kernel's own files, and a capture replayed on this host (lab/run.sh);
#   5. the end-to-end cases under valgrind memcheck (leaks, errors, descriptors left open);
#   6. every fuzz target for FUZZ_SECONDS (default 20) each.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh fuzz cross valgrind lab browser fleet
for preset in default asan; do
  echo "=== $preset build"
  scripts/build.sh --brief "$preset"
  echo "=== $preset tests"
  ctest --preset "$preset" -j "$(nproc)"
done
echo "=== arm64 build, end to end under emulation"
scripts/build.sh --brief aarch64
QEMU=/usr/bin/qemu-aarch64-static scripts/e2e.sh build/aarch64/tool/quarrystat
echo "=== release archives (the arm64 one checked under emulation)"
scripts/release.sh
echo "=== device lab"
lab/run.sh build/aarch64/tool/quarrystat
echo "=== end to end under valgrind"
scripts/build.sh --brief dynamic
VALGRIND=memcheck scripts/e2e.sh build/dynamic/tool/quarrystat
echo "=== fuzz targets"
scripts/fuzz.sh "${FUZZ_SECONDS:-20}"
