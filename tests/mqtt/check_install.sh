#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Installs a build afresh, and builds and runs an application on it, with CMake and with pkg-config.
#   usage: check_install.sh CMAKE BUILD FOLDER COMPILER
set -eu
cmake=$1
build=$2
folder=$3
compiler=$4
consumer=$(dirname -- "$0")/consumer

rm -rf "$folder"
"$cmake" --install "$build" --prefix "$folder/prefix"
"$cmake" -S "$consumer" -B "$folder/cmake" -DCMAKE_C_COMPILER="$compiler" \
  -DCMAKE_PREFIX_PATH="$folder/prefix"
"$cmake" --build "$folder/cmake"
export LD_LIBRARY_PATH="$folder/prefix/lib"
"$folder/cmake/consumer"

"$cmake" -S "$consumer/../../../examples/fleet" -B "$folder/fleet" \
  -DCMAKE_C_COMPILER="$compiler" -DCMAKE_PREFIX_PATH="$folder/prefix"
"$cmake" --build "$folder/fleet"

export PKG_CONFIG_PATH="$folder/prefix/lib/pkgconfig"
# What pkg-config prints is quoted for a shell to read again.
eval "\"\$compiler\" -std=c11 -Wall -Wextra -Wpedantic -Werror \"\$consumer/consumer.c\" \
  -o \"\$folder/consumer\" $(pkg-config --cflags --libs libqor_bus_mqtt)"
"$folder/consumer"
