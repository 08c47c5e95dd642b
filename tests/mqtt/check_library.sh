#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# What the built bridge needs and exports: the bus, libmosquitto and the C library, and its header.
#   usage: check_library.sh LIBRARY EXPORTS
set -eu
library=$1
exports=$2
export LC_ALL=C
status=0
have=$(mktemp)
trap 'rm -f "$have"' EXIT

nm -D --defined-only "$library" | awk '$2 != "A" { sub(/@.*/, "", $3); print $3 }' | sort >"$have"
diff -u "$exports" "$have" >&2 || status=1
# The sanitizers bring libraries of their own.
if ! nm -D "$library" | grep -qE '__(asan|tsan)_init'; then
  extra=$(readelf -d "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' |
    grep -Evx 'libc\.so\.6|libqor_bus\.so\.1|libmosquitto\.so\.1|ld-linux-armhf\.so\.3' || true)
  [ -z "$extra" ] || {
    printf '%s needs %s\n' "$library" "$extra" >&2
    status=1
  }
fi
exit $status
