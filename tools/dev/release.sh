# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
# What a release is called, and how its source archive is made.

# release_name: the archive's name without its ending, and the folder in it.
release_name() {
  sed -n 's/^project(\(qor_bus\) VERSION \([0-9.]*\).*/lib\1-\2/p' CMakeLists.txt
}

# release_archive FILE: the tree of the commit; its bytes depend on nothing else. The time of each file is
# the commit's, and no user's settings are asked for a mask, an ending of lines or what to leave out.
release_archive() {
  GIT_CONFIG_GLOBAL=/dev/null git -c tar.umask=0022 -c core.autocrlf=false -c core.attributesFile=/dev/null \
    archive --format=tar --prefix="$(release_name)/" HEAD | gzip -9n >"$1"
}
