#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# What the built shared library needs, exports, and must not contain.
#   usage: check_library.sh LIBRARY EXPORTS [LIBC]
# EXPORTS has one name a line, sorted in the C locale; it is compared both ways. LIBC is the only
# library that may be needed.
set -eu
library=$1
exports=$2
libc=${3:-libc\.so\.6}
export LC_ALL=C
have=$(mktemp)
trap 'rm -f "$have"' EXIT
status=0
bad() {
  printf '%s: %s\n' "$library" "$*" >&2
  status=1
}

# On ARM the loader holds the value that the stack protector of a hardened library compares.
! nm -D "$library" | grep -q __stack_chk_guard || libc="$libc|ld-linux-(armhf|aarch64)\.so\.[0-9]"
needed=$(readelf -d "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
[ -n "$needed" ] || bad 'needs no library at all: is a static C library linked in?'
extra=$(printf '%s\n' "$needed" | grep -Evx "$libc" || true)
[ -z "$extra" ] || bad "needs $extra"
readelf -d "$library" | grep -q 'SONAME.*\[libqor_bus\.so\.1\]' || bad 'is not named libqor_bus.so.1'

nm -D --defined-only "$library" | awk '$2 != "A" { sub(/@.*/, "", $3); print $3 }' | sort >"$have"
diff -u "$exports" "$have" >&2 || bad 'exports differ: - listed only, + built only'

runtime=$(nm -D --undefined-only "$library" | awk '{ sub(/@.*/, "", $2); print $2 }' |
  grep -E '^(_Z|__gxx_personality|__cxa_(guard|throw|begin|end|pure|thread)|_Unwind)' || true)
[ -z "$runtime" ] || bad "uses the C++ runtime: $runtime"
! nm "$library" | grep '_GLOBAL__sub_I' >&2 || bad 'has a global that is set up by code at load time'

! readelf -d "$library" | grep -q TEXTREL || bad 'has text relocations'
! readelf -lW "$library" | grep -Eq 'GNU_STACK.*RWE' || bad 'has an executable stack'
# Storage of threads that is laid out at start-up: musl then refuses to open the library by dlopen, and
# glibc does once its spare room is used up. Any other kind needs the loader itself on ARM.
! readelf -lW "$library" | grep -Eq '^ +TLS ' || bad 'has thread-local storage'
! readelf -dW "$library" | grep -q STATIC_TLS || bad 'needs static thread-local storage'
! readelf -rW "$library" | grep -E '_TLS|TPOFF|DTPMOD|TLSDESC' >&2 || bad 'has relocations of thread-local storage'
# A variable would exist twice: here and as the copy in an executable that was built without -fPIC.
! readelf -d "$library" | grep -q SYMBOLIC || bad 'is linked with -Bsymbolic'
exit $status
