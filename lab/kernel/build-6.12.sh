#!/usr/bin/env bash
# Builds the second lab kernel, 6.12 from Debian's linux-source-6.12, once per key, and prints
# the Image's path. Configuration: lab.config with the options of lab-6.12.config in place of
# the same ones there (no DMA-BUF sysfs statistics); the same debug-extension stand-in.
# It keeps its cache in its own folder under $QUARRY_LAB_CACHE (default /var/cache/quarrystat-lab)
# and cleans only that folder, so it never drops the 6.1 kernel's Image (build.sh), nor the
# other way round; both take the same lock, so their cold builds do not share the two cores.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
top_cache=${QUARRY_LAB_CACHE:-/var/cache/quarrystat-lab}
cache=$top_cache/linux-6.12
version=$(dpkg-query -W -f='${Version}' linux-source-6.12)
key=$(cat "$here/lab.config" "$here/lab-6.12.config" "$here/quarry_debug_ext.c" "$here/build-6.12.sh" \
      <(echo "$version") | sha256sum | cut -c1-16)
image=$cache/Image-$key
mkdir -p "$cache"
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
  timeout 600 tar -xJf /usr/src/linux-source-6.12.tar.xz -C "$src" --strip-components=1
  touch "$src/.extracted"
fi
cp "$here/quarry_debug_ext.c" "$src/drivers/misc/quarry_debug_ext.c"
grep -q quarry_debug_ext "$src/drivers/misc/Makefile" ||
  echo 'obj-y += quarry_debug_ext.o' >>"$src/drivers/misc/Makefile"

out=$cache/build-$key
mkdir -p "$out"
# One fragment: lab.config without the options the delta names, then the delta.
fragment=$out/lab.config
opts=$(grep -oE 'CONFIG_[A-Z0-9_]+' "$here/lab-6.12.config" | sort -u)
grep -vwF -f <(echo "$opts") "$here/lab.config" >"$fragment"
grep -E '^(CONFIG_|# CONFIG_)' "$here/lab-6.12.config" >>"$fragment"

kmake() { make -s -C "$src" O="$out" ARCH=arm64 CROSS_COMPILE=aarch64-linux-gnu- "$@"; }
kmake allnoconfig >&2
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
    ! grep -qx "$opt" "$out/.config" || { echo "lab kernel 6.12: ${opt%=y} is set" >&2; missing=1; }
  else
    grep -qx "$opt" "$out/.config" || { echo "lab kernel 6.12: $opt was dropped" >&2; missing=1; }
  fi
done <"$fragment"
[ $missing -eq 0 ] || exit 1
timeout 3600 make -s -C "$src" O="$out" ARCH=arm64 CROSS_COMPILE=aarch64-linux-gnu- \
  -j"$(nproc)" Image >&2
echo "lab kernel 6.12: built in $(( $(date +%s) - start )) s" >&2
cp "$out/arch/arm64/boot/Image" "$image.tmp"
mv "$image.tmp" "$image"
# Only this kernel's current key is used again: drop its older Images, builds and sources.
for old in "$cache"/Image-* "$cache"/build-* "$cache"/linux-source-*; do
  case "$old" in *-"$key" | "$src") ;; *) rm -rf "$old" ;; esac
done
echo "$image"
