#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Unpacks the distribution's packages for 32-bit ARM. Nothing is installed and no foreign architecture
# is added to the machine, so it needs no root.
#   usage: armhf-packages.sh FOLDER PACKAGE...
# QOR_APT_MIRROR and QOR_APT_RELEASE stand in for the machine's own package source.
set -eu
folder=${1:?usage: armhf-packages.sh FOLDER PACKAGE...}
shift
names=$*
fail() {
  echo "armhf-packages.sh: $*" >&2
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
mkdir -p "$work/state/lists/partial" "$work/cache/archives/partial" "$work/packages"
# One release only: an out-of-date index of another one would fail the update.
echo "deb $signed$mirror $release main" >"$work/sources.list"
set -- -q -o APT::Architecture=armhf -o APT::Architectures=armhf -o APT::Sandbox::User=root \
  -o Dir::State="$work/state" -o Dir::State::status=/dev/null -o Dir::Cache="$work/cache" \
  -o Dir::Etc::sourcelist="$work/sources.list" -o Dir::Etc::sourceparts=/dev/null \
  -o Acquire::Languages=none -o Acquire::Retries=3
# An update that fetches nothing still succeeds; the download does not.
# shellcheck disable=SC2086 # a list of words
(cd "$work/packages" && apt-get "$@" update && apt-get "$@" download $names) ||
  fail "could not fetch $names for armhf from $mirror ($release). Is the machine online?" \
    "QOR_APT_MIRROR names another source; what was unpacked elsewhere may be copied to $folder"
mkdir -p "$folder"
for package in "$work"/packages/*.deb; do
  dpkg-deb -x "$package" "$folder"
done
