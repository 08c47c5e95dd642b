# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
# What the commands share. Sourcing it goes to the root of the tree and sees to it that the packages
# on the third line of the command are installed.
set -euo pipefail

# need PACKAGE...: on a terminal asks before it installs what is missing; without one it installs as
# root and otherwise says what to install. Where there is no dpkg, the tools speak for themselves.
need() {
  command -v dpkg-query >/dev/null || return 0
  local package missing=() as_root=()
  for package; do
    dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed ||
      missing+=("$package")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  [ "$(id -u)" = 0 ] || as_root=(sudo)
  local install=("${as_root[@]}" apt-get install -y --no-install-recommends "${missing[@]}")
  if [ -t 0 ] && [ -t 1 ]; then
    read -r -p "Missing packages. Run '${install[*]}' now? [Y/n] " answer
    [[ $answer =~ ^([Yy]|$) ]] || exit 1
  elif [ "$(id -u)" != 0 ]; then
    printf 'Missing packages; install them with:\n  %s\n' "${install[*]}" >&2
    exit 1
  fi
  "${as_root[@]}" apt-get update && "${install[@]}"
}

# build PRESET [ARGUMENT...]: configures and builds; the arguments go to the build.
build() {
  cmake --preset "$1" && cmake --build --preset "$1" --parallel "$(nproc)" "${@:2}"
}

# preset NAME [ARGUMENT...]: configures, builds and tests; the arguments go to ctest.
preset() {
  build "$1" &&
    ctest --preset "$1" --parallel $((2 * $(nproc))) --output-junit results.xml "${@:2}"
}

_packages=$(sed -n '3s/^# needs: //p' "$0")
cd -- "$(dirname -- "$0")/../.."
# shellcheck disable=SC2086 # a list of words
need $_packages
