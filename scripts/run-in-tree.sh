#!/usr/bin/env bash
# Runs quarrystat inside a copy of a device tree (a directory laid out like a device's
# /proc, /d, /sys and /dev), so the binary reads its usual fixed paths from the tree.
#
#   run-in-tree.sh [--user UID] [--prepare SCRIPT] TREE BINARY [ARGS...]
#   run-in-tree.sh --each OUTDIR TREE BINARY OPTION...
#
# The tree is copied into a private tmpfs in name order, so directory listings come back in the
# same order on every run; the original is never touched (unless --in-place says it is already
# such a copy). A dynamically linked binary (the sanitizer build) gets its shared libraries
# copied in beside it. With QEMU set to a static user-mode emulator, a foreign binary runs
# through it inside the tree. With VALGRIND set to "memcheck", a dynamically linked binary runs
# under valgrind, which is copied in as well; its report goes to VALGRIND_LOG (a host path) if
# set, else to standard error. With QUARRY_OUTPUT_LIMIT set (bytes), the tool may write no file
# past that size (prlimit --fsize): a report past it ends by SIGXFSZ, status 153.
#   --user UID       run as that uid (to meet files the tool may not read); needs real root
#   --prepare SCRIPT run SCRIPT with the copy as working directory before the tool starts
#   --in-place       TREE is a capture's tree, on a nodev,nosuid tmpfs of the caller's own mount
#                    namespace, made in name order (replay.sh unpacks a capture so). No namespace
#                    or copy is made. The tool runs from a root of its own instead, a fresh
#                    tmpfs at TREE.root holding only the binary, its loader and libraries, the
#                    emulator (and valgrind), with the tree's proc, d, sys and dev bound in
#                    read-only: nothing else of the tree is in sight, so no file of a capture
#                    stands where a loader, an emulator or the binary looks (an
#                    etc/ld.so.preload, a lib/, an entry named quarrystat; a proc/sys of the
#                    tree is covered by this host's own), and the tool cannot change the tree
#   --keep-root      with --in-place: the root is left standing for the next run on the same
#                    tree with the same binary, which then only binds the tree's folders in
#                    again (replay.sh --series runs the tool on one tree after another); the
#                    root is read-only while the tool runs, so no run leaves anything to the next
#   --each OUTDIR    run the tool once per OPTION (such as -u) on the one copy, each for at most
#                    QUARRY_RUN_SECONDS (default 120; status 124 when stopped), writing
#                    OUTDIR/NAME.out, NAME.err and NAME.status, NAME being the option without
#                    its dashes; the script's status is then 0
# The tool's exit status is this script's exit status.
set -euo pipefail

user=""
prepare=""
each=""
in_place=0
keep_root=0
while [ $# -gt 0 ]; do
  case "$1" in
    --user) user=$2; shift 2 ;;
    --prepare) prepare=$(realpath "$2"); shift 2 ;;
    --each) each=$(realpath "$2"); shift 2 ;;
    --in-place) in_place=1; shift ;;
    --keep-root) keep_root=1; shift ;;
    *) break ;;
  esac
