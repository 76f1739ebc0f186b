#!/usr/bin/env bash
# Builds the lab kernel Image (once per key) and prints its path.
# The key covers the config fragment, the debug-extension stand-in, this script and the kernel
# source package version; the Image is cached under $QUARRY_LAB_CACHE (default
# /var/cache/quarrystat-lab), so a run rebuilds only when one of them changes.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
cache=${QUARRY_LAB_CACHE:-/var/cache/quarrystat-lab}
version=$(dpkg-query -W -f='${Version}' linux-source-6.1)
key=$(cat "$here/lab.config" "$here/quarry_debug_ext.c" "$here/build.sh" <(echo "$version") |
      sha256sum | cut -c1-16)
image=$cache/Image-$key
mkdir -p "$cache"
# Two lab runs at once share the cache: the second waits for the first's build.
exec 9>"$cache/.lock"
flock -w 3600 9
if [ -f "$image" ]; then
  echo "$image"
  exit 0
fi
start=$(date +%s)
src=$cache/linux-source-$version
if [ ! -f "$src/.extracted" ]; then
  rm -rf "$src" && mkdir -p "$src"
  timeout 600 tar -xJf /usr/src/linux-source-6.1.tar.xz -C "$src" --strip-components=1
  touch "$src/.extracted"
fi
# The stand-in lives in drivers/misc, built in.
cp "$here/quarry_debug_ext.c" "$src/drivers/misc/quarry_debug_ext.c"
grep -q quarry_debug_ext "$src/drivers/misc/Makefile" ||
  echo 'obj-y += quarry_debug_ext.o' >>"$src/drivers/misc/Makefile"

out=$cache/build-$key
mkdir -p "$out"
kmake() { make -s -C "$src" O="$out" ARCH=arm64 CROSS_COMPILE=aarch64-linux-gnu- "$@"; }
kmake allnoconfig >&2
# merge_config names every option the fragment turns on; the check below says what matters.
"$src/scripts/kconfig/merge_config.sh" -m -O "$out" "$out/.config" "$here/lab.config" >/dev/null
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
    ! grep -qx "$opt" "$out/.config" || { echo "lab kernel: ${opt%=y} is set" >&2; missing=1; }
  else
    grep -qx "$opt" "$out/.config" || { echo "lab kernel: $opt was dropped" >&2; missing=1; }
  fi
done <"$here/lab.config"
[ $missing -eq 0 ] || exit 1
# A cold build takes 5 to 8 minutes on two cores; an hour means something is wrong.
timeout 3600 make -s -C "$src" O="$out" ARCH=arm64 CROSS_COMPILE=aarch64-linux-gnu- \
  -j"$(nproc)" Image >&2
echo "lab kernel: built in $(( $(date +%s) - start )) s" >&2
cp "$out/arch/arm64/boot/Image" "$image.tmp"
mv "$image.tmp" "$image"
# Only the current key is ever used again: drop older Images and build trees.
for old in "$cache"/Image-* "$cache"/build-*; do
  case "$old" in *-"$key") ;; *) rm -rf "$old" ;; esac
done
echo "$image"
