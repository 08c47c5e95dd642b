#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Compiles a C program with the flags of pkg-config alone, and runs it.
#   usage: pkg_config.sh COMPILER SOURCE PREFIX
set -eu
export PKG_CONFIG_PATH="$3/lib/pkgconfig"
program=$(mktemp)
trap 'rm -f "$program"' EXIT
# What pkg-config prints is quoted for a shell to read again.
eval "\"\$1\" -std=c11 -Wall -Wextra -Wpedantic -Werror \
  \"\$2\" -o \"\$program\" $(pkg-config --cflags --libs libqor_bus)"
LD_LIBRARY_PATH="$3/lib" "$program"