done
[ $# -ge 2 ] || { echo "usage: $0 [--user UID] [--prepare SCRIPT] TREE BINARY [ARGS...]" >&2; exit 2; }
tree=$(realpath "$1")
binary=$(realpath "$2")
shift 2
[ -d "$tree" ] || { echo "$0: no such tree: $tree" >&2; exit 2; }

if [ $in_place = 1 ]; then
  root=$tree.root
  ns=()
else
  root=$(mktemp -d /tmp/quarry-tree.XXXXXX)
  trap 'rmdir "$root" 2>/dev/null || true' EXIT
  if [ "$(id -u)" -eq 0 ]; then
    ns=(unshare -m)
  else
    ns=(unshare -Urm)
    [ -z "$user" ] || { echo "$0: --user needs root" >&2; exit 2; }
  fi
fi

vglog=""
if [ -n "${VALGRIND:-}" ]; then
  vglog=$(mktemp -d /tmp/quarry-vg.XXXXXX)
  chmod 777 "$vglog"
fi
set +e
# The tool's standard error is fd 3 here: this shell's own goes nowhere while the tool runs, so
# that a tool killed by a signal (SIGXFSZ past QUARRY_OUTPUT_LIMIT) ends with its status alone,
# without the shell's line about the signal (which would hold this whole script).
{ "${ns[@]}" bash -s -- "$tree" "$binary" "$root" "$user" "$prepare" "${QEMU:-}" "$vglog" "$each" \
  "$in_place" "$keep_root" "$@" 2>&3 3>&- <<'INNER'
set -euo pipefail
tree=$1 binary=$2 root=$3 user=$4 prepare=$5 qemu=$6 valgrind=$7 each=$8 in_place=$9
keep_root=${10}
shift 10
# A root kept by the run before: its binary (and libraries, emulator) stay, the folders of the
# tree it bound go (they may have been replaced since); whether the binary is dynamic was noted
# beside it.
kept=""
if [ "$in_place" = 1 ] && [ -f "$root.dynamic" ]; then
  read -r kept <"$root.dynamic"
  mount -o remount,rw "$root"
  binds=()
  for folder in proc d sys dev; do
    [ ! -d "$root/$folder" ] || binds+=("$root/$folder")
  done
  # (A folder of the root that is no bind, where a tree without proc had the tool's own
  # /proc entries bound, is only removed.)
  [ ${#binds[@]} = 0 ] || umount -R "${binds[@]}" 2>/dev/null || true
  [ ${#binds[@]} = 0 ] || rmdir "${binds[@]}" 2>/dev/null || true
fi
# device: the writable folder that the tool sees as its root's device folders (where the tool's
# own /proc entries are bound in for a sanitizer build, and where --prepare runs).
if [ "$in_place" = 0 ]; then
  mount -t tmpfs -o mode=755,nodev,nosuid quarry-tree "$root"
  # The list is NUL-separated and taken verbatim: a name may hold a newline, and a line of it
  # may read "-C"; neither may make tar take a second name, or an option, from it.
  (cd "$tree" && find . -mindepth 1 -print0 | LC_ALL=C sort -z |
    tar -c --no-recursion --null --verbatim-files-from -T - -f -) |
    tar -x -p -f - -C "$root"
  device=$root
else
  if [ -z "$kept" ]; then
    mkdir "$root"
    mount -t tmpfs -o mode=755,nodev,nosuid quarry-root "$root"
  fi
  for folder in proc d sys dev; do
    if [ -d "$tree/$folder" ] && [ ! -L "$tree/$folder" ]; then
      mkdir "$root/$folder"
      # (mount applies the read-only flags to a bind in a second step of its own.)
      mount --bind -o ro,nodev,nosuid,noexec "$tree/$folder" "$root/$folder"
    fi
  done
  # The tool reads nothing under /proc/sys; the emulator reads its address-space floor there
  # (vm/mmap_min_addr), and gets this host's own.
  if [ -d "$root/proc/sys" ]; then
    mount --bind -o ro,nodev,nosuid,noexec /proc/sys "$root/proc/sys"
  fi
  device=$tree
  # A tree without proc still gets the tool's own /proc entries below, in the root's folder.
  [ -d "$tree/proc" ] || device=$root
fi
# Shared libraries and the loader of a dynamic program, at their own paths.
copy_libs() {
  ldd "$1" | grep -o '/[^ ]*' | while read -r lib; do
    mkdir -p "$root$(dirname "$lib")"
    cp -L "$lib" "$root$lib"
  done
}
if [ -n "$kept" ]; then
  dynamic=$kept
else
  cp "$binary" "$root/quarrystat"
  dynamic=0
  if ldd "$binary" >/dev/null 2>&1; then
    dynamic=1
    copy_libs "$binary"
  fi
  [ "$keep_root" = 0 ] || echo $dynamic >"$root.dynamic"
fi
# The tree is prepared before the tool's own /proc entries are bound in, so that a script that
# changes proc/*/maps meets only the tree's processes.
if [ -n "$prepare" ]; then
  (cd "$device" && bash "$prepare")
fi
# A sanitizer build (and valgrind) needs the process's own /proc entries: its options come from
# /proc/self/environ, and the leak check stops the process through /proc/self/task. The shell
# below execs the tool under the same pid, so that pid's real entries are bound into the tree's
# /proc. The tool then meets one more process, itself, which holds no DMA-BUF buffers.
if [ -z "$each" ] && [ "$dynamic" = 1 ] && [ ! -e "$root/proc/self" ] && [ ! -e "$root/proc/$$" ]; then
  mkdir -p "$device/proc/$$"
  mount --bind "/proc/$$" "$root/proc/$$"
  ln -s "$$" "$device/proc/self"
fi
cmd=(/quarrystat)
if [ -n "$valgrind" ]; then
  mkdir -p "$root/usr/bin" "$root/usr/libexec" "$root/vg"
  cp /usr/bin/valgrind.bin "$root/usr/bin/valgrind"
  copy_libs /usr/bin/valgrind.bin
  mkdir -p "$root/usr/libexec/valgrind"
  cp /usr/libexec/valgrind/{memcheck-amd64-linux,vgpreload_core-amd64-linux.so,vgpreload_memcheck-amd64-linux.so,default.supp} \
    "$root/usr/libexec/valgrind/"
  # valgrind must see the loader's symbols (libc6-dbg) to replace its string functions.
  mkdir -p "$root/usr/lib/debug"
  cp -r /usr/lib/debug/. "$root/usr/lib/debug/"
  # Exit status 99 marks a memory error or leak; the tool's own statuses never use it.
  cmd=(/usr/bin/valgrind --tool=memcheck -q --error-exitcode=99 --leak-check=full
       --show-leak-kinds=definite,indirect,possible --errors-for-leak-kinds=definite,indirect,possible
       --track-fds=yes --log-file=/vg/log /quarrystat)
fi
if [ -n "$qemu" ]; then
  [ -n "$kept" ] || cp "$qemu" "$root/qemu-user"
  cmd=(/qemu-user /quarrystat)
fi
# A coverage build writes its counters (.gcda) to absolute paths under its build directory;
# QUARRY_GCOV_DIR names that directory, bound at the same path so the counters reach the host.
if [ -n "${QUARRY_GCOV_DIR:-}" ] && [ -z "$kept" ]; then
  mkdir -p "$root$QUARRY_GCOV_DIR"
  mount --bind "$QUARRY_GCOV_DIR" "$root$QUARRY_GCOV_DIR"
fi
if [ -n "$valgrind" ]; then
  mount --bind "$valgrind" "$root/vg"
  export TMPDIR=/vg
fi
# The root is read-only while the tool runs: a kept root serves the next capture's run too, so
# nothing one run leaves in it (an etc/ld.so.preload, a changed /quarrystat) may reach another.
# (A tree without proc has the tool's own /proc entries made in the root; it stays writable.)
if [ "$in_place" = 1 ] && [ "$device" != "$root" ]; then
  mount -o remount,ro "$root"
fi
as_user=()
[ -z "$user" ] || as_user=(--userspec="$user:$user")
limit=()
[ -z "${QUARRY_OUTPUT_LIMIT:-}" ] || limit=(prlimit --fsize="$QUARRY_OUTPUT_LIMIT" --)
# QUARRY_AS_LIMIT_KB: an address-space limit, to make the tool run out of memory.
[ -z "${QUARRY_AS_LIMIT_KB:-}" ] || ulimit -v "$QUARRY_AS_LIMIT_KB"
if [ -n "$each" ]; then
  # Several reports on one copy: a large tree is copied once, not once per report. Each runs
  # from a shell of its own that execs it, so that a sanitizer build finds its own /proc
  # entries under that shell's pid, as above, taken away again after the run.
  bind=0
  [ "$dynamic" = 1 ] && [ ! -e "$root/proc/self" ] && bind=1
  for option in "$@"; do
    name=${option##*-}
    status=0
    # (The group's own standard error is dropped, as above; the tool's goes to NAME.err.)
    { timeout -k 5 "${QUARRY_RUN_SECONDS:-120}" bash -c '
      root=$1 device=$2 bind=$3 pidfile=$4
      shift 4
      if [ "$bind" = 1 ] && [ ! -e "$root/proc/$$" ]; then
        echo $$ >"$pidfile"
        mkdir -p "$device/proc/$$"
        mount --bind "/proc/$$" "$root/proc/$$"
        ln -s "$$" "$device/proc/self"
      fi
      exec "$@"' run "$root" "$device" "$bind" "$each/.pid" "${limit[@]}" chroot "${as_user[@]}" \
      "$root" "${cmd[@]}" "$option" >"$each/$name.out" 2>"$each/$name.err" </dev/null || status=$?
    } 2>/dev/null
    if [ -f "$each/.pid" ]; then
      pid=$(cat "$each/.pid")
      umount "$root/proc/$pid" && rmdir "$device/proc/$pid" && rm -f "$device/proc/self" "$each/.pid"
    fi
    [ $status != 137 ] || status=124
    echo $status >"$each/$name.status"
  done
  exit 0
fi
exec "${limit[@]}" chroot "${as_user[@]}" "$root" "${cmd[@]}" "$@"
INNER
} 3>&2 2>/dev/null
status=$?
if [ -n "$vglog" ]; then
  cat "$vglog/log" >&2 2>/dev/null
  # A descriptor still open at exit that the tool did not inherit is one it leaked.
  if awk '/Open file descriptor/ { fd = $0; next }
          fd != "" && /inherited from parent/ { fd = ""; next }
          fd != "" { print fd; leaked = 1; fd = "" }
          END { exit !leaked }' "$vglog/log" >&2; then
    echo "$0: descriptors left open at exit" >&2
    status=98
  fi
  rm -rf "$vglog"
fi
exit $status
