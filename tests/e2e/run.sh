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

out=$(mktemp) err=$(mktemp)
trap 'rm -f "$out" "$err" "$out.all"' EXIT
set +e
"$top/scripts/run-in-tree.sh" "${opts[@]}" "$tree" "$binary" "${argv[@]}" >"$out" 2>"$err"
status=$?
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
if [ $fail -ne 0 ]; then
  echo "--- standard error was:"
  cat "$err"
  exit 1
fi
echo "ok $name"
