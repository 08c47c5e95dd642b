# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
# What a release is called, and how its source archive is made.

# release_name: the archive's name without its ending, and the folder in it.
release_name() {
  sed -n 's/^project(\(qor_bus\) VERSION \([0-9.]*\).*/lib\1-\2/p' CMakeLists.txt
}
