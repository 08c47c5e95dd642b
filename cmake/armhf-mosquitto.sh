#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Makes a folder with libmosquitto for 32-bit ARM, and what it needs beside the C library.
#   usage: armhf-mosquitto.sh FOLDER
set -eu
folder=${1:?usage: armhf-mosquitto.sh FOLDER}
[ ! -f "$folder/.complete" ] || exit 0
rm -rf "$folder"
"$(dirname -- "$0")/armhf-packages.sh" "$folder" libmosquitto1 libmosquitto-dev libssl3
test -e "$folder/usr/lib/arm-linux-gnueabihf/libmosquitto.so.1"
touch "$folder/.complete"
