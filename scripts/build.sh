#!/usr/bin/env bash
# Configures and builds one preset (default: the static release build).
#   build.sh [--brief] [PRESET]
# Standard output stays the caller's: whatever the build says goes to standard error. The first
# build of a preset runs for a minute or more, so it says so before it starts, and the
# compiler's progress shows; a build with nothing to do prints nothing. --brief, for scripts that
# build several presets in a row, writes the build's output to build/PRESET.log and prints one
# line per build instead (and the log's tail when the build fails).
set -euo pipefail
brief=0
if [ "${1:-}" = --brief ]; then brief=1; shift; fi
preset=${1:-default}
cd "$(dirname "$0")/.."
dir=build/$preset
mkdir -p build

# Rough figures for two cores; instrumented builds (sanitizers, coverage, fuzz) take longer.
case $preset in
  default | aarch64 | dynamic) estimate="about a minute on two cores" ;;
  *) estimate="a few minutes on two cores" ;;
esac
first=0
[ -f "$dir/CMakeCache.txt" ] || first=1

# Make reports every target it merely checked ("Built target x") and cmake repeats its
# configure steps ("-- ..."): neither is progress.
progress() { sed -u -E '/^\[ *[0-9]+%\] Built target /d; /^Consolidate compiler generated dependencies/d; /^-- /d'; }

build() {
  local config
  config=$(mktemp)
  if ! cmake --preset "$preset" >"$config" 2>&1; then
    cat "$config"
    rm -f "$config"
    return 1
  fi
  rm -f "$config"
  cmake --build --preset "$preset" -j "$(nproc)" 2>&1
}

start=$(date +%s)
if [ $brief = 0 ]; then
  [ $first = 0 ] || echo "building quarrystat ($preset), $estimate" >&2
  build 2>&1 | progress >&2
  exit 0
fi

log=build/$preset.log
[ $first = 0 ] || echo "build $preset: building quarrystat for the first time, $estimate (log: $log)"
if build >"$log" 2>&1; then
  echo "build $preset: done in $(($(date +%s) - start)) s"
else
  status=$?
  tail -n 40 "$log" >&2
  echo "build $preset: failed (status $status); the whole log is $log" >&2
  exit $status
fi
