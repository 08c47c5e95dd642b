#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Compiles one public header alone and included twice, as C11 with POSIX.1-2008 and as C++17.
#   usage: check_header.sh ROOT HEADER COMPILER...
set -eu
root=$1
header=$2
shift 2
for compiler; do
  for language in 'c -std=c11' 'c++ -std=c++17'; do
    echo "$compiler: $language"
    # shellcheck disable=SC2086 # two words
    printf '#include "%s"\n#include "%s"\n' "$header" "$header" |
      "$compiler" -x $language -D_POSIX_C_SOURCE=200809L -Wall -Wextra -Wpedantic -Werror \
        -fsyntax-only -I "$root/include" -I "$root/src/hal/linux" -
  done
done
