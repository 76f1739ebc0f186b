#!/usr/bin/env bash
# Packs one device archive, OUTDIR/quarrystat-VERSION-ARCH-linux.tar.gz:
#   device-archive.sh VERSION EPOCH ARCH BINARY PROGRAM OUTDIR
# under quarrystat-VERSION-ARCH-linux/: the static binary BINARY (as quarrystat), the capture
# program PROGRAM (as quarry-capture, built for the same ARCH), capture.sh and record.sh (what a
# user runs on the device), the manual page, a README, VERSION and SHA256SUMS listing them all.
# Both programs are stripped with STRIP (default strip). Names sorted, owner root, every time
# EPOCH: the same tree gives the same bytes. Prints the archive's path.
set -euo pipefail
[ $# = 6 ] || { echo "usage: $0 VERSION EPOCH ARCH BINARY PROGRAM OUTDIR" >&2; exit 2; }
version=$1 epoch=$2 arch=$3 binary=$4 program=$5 out=$6
cd "$(dirname "$0")/.."
name=quarrystat-$version-$arch-linux
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
dir=$stage/$name
mkdir -p "$dir" "$out"
"${STRIP:-strip}" -o "$dir/quarrystat" "$binary"
"${STRIP:-strip}" -o "$dir/quarry-capture" "$program"
cp man/quarrystat.1 capture/capture.sh capture/record.sh "$dir/"
sed "s/@VERSION@/$version/; s/@ARCH@/$arch/" release/README >"$dir/README"
echo "$version" >"$dir/VERSION"
chmod 755 "$dir/quarrystat" "$dir/quarry-capture" "$dir/capture.sh" "$dir/record.sh"
chmod 644 "$dir/quarrystat.1" "$dir/README" "$dir/VERSION"
(cd "$dir" && sha256sum quarrystat quarry-capture capture.sh record.sh quarrystat.1 README VERSION >SHA256SUMS)
tar --sort=name --owner=0 --group=0 --numeric-owner --mtime="@$epoch" -C "$stage" -cf - "$name" |
  gzip -n -9 >"$out/$name.tar.gz"
echo "$out/$name.tar.gz"
