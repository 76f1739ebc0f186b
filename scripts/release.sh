#!/usr/bin/env bash
# Builds the release archives from this tree:
#   dist/quarrystat-VERSION-aarch64-linux.tar.gz   (devices)
#   dist/quarrystat-VERSION-x86_64-linux.tar.gz    (x86-64 hosts, and replaying captures there)
# each holding the static binary, the capture program and the scripts that run it (capture.sh,
# record.sh), the manual page, a short README, VERSION and SHA256SUMS, all under
# quarrystat-VERSION-ARCH-linux/ (release/device-archive.sh), and
#   dist/quarrystat-VERSION-host-scripts.tar.gz    (replay, compare and their modules, for hosts)
# (release/host-archive.sh); dist/SHA256SUMS lists the three. VERSION is the CMake project
# version, which the binary also carries ("quarrystat version VERSION", for strings(1)).
# Then it checks what it built: the checksums, the version in each binary, each binary run on
# the bundled sample snapshot (the arm64 one under user-mode emulation) against the golden
# output of the sample's end-to-end cases, and the host scripts, unpacked, replaying a capture
# of the sample with the released x86_64 binary. Archives are reproducible: names sorted, owner
# root, times those of the last commit (or SOURCE_DATE_EPOCH).
set -euo pipefail
cd "$(dirname "$0")/.."
version=$(sed -n 's/^project(quarrystat VERSION \([0-9][0-9.]*\) .*/\1/p' CMakeLists.txt)
[ -n "$version" ] || { echo "release.sh: no project version in CMakeLists.txt" >&2; exit 1; }
epoch=${SOURCE_DATE_EPOCH:-$(git log -1 --format=%ct 2>/dev/null || date +%s)}
scripts/setup.sh cross
scripts/build.sh --brief default
scripts/build.sh --brief aarch64
mkdir -p dist
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT

status=0
for arch in x86_64 aarch64; do
  case $arch in
    x86_64) build=build/default strip=strip qemu="" ;;
    aarch64) build=build/aarch64 strip=aarch64-linux-gnu-strip qemu=/usr/bin/qemu-aarch64-static ;;
  esac
  name=quarrystat-$version-$arch-linux
  STRIP=$strip release/device-archive.sh "$version" "$epoch" "$arch" "$build/tool/quarrystat" \
    "$build/capture/quarry-capture" dist >/dev/null

  # What a user unpacks, checked.
  check=$stage/check-$arch
  mkdir -p "$check"
  tar -xzf "dist/$name.tar.gz" -C "$check"
  (cd "$check/$name" && sha256sum --quiet -c SHA256SUMS) || { echo "release.sh: $name: checksums differ" >&2; status=1; }
  strings "$check/$name/quarrystat" | grep -x "quarrystat version $version" >/dev/null ||
    { echo "release.sh: $name: the binary does not carry \"quarrystat version $version\"" >&2; status=1; }
  for case_dir in tests/e2e/cases/*-sample*/; do
    QEMU=$qemu bash tests/e2e/run.sh "$check/$name/quarrystat" "$case_dir" >/dev/null 2>&1 ||
      { echo "release.sh: $name: the binary fails $(basename "$case_dir") on the sample snapshot" >&2; status=1; }
  done
  echo "dist/$name.tar.gz  $(stat -c %s "dist/$name.tar.gz") bytes"
done

host=$(release/host-archive.sh "$version" "$epoch" dist)
# The sample snapshot packed as a capture with whole files (as capture.sh --full keeps maps): /d
# a folder, no descriptor links, only what a capture may hold (capture/members.txt).
(cd sample/device && /usr/bin/python3 ../../snapshot/members.py . |
  tar -czhf "$stage/sample.tar.gz" --null --no-recursion -T -) &&
  release/check-host-archive.sh "$host" "$stage/check-x86_64/quarrystat-$version-x86_64-linux/quarrystat" \
    "$stage/sample.tar.gz" ||
  { echo "release.sh: $host: its replay.sh does not replay the sample capture" >&2; status=1; }
echo "$host  $(stat -c %s "$host") bytes"
(cd dist && sha256sum "quarrystat-$version-x86_64-linux.tar.gz" "quarrystat-$version-aarch64-linux.tar.gz" \
  "quarrystat-$version-host-scripts.tar.gz" >SHA256SUMS)
exit $status
