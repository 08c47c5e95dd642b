# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
# What the commands share. Sourcing it refuses arguments that the fourth line of the command does not
# name, goes to the root of the tree, and sees to it that the packages on its third line are installed.
set -euo pipefail

# accept ARGUMENT...: ends with status 2 and one line unless the command takes them. The fourth line
# says 'nothing', 'one of WORD...', 'any of WORD...', or whose arguments they are if it hands them on.
accept() {
  local takes known='' argument bad=0
  takes=$(sed -n '4s/^# takes: //p' "$0")
  case $takes in
    'arguments of '*) return ;;
    'one of '* | 'any of '*) known=" ${takes#* of } " ;;
  esac
  [ $# -le 1 ] || [[ $takes != 'one of '* ]] || bad=1
  for argument; do
    [[ $argument =~ ^[a-z0-9_-]+$ && $known = *" $argument "* ]] || bad=1
  done
  [ $bad = 0 ] || {
    printf './dev %s: not understood: %s (it takes %s)\n' "${0##*/}" "${*@Q}" "$takes" >&2
    exit 2
  }
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

accept "$@"
. "$(dirname -- "$0")/packages.sh"
_packages=$(sed -n '3s/^# needs: //p' "$0")
cd -- "$(dirname -- "$0")/../.."
# shellcheck disable=SC2086 # a list of words
need $_packages
