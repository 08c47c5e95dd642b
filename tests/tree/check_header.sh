#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Compiles one public header, alone and included twice: as C11 without feature macros, also behind a
# header of the C library, which settles what those would choose; as C11 with POSIX.1-2008; as C++17.
#   usage: check_header.sh ROOT HEADER COMPILER...
set -eu
root=$1
header=$2
shift 2

# compiles LINES OPTION...: a source of just these lines.
compiles() {
  lines=$1
  shift
  echo "$compiler $*: $lines"
  printf '%b' "$lines" | "$compiler" "$@" -Wall -Wextra -Wpedantic -Werror -fsyntax-only \
    -I "$root/include" -I "$root/src/hal/linux" -
}

line="#include \"$header\"\\n"
for compiler; do
  for includes in "$line" "$line$line"; do
    compiles "$includes" -x c -std=c11
    compiles "#include <stdio.h>\\n$includes" -x c -std=c11
    compiles "$includes" -x c -std=c11 -D_POSIX_C_SOURCE=200809L
    compiles "$includes" -x c++ -std=c++17
  done
done
