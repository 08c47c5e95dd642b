#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Makes a sysroot of musl for 32-bit ARM out of the distribution's packages. Nothing is installed and
# no foreign architecture is added to the machine, so it needs no root.
#   usage: musl-sysroot.sh FOLDER
# QOR_APT_MIRROR and QOR_APT_RELEASE stand in for the machine's own package source.
set -eu
folder=${1:?usage: musl-sysroot.sh FOLDER}
[ ! -f "$folder/.complete" ] || exit 0
fail() {
  echo "musl-sysroot.sh: $*" >&2
  exit 1
}

release=${QOR_APT_RELEASE:-$(. /etc/os-release && echo "${VERSION_CODENAME:-}")}
mirror=${QOR_APT_MIRROR:-$(
  # shellcheck disable=SC2016 # apt expands these
  apt-get indextargets --format '$(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' |
    awk -v release="$release" '$2 == release && $3 == "main" { print $1; exit }'
)}
[ -n "$mirror" ] || fail "no package source here: set QOR_APT_MIRROR and QOR_APT_RELEASE"
keyring=/usr/share/keyrings/debian-archive-keyring.gpg
signed=
[ ! -f "$keyring" ] || signed="[signed-by=$keyring] "

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/state/lists/partial" "$work/cache/archives/partial" "$work/packages" "$work/root"
# One release only: an out-of-date index of another one would fail the update.
echo "deb $signed$mirror $release main" >"$work/sources.list"
set -- -q -o APT::Architecture=armhf -o APT::Architectures=armhf -o APT::Sandbox::User=root \
  -o Dir::State="$work/state" -o Dir::State::status=/dev/null -o Dir::Cache="$work/cache" \
  -o Dir::Etc::sourcelist="$work/sources.list" -o Dir::Etc::sourceparts=/dev/null \
  -o Acquire::Languages=none -o Acquire::Retries=3
# An update that fetches nothing still succeeds; the download does not.
(cd "$work/packages" && apt-get "$@" update && apt-get "$@" download musl musl-dev) ||
  fail "could not fetch musl and musl-dev for armhf from $mirror ($release). Is the machine online?" \
    "QOR_APT_MIRROR names another source; a sysroot made elsewhere may be copied to $folder"
for package in "$work"/packages/*.deb; do
  dpkg-deb -x "$package" "$work/root"
done

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
