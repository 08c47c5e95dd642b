#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Compiles the bridge's header alone and included twice, as C11 and as C++17.
#   usage: check_header.sh ROOT COMPILER
set -eu
root=$1
compiler=$2
for language in 'c -std=c11' 'c -std=c11 -D_POSIX_C_SOURCE=200809L' 'c++ -std=c++17'; do
  echo "$compiler -x $language"
  # shellcheck disable=SC2086 # a list of words
  printf '#include "qor_mqtt.h"\n#include "qor_mqtt.h"\n' | "$compiler" -x $language \
    -Wall -Wextra -Wpedantic -Werror -fsyntax-only \
    -I "$root/companions/mqtt/include" -I "$root/include" -I "$root/src/hal/linux" -
done
