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
if [ -f "$image" ]; then
  echo "$image"
  exit 0
fi
mkdir -p "$cache"
src=$cache/linux-source-$version
if [ ! -f "$src/.extracted" ]; then
  rm -rf "$src" && mkdir -p "$src"
  tar -xJf /usr/src/linux-source-6.1.tar.xz -C "$src" --strip-components=1
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
"$src/scripts/kconfig/merge_config.sh" -m -O "$out" "$out/.config" "$here/lab.config" >&2
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
kmake -j"$(nproc)" Image >&2
cp "$out/arch/arm64/boot/Image" "$image"
echo "$image"
