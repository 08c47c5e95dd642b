# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
# How a tree becomes Debian packages.

# package FOLDER ARCHITECTURE KIND [ARGUMENT...]: builds in a copy, as packaging/debian has its place at
# the top there; the arguments go to dpkg-buildpackage.
package() {
  rm -rf "$1"
  mkdir -p "$1/tree" "$1/root"
  cp -r CMakeLists.txt LICENSE README.md cmake companions docs examples include src tools packaging/debian "$1/tree"
  (cd "$1/tree" && DEB_BUILD_OPTIONS="nocheck parallel=$(nproc)" \
    dpkg-buildpackage --build="$3" --no-sign --no-check-builddeps --host-arch "$2" "${@:4}")
}
