#!/usr/bin/env bash
# Installs what a fresh Debian 12 machine lacks to build and test quarrystat.
#   setup.sh          compiler, CMake, GoogleTest, zlib; python3, mksh, busybox and file for the
#                     snapshot scripts and their tests, python3-jsonschema to check their JSON
#                     against its schema; mandoc to check the manual page
#   setup.sh fuzz     also clang with its fuzzer runtime
#   setup.sh cross    also the arm64 cross compiler, arm64 zlib and the user-mode emulator
#   setup.sh valgrind also valgrind and the C library's symbols it needs
#   setup.sh lab      also what the device lab needs to build and boot its kernel
#   setup.sh coverage also gcovr, for scripts/coverage.sh
#   setup.sh browser  also chromium and node, then the browser test's pinned packages
#                     (tests/browser, npm ci from its lock file)
#   setup.sh fleet    also node, then DuckDB's Node package that the fleet export's queries are
#                     tested on (tests/fleet, npm ci from its lock file)
# As root it installs with apt-get; otherwise it names the missing packages and fails.
set -euo pipefail

node_dirs=()
# The Node tests' packages are installed exactly as locked, and only when they are not yet.
node_modules() {
  local dir
  for dir in "${node_dirs[@]}"; do
    (cd "$(dirname "$0")/../tests/$dir" &&
      { npm ls --depth=0 >/dev/null 2>&1 || timeout 600 npm ci --no-audit --no-fund --ignore-scripts; })
  done
}

want=(cmake g++ make tar libgtest-dev zlib1g-dev python3 python3-jsonschema mksh busybox-static file
      mandoc)
for extra in "$@"; do
  case "$extra" in
    fuzz) want+=(clang libclang-rt-14-dev) ;;
    cross) want+=(g++-aarch64-linux-gnu qemu-user-static zlib1g-dev:arm64 libc6-dev:arm64) ;;
    valgrind) want+=(valgrind libc6-dbg) ;;
    lab) want+=(linux-source-6.1 linux-source-6.12 bc bison flex libssl-dev libelf-dev
                device-tree-compiler qemu-system-arm cpio gcc-aarch64-linux-gnu
                binutils-aarch64-linux-gnu file) ;;
    coverage) want+=(gcovr) ;;
    browser|fleet) [ "$extra" = fleet ] || want+=(chromium)
      node_dirs+=("$extra")
      command -v node >/dev/null || want+=(nodejs)
      command -v npm >/dev/null || want+=(npm) ;;
    *) echo "setup.sh: unknown extra: $extra" >&2; exit 2 ;;
  esac
done

missing=()
for pkg in "${want[@]}"; do
  dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed' || missing+=("$pkg")
done
[ ${#missing[@]} -eq 0 ] && { node_modules; exit 0; }

if [ "$(id -u)" -ne 0 ]; then
  echo "setup.sh: missing packages: ${missing[*]} (run as root, or install them)" >&2
  exit 1
fi
echo "setup.sh: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
case " ${missing[*]} " in
  *:arm64*) dpkg --print-foreign-architectures | grep -qx arm64 || dpkg --add-architecture arm64 ;;
esac
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"
node_modules
