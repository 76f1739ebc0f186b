#!/usr/bin/env bash
# Checks that BINARY can run on this host, before anything else is done with a capture:
#   snapshot/check-binary.sh BINARY
# Silent with status 0 when it can; otherwise one line that says why, and status 2. An arm64
# binary on another host runs through the user-mode emulator named by QEMU (default
# /usr/bin/qemu-aarch64-static, from Debian's qemu-user-static), which must then be present.
set -uo pipefail
[ $# -eq 1 ] || { echo "usage: $0 BINARY" >&2; exit 2; }
binary=$1
say() { echo "$*" >&2; exit 2; }
[ -e "$binary" ] || say "no such binary: $binary (build it first: scripts/build.sh default, or scripts/build.sh aarch64)"
[ -f "$binary" ] || say "not a program: $binary"
[ -x "$binary" ] || say "not executable: $binary"
kind=$(file -bL "$binary" 2>/dev/null)
case $kind in
  ELF*) ;;
  *) say "not a program for this or an arm64 host: $binary ($kind)" ;;
esac
host=$(uname -m)
case $kind in
  *aarch64* | *ARM\ aarch64*)
    if [ "$host" != aarch64 ]; then
      qemu=${QEMU:-/usr/bin/qemu-aarch64-static}
      [ -x "$qemu" ] ||
        say "$binary is an arm64 program and this host is $host: it runs through the user-mode emulator $qemu, which is missing (Debian package qemu-user-static: scripts/setup.sh cross)"
    fi ;;
  *x86-64*) [ "$host" = x86_64 ] || say "$binary is an x86-64 program and this host is $host" ;;
  *) say "$binary is built for another machine ($kind); this host is $host" ;;
esac
exit 0
