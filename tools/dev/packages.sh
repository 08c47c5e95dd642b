# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
# Sees to it that Debian's packages are there.

# apt_get ARGUMENT...: as root; waits at most 120 s for whoever holds apt's locks. The option is for the
# packages' lock; 'update' does not wait for that of the lists.
apt_get() {
  local end=$((SECONDS + 120)) said as_root=()
  [ "$(id -u)" = 0 ] || as_root=(sudo)
  until said=$(LC_ALL=C "${as_root[@]}" apt-get -q -o DPkg::Lock::Timeout=120 "$@" 2>&1 |
    sed -u 'w /dev/stderr'); do
    [[ $said = *'Could not get lock'* && $SECONDS -lt $end ]] || return 1
    sleep 2
  done
}

# need PACKAGE...: on a terminal asks before it installs what is missing; without one it installs as
# root and otherwise says what to install. Where there is no dpkg, the tools speak for themselves.
need() {
  command -v dpkg-query >/dev/null || return 0
  local package answer missing=()
  for package; do
    dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed ||
      missing+=("$package")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  local install="apt-get install --no-install-recommends ${missing[*]}"
  if [ -t 0 ] && [ -t 1 ]; then
    read -r -p "Missing packages. Run '$install' now? [Y/n] " answer
    [[ $answer =~ ^([Yy]|$) ]] || exit 1
  elif [ "$(id -u)" != 0 ]; then
    printf 'Missing packages; as root, install them with:\n  %s\n' "$install" >&2
    exit 1
  fi
  apt_get update || echo 'The package lists could not be fetched: trying with those at hand.' >&2
  apt_get install -y --no-install-recommends "${missing[@]}" || {
    printf '%s\n  %s\n' "Could not install these packages: is the machine online? By hand, after apt-get update:" \
      "$install" >&2
    exit 1
  }
}
