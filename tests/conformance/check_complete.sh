#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Fails for an exported name that the conformance program does not use.
#   usage: check_complete.sh PROGRAM EXPORTS
set -eu
export LC_ALL=C
# A variable is defined here too where the program has a copy of it.
nm -D "$1" | awk '{ sub(/@.*/, "", $NF); print $NF }' | sort -u |
  comm -13 - "$2" | sed 's/$/: not used/' | { ! grep .; }
