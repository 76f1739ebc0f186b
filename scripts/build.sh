#!/usr/bin/env bash
# Configures and builds one preset (default: the static release build) quietly.
set -euo pipefail
preset=${1:-default}
cd "$(dirname "$0")/.."
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" -j "$(nproc)"
