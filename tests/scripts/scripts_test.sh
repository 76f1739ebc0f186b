#!/usr/bin/env bash
# Tests of the scripts a new user runs first (scripts/demo.sh, scripts/build.sh) and of the host
# scripts' release archive.
#   scripts_test.sh BINARY CASE
# Cases: demo-missing, demo-stops, demo-capture, build-progress, host-archive.
source "$(dirname "$0")/../case.sh"

# A capture of the sample snapshot as capture.sh lays one out: /d a real folder, no fd links,
# only what a capture holds (capture/members.txt).
sample_capture() {
  (cd sample/device && /usr/bin/python3 "$top/snapshot/members.py" . |
    tar -czhf "$1" --null --no-recursion -T -) || fail "cannot pack the sample"
}

case $case_name in
demo-missing)
  # A snapshot that is not there: one line naming it, status 2, before anything is built.
  QUARRY_BINARY=$binary scripts/demo.sh "$work/nonexistent" >"$work/out" 2>"$work/err"
  status=$?
  [ $status = 2 ] || fail "exit status $status, not 2"
  [ "$(cat "$work/err")" = "demo: no such snapshot directory or capture: $work/nonexistent" ] ||
    fail "standard error: $(cat "$work/err")"
  [ -s "$work/out" ] && fail "printed reports: $(head -3 "$work/out")"
  ;;
demo-stops)
  # A capture that cannot be replayed stops the demo at its first report, with replay's status.
  echo "not gzip" >"$work/bad.tar.gz"
  QUARRY_BINARY=$binary scripts/demo.sh "$work/bad.tar.gz" >"$work/out" 2>"$work/err"
  status=$?
  [ $status = 2 ] || fail "unreadable capture: exit status $status, not 2"
  [ "$(grep -c '^replay: ' "$work/err")" = 1 ] || fail "unreadable capture: $(cat "$work/err")"
  [ "$(grep -c '^\$ quarrystat' "$work/out")" = 1 ] || fail "went on past the first report: $(cat "$work/out")"
  # A tree whose /proc/meminfo is a FIFO: -n is stopped in time, and the demo with it.
  cp -a sample/device "$work/fifo"
  rm "$work/fifo/proc/meminfo" && mkfifo "$work/fifo/proc/meminfo"
  QUARRY_REPLAY_SECONDS=2 QUARRY_BINARY=$binary timeout 60 scripts/demo.sh "$work/fifo" >"$work/out" 2>"$work/err"
  status=$?
  [ $status = 124 ] || fail "FIFO tree: exit status $status, not 124"
  grep -qx "demo: quarrystat -n did not finish within 2 s on $work/fifo; stopped" "$work/err" ||
    fail "FIFO tree: $(cat "$work/err")"
  [ "$(tail -n 1 "$work/out")" = '$ quarrystat -n' ] || fail "FIFO tree: went on past -n"
  ;;
demo-capture)
  # The demo on a capture prints what it prints on the tree the capture was taken from.
  sample_capture "$work/sample.tar.gz"
  QUARRY_BINARY=$binary scripts/demo.sh >"$work/tree" 2>/dev/null || fail "on the sample: exit status $?"
  [ "$(grep -c '^\$ quarrystat' "$work/tree")" = 8 ] || fail "not 8 reports on the sample"
  (cd "$work" && QUARRY_BINARY=$binary "$top/scripts/demo.sh" sample.tar.gz) >"$work/capture" 2>"$work/err" ||
    fail "on a capture: exit status $?: $(cat "$work/err")"
  diff -u "$work/tree" "$work/capture" || fail "the capture's reports differ from the tree's"
  ;;
build-progress)
  # build.sh against a stand-in cmake: the first build says what it does and shows the
  # compiler's progress on standard error; a build with nothing to do is silent; --brief gives
  # one line, or the log's tail when the build fails.
  mkdir -p "$work/repo/scripts" "$work/bin"
  cp scripts/build.sh "$work/repo/scripts/"
  cat >"$work/bin/cmake" <<'EOF'
#!/usr/bin/env bash
case $1 in
  --preset) echo "-- Configuring done"; mkdir -p "build/$2"; touch "build/$2/CMakeCache.txt" ;;
  --build)
    [ -e build/compiled ] || echo "[ 50%] Building CXX object tool/CMakeFiles/quarry_tool.dir/main.cpp.o"
    touch build/compiled
    echo "[100%] Built target quarrystat"
    [ -z "${STUB_FAIL:-}" ] || { echo "main.cpp:1:1: error: stand-in failure"; exit 1; } ;;
esac
EOF
  chmod 755 "$work/bin/cmake"
  export PATH=$work/bin:$PATH
  "$work/repo/scripts/build.sh" >"$work/out" 2>"$work/err" || fail "first build: exit status $?"
  [ -s "$work/out" ] && fail "first build wrote to standard output: $(cat "$work/out")"
  printf 'building quarrystat (default), about a minute on two cores\n[ 50%%] Building CXX object tool/CMakeFiles/quarry_tool.dir/main.cpp.o\n' |
    diff - "$work/err" || fail "first build's messages"
  "$work/repo/scripts/build.sh" >"$work/out" 2>&1 || fail "second build: exit status $?"
  [ -s "$work/out" ] && fail "a build with nothing to do printed: $(cat "$work/out")"
  "$work/repo/scripts/build.sh" --brief asan >"$work/out" 2>&1 || fail "brief build: exit status $?"
  grep -qx 'build asan: building quarrystat for the first time, a few minutes on two cores (log: build/asan.log)' "$work/out" &&
    grep -qx 'build asan: done in [0-9]* s' "$work/out" && [ "$(wc -l <"$work/out")" = 2 ] ||
    fail "brief build: $(cat "$work/out")"
  STUB_FAIL=1 "$work/repo/scripts/build.sh" --brief asan >"$work/out" 2>&1 && fail "a failed build succeeded"
  grep -q 'error: stand-in failure' "$work/out" && grep -q 'build asan: failed (status 1); the whole log is build/asan.log' "$work/out" ||
    fail "failed brief build: $(cat "$work/out")"
  ;;
host-archive)
  # The host scripts' archive, unpacked anywhere, replays a capture with the x86_64 binary.
  bash release/host-archive.sh 0.0-test 0 "$work/dist" >/dev/null || fail "host-archive.sh: exit status $?"
  sample_capture "$work/sample.tar.gz"
  bash release/check-host-archive.sh "$work/dist/quarrystat-0.0-test-host-scripts.tar.gz" "$binary" "$work/sample.tar.gz" ||
    fail "the unpacked archive does not replay the sample"
  ;;
*)
  fail "no such case"
  ;;
esac
echo "ok $case_name"
