#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Makes a sysroot of musl for 32-bit ARM out of the distribution's packages. Nothing is installed and
# no foreign architecture is added to the machine, so it needs no root.
#   usage: musl-sysroot.sh FOLDER
# QOR_APT_MIRROR and QOR_APT_RELEASE stand in for the machine's own package source.
set -eu
folder=${1:?usage: musl-sysroot.sh FOLDER}
[ ! -f "$folder/.complete" ] || exit 0
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$(dirname -- "$0")/armhf-packages.sh" "$work/root" musl musl-dev

# The packages take /lib for /usr/lib. Left apart, the linker would find only libc.a, and silently
# put a second C library inside the shared one.
if [ ! -L "$work/root/lib" ]; then
  cp -a "$work/root/lib/." "$work/root/usr/lib/"
  rm -rf "$work/root/lib"
  ln -s usr/lib "$work/root/lib"
fi
test -f "$work/root/usr/lib/arm-linux-musleabihf/libc.so"
test -e "$work/root/lib/ld-musl-armhf.so.1"
touch "$work/root/.complete"
chmod 755 "$work/root"
rm -rf "$folder"
mkdir -p "$(dirname "$folder")"
mv "$work/root" "$folder"
