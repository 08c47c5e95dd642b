#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Installs a build afresh and looks whether all of it is there.
#   usage: install.sh CMAKE SOURCE BUILD PREFIX
set -eu
rm -rf "$4"
"$1" --install "$3" --prefix "$4"

status=0
for file in lib/libqor_bus.so lib/libqor_bus.so.1 lib/pkgconfig/libqor_bus.pc \
  lib/cmake/qor_bus/qor_bus-config.cmake; do
  [ -f "$4/$file" ] || { echo "not installed: $file" >&2 && status=1; }
done
wanted=$(cd "$2" && find include src/hal/linux \( -name '*.h' -o -path 'include/*.hpp' \) -exec basename {} \; | sort)
have=$(find "$4/include/qor_bus" -type f -exec basename {} \; | sort)
[ "$wanted" = "$have" ] || { echo "headers installed: $have; of the tree: $wanted" >&2 && status=1; }
exit $status
