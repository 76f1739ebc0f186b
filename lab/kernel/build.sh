#!/usr/bin/env bash
# Builds a lab kernel Image from Debian's linux-source-VERSION, once per key, and prints its path.
#   lab/kernel/build.sh VERSION        (6.1 or 6.12)
# Configuration: lab.config applied on allnoconfig; when lab-VERSION.config exists, its options
# take the place of the same ones in lab.config (6.12: no DMA-BUF sysfs statistics). The same
# debug-extension stand-in is built into both.
# Each kernel keeps its own cache folder, linux-VERSION/ under $QUARRY_LAB_CACHE (default
# /var/cache/quarrystat-lab), keyed on the fragments, the stand-in, this script and the source
# package version, and cleans only that folder, so building one never drops the other's Image.
# Both take the same lock, so two cold builds never share the two cores.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
kernel=${1:-}
case "$kernel" in
  6.1 | 6.12) ;;
  *) echo "usage: lab/kernel/build.sh 6.1|6.12" >&2; exit 2 ;;
esac
top_cache=${QUARRY_LAB_CACHE:-/var/cache/quarrystat-lab}
cache=$top_cache/linux-$kernel
version=$(dpkg-query -W -f='${Version}' "linux-source-$kernel")
delta=$here/lab-$kernel.config
[ -f "$delta" ] || delta=
key=$(cat "$here/lab.config" ${delta:+"$delta"} "$here/quarry_debug_ext.c" "$here/build.sh" \
      <(echo "$kernel $version") | sha256sum | cut -c1-16)
image=$cache/Image-$key
mkdir -p "$cache"
# Two lab runs at once share the cache: the second waits for the first's build.
exec 9>"$top_cache/.lock"
flock -w 3600 9
if [ -f "$image" ]; then
  echo "$image"
  exit 0
fi
start=$(date +%s)
src=$cache/linux-source-$version
if [ ! -f "$src/.extracted" ]; then
  rm -rf "$src" && mkdir -p "$src"
  timeout 600 tar -xJf "/usr/src/linux-source-$kernel.tar.xz" -C "$src" --strip-components=1
  touch "$src/.extracted"
fi
# The stand-in lives in drivers/misc, built in.
cp "$here/quarry_debug_ext.c" "$src/drivers/misc/quarry_debug_ext.c"
grep -q quarry_debug_ext "$src/drivers/misc/Makefile" ||
  echo 'obj-y += quarry_debug_ext.o' >>"$src/drivers/misc/Makefile"

out=$cache/build-$key
mkdir -p "$out"
# One fragment: lab.config without the options the delta names, then the delta.
fragment=$out/lab.config
if [ -n "$delta" ]; then
  opts=$(grep -oE 'CONFIG_[A-Z0-9_]+' "$delta" | sort -u)
  grep -vwF -f <(echo "$opts") "$here/lab.config" >"$fragment"
  grep -E '^(CONFIG_|# CONFIG_)' "$delta" >>"$fragment"
else
  cp "$here/lab.config" "$fragment"
fi

kmake() { make -s -C "$src" O="$out" ARCH=arm64 CROSS_COMPILE=aarch64-linux-gnu- "$@"; }
kmake allnoconfig >&2
# merge_config names every option the fragment turns on; the check below says what matters.
"$src/scripts/kconfig/merge_config.sh" -m -O "$out" "$out/.config" "$fragment" >/dev/null
kmake olddefconfig >&2
# Kconfig drops an option whose dependencies are missing without a word: check every one.
missing=0
while IFS= read -r line; do
  case "$line" in
    CONFIG_*=*) opt=$line ;;
    "# CONFIG_"*" is not set") opt=${line#\# } opt="${opt%% *}=y" ;;
    *) continue ;;
  esac
  if [ "${line:0:1}" = "#" ]; then
    ! grep -qx "$opt" "$out/.config" || { echo "lab kernel $kernel: ${opt%=y} is set" >&2; missing=1; }
  else
    grep -qx "$opt" "$out/.config" || { echo "lab kernel $kernel: $opt was dropped" >&2; missing=1; }
  fi
done <"$fragment"
[ $missing -eq 0 ] || exit 1
# A cold build takes 4 to 11 minutes on two cores; an hour means something is wrong.
timeout 3600 make -s -C "$src" O="$out" ARCH=arm64 CROSS_COMPILE=aarch64-linux-gnu- \
  -j"$(nproc)" Image >&2
echo "lab kernel $kernel: built in $(( $(date +%s) - start )) s" >&2
cp "$out/arch/arm64/boot/Image" "$image.tmp"
mv "$image.tmp" "$image"
# Only this kernel's current key is used again: drop its older Images, builds and sources.
for old in "$cache"/Image-* "$cache"/build-* "$cache"/linux-source-*; do
  case "$old" in *-"$key" | "$src") ;; *) rm -rf "$old" ;; esac
done
# Caches from before each kernel had its own folder kept the 6.1 kernel at the top.
rm -rf "$top_cache"/Image-* "$top_cache"/build-* "$top_cache"/linux-source-*
echo "$image"
