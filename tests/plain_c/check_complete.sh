#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Fails for an exported name that the program in plain C does not use.
#   usage: check_complete.sh PROGRAM EXPORTS
set -eu
export LC_ALL=C
# A variable is defined here too where the program has a copy of it.
unused=$(nm -D "$1" | awk '{ sub(/@.*/, "", $NF); print $NF }' | sort -u | comm -13 - "$2")
[ -z "$unused" ] || {
  # shellcheck disable=SC2086 # a name a line
  printf 'not used: %s\n' $unused >&2
  exit 1
}
