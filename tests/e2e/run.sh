#!/usr/bin/env bash
# One end-to-end case: runs the binary in the case's fixture tree and compares its output.
#
#   run.sh BINARY CASE_DIR [--update]
#
# A case directory holds:
#   tree     the fixture tree to run in, relative to tests/fixtures (one line)
#   args     the command-line arguments, as shell words (may be empty)
#   stdout   golden standard output, after a first line "$ quarrystat ARGS" naming the command
#   status   golden exit status
#   stderr   optional: lines that must each appear in standard error (fixed strings)
#   prepare  optional: shell script run in the copied tree before the tool (chmod, fifos, ...)
#   user     optional: uid to run as
#   stderr-absent  optional: lines that must not appear in standard error (fixed strings)
#   stdout-device  optional: a device standard output goes to instead (/dev/full); the golden
#            stdout then holds only the command line
#   stdout-closed  optional: standard output is a pipe whose reading end is already closed (a
#            reader that went away, as in "quarrystat -u | head -1"); the golden stdout then
#            holds only the command line
#   tty      optional: standard output is a pseudo-terminal (script(1)); its line ends are
#            turned back into newlines before the comparison
#   as-limit optional: the tool's address-space limit in KiB (ulimit -v); a sanitizer build
#            (terabytes of shadow memory) and a user-mode emulator (the guest's whole address
#            space) cannot start under one, so there the case is passed over
# --update rewrites stdout and status from this run; review the diff before committing it.
set -euo pipefail

binary=$1
case_dir=$(realpath "$2")
update=${3:-}
here=$(dirname "$(realpath "$0")")
top=$(realpath "$here/../..")
name=$(basename "$case_dir")

tree="$top/tests/fixtures/$(cat "$case_dir/tree")"
args=$(cat "$case_dir/args" 2>/dev/null || true)
eval "argv=($args)"

opts=()
[ -f "$case_dir/prepare" ] && opts+=(--prepare "$case_dir/prepare")
[ -f "$case_dir/user" ] && opts+=(--user "$(cat "$case_dir/user")")
if [ -f "$case_dir/as-limit" ]; then
  if ldd "$binary" >/dev/null 2>&1 || [ -n "${QEMU:-}" ]; then
    echo "ok $name (passed over: this build cannot start under an address-space limit)"
    exit 0
  fi
  QUARRY_AS_LIMIT_KB=$(cat "$case_dir/as-limit")
  export QUARRY_AS_LIMIT_KB
fi

out=$(mktemp) err=$(mktemp)
trap 'rm -f "$out" "$err" "$out.all"' EXIT
set +e
if [ -f "$case_dir/tty" ]; then
  # script(1) gives the tool a terminal and copies what it shows; the runner's exit status
  # comes back through -e.
  cmd=$(printf '%q ' "$top/scripts/run-in-tree.sh" "${opts[@]}" "$tree" "$binary" "${argv[@]}")
  timeout 60 script -qec "$cmd 2>$(printf '%q' "$err")" /dev/null </dev/null | tr -d '\r' >"$out"
  status=${PIPESTATUS[0]}
elif [ -f "$case_dir/stdout-closed" ]; then
  # The reading end is closed before the tool starts, so its first write meets no reader, as
  # after "| head -1" has read its line; the child starts with SIGPIPE at its default action.
  # A death by signal N comes back as 128 + N, as a shell would show it.
  python3 -c '
import os, subprocess, sys
r, w = os.pipe()
os.close(r)
rc = subprocess.call(sys.argv[1:], stdout=w)
sys.exit(128 - rc if rc < 0 else rc)
' "$top/scripts/run-in-tree.sh" "${opts[@]}" "$tree" "$binary" "${argv[@]}" 2>"$err"
  status=$?
elif [ -f "$case_dir/stdout-device" ]; then
  "$top/scripts/run-in-tree.sh" "${opts[@]}" "$tree" "$binary" "${argv[@]}" \
    >"$(cat "$case_dir/stdout-device")" 2>"$err"
  status=$?
else
  "$top/scripts/run-in-tree.sh" "${opts[@]}" "$tree" "$binary" "${argv[@]}" >"$out" 2>"$err"
  status=$?
fi
set -e
{ printf '$ quarrystat%s\n' "${args:+ $args}"; cat "$out"; } >"$out.all"

if [ "$update" = "--update" ]; then
  cp "$out.all" "$case_dir/stdout"
  echo "$status" >"$case_dir/status"
  echo "updated $name"
  exit 0
fi

fail=0
if ! diff -u "$case_dir/stdout" "$out.all"; then
  echo "FAIL $name: standard output differs (- golden, + actual)"
  fail=1
fi
want=$(cat "$case_dir/status")
if [ "$status" != "$want" ]; then
  echo "FAIL $name: exit status $status, want $want"
  fail=1
fi
if [ -f "$case_dir/stderr" ]; then
  while IFS= read -r line; do
    if ! grep -qF -- "$line" "$err"; then
      echo "FAIL $name: standard error lacks: $line"
      fail=1
    fi
  done <"$case_dir/stderr"
fi
if [ -f "$case_dir/stderr-absent" ]; then
  while IFS= read -r line; do
    if grep -qF -- "$line" "$err"; then
      echo "FAIL $name: standard error has: $line"
      fail=1
    fi
  done <"$case_dir/stderr-absent"
fi
if [ $fail -ne 0 ]; then
  echo "--- standard error was:"
  cat "$err"
  exit 1
fi
echo "ok $name"
