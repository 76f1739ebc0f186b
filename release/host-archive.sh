#!/usr/bin/env bash
# Packs the host-side scripts, the ones that replay and compare captures on a Linux machine,
# into OUTDIR/quarrystat-VERSION-host-scripts.tar.gz:
#   host-archive.sh VERSION EPOCH OUTDIR
# Every snapshot/*.sh and snapshot/*.py of this tree goes in with scripts/run-in-tree.sh and
# capture/members.txt (what a capture may hold, which replay checks), at the same paths as in the
# sources, since replay.sh finds run-in-tree.sh at ../scripts/ from its own folder and
# snapshot/members.py the list at ../capture/; the device's scripts and program are the device
# archive's (scripts/release.sh). Beside them a README,
# VERSION and SHA256SUMS. Names sorted, owner root, every time EPOCH: the same tree gives the
# same bytes. Prints the archive's path.
set -euo pipefail
[ $# = 3 ] || { echo "usage: $0 VERSION EPOCH OUTDIR" >&2; exit 2; }
version=$1 epoch=$2 out=$3
cd "$(dirname "$0")/.."
name=quarrystat-$version-host-scripts
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
dir=$stage/$name
mkdir -p "$dir/snapshot/schema" "$dir/scripts" "$dir/capture" "$out"
files=()
for f in snapshot/*.sh snapshot/*.py snapshot/schema/*.json scripts/run-in-tree.sh capture/members.txt; do
  [ -f "$f" ] || continue
  case $f in */test_*) continue ;; esac
  cp "$f" "$dir/$f"
  case $f in *.sh) chmod 755 "$dir/$f" ;; *) chmod 644 "$dir/$f" ;; esac
  files+=("$f")
done
[ -f "$dir/snapshot/replay.sh" ] || { echo "$0: no snapshot/replay.sh to pack" >&2; exit 1; }
# One line per packed file for the README: where it runs and what it is for.
where() {
  case $1 in
    capture/members.txt) echo "host: what a capture may hold, checked by replay" ;;
    snapshot/replay.sh) echo "host: runs a report of the binary on a capture" ;;
    snapshot/compare.sh) echo "host: what changed between two captures" ;;
    snapshot/report.py) echo "host: a page of a capture or a recording" ;;
    snapshot/fleet.py) echo "host: many captures as JSON-lines tables" ;;
    scripts/run-in-tree.sh) echo "host: used by replay.sh, runs the binary in a private tree" ;;
    *.py) echo "host: a module of the scripts above" ;;
    *.json) echo "the JSON Schema of what report.py or fleet.py writes" ;;
    *) echo "host: used by the scripts above" ;;
  esac
}
listing=$(for f in "${files[@]}"; do printf '    %-36s %s\n' "$f" "$(where "$f")"; done)
while IFS= read -r line; do
  if [ "$line" = @FILES@ ]; then printf '%s\n' "$listing"; else printf '%s\n' "${line//@VERSION@/$version}"; fi
done <release/README.host >"$dir/README"
echo "$version" >"$dir/VERSION"
chmod 644 "$dir/README" "$dir/VERSION"
(cd "$dir" && sha256sum README VERSION "${files[@]}" >SHA256SUMS)
tar --sort=name --owner=0 --group=0 --numeric-owner --mtime="@$epoch" -C "$stage" -cf - "$name" |
  gzip -n -9 >"$out/$name.tar.gz"
echo "$out/$name.tar.gz"
