#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# The library of a Release build is hardened; one of a MinSizeRel build, or that declined, is not.
#   usage: check_hardening.sh CMAKE ROOT FOLDER CMAKE_OPTION...
set -eu
cmake=$1
root=$2
folder=$3
shift 3
status=0
bad() {
  echo "$*" >&2
  status=1
}

rm -rf "$folder"
"$cmake" -S "$root" -B "$folder/release" "$@" -DCMAKE_BUILD_TYPE=Release
"$cmake" --build "$folder/release" --target qor_bus
library=$folder/release/src/libqor_bus.so
readelf -lW "$library" | grep -q GNU_RELRO || bad 'no RELRO'
readelf -dW "$library" | grep -q BIND_NOW || bad 'no BIND_NOW'
nm -D --undefined-only "$library" | grep -q __stack_chk_fail || bad 'no stack protector'
nm -D --undefined-only "$library" | grep -q __vsnprintf_chk || bad 'no _FORTIFY_SOURCE'

for options in -DCMAKE_BUILD_TYPE=MinSizeRel '-DCMAKE_BUILD_TYPE=Release -DQOR_HARDENING=OFF'; do
  # shellcheck disable=SC2086 # one or two
  "$cmake" -S "$root" -B "$folder/plain" --fresh "$@" $options
  ! grep -lE 'stack-protector|FORTIFY|-z,now' "$folder/plain/build.ninja" || bad "hardened with $options"
done
exit $status
