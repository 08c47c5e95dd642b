# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
# What './dev abi' does to one tree.
export LC_ALL=C
baseline=abi/libqor_bus.armhf

# describe TREE BUILD: builds its library with debug information, and lists its numbers beside it.
describe() {
  [ -f "$2/build.ninja" ] || cmake -S "$1" -B "$2" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_TOOLCHAIN_FILE=cmake/armhf-glibc.cmake -DCMAKE_CXX_COMPILER_LAUNCHER= \
    -DCMAKE_CXX_FLAGS="-g '-ffile-prefix-map=$PWD/='" >/dev/null
  cmake --build "$2" --target qor_bus -- --quiet
  readelf --debug-dump=info "$2/src/libqor_bus.so" | awk -f tools/dev/numbers.awk | sort -u >"$2/numbers"
}

# compare BUILD: prints what differs from the baseline; the status is that of './dev abi'.
compare() {
  local numbers=0 changed=0 broken=0 library=$1/src/libqor_bus.so
  diff -U 0 $baseline.numbers "$1/numbers" || numbers=1
  abidiff --exported-interfaces-only $baseline.abi "$library" || changed=$?
  abidiff --exported-interfaces-only --no-added-syms $baseline.abi "$library" >/dev/null || broken=$?
  [ $((changed & 3)) = 0 ] || return 1 # abidiff itself failed
  [ $((numbers | changed)) != 0 ] || return 0
  [ $broken = 0 ] && [ -z "$(comm -23 $baseline.numbers "$1/numbers")" ] && return 3
  return 4
}

# accept_as_baseline BUILD: only what an application sees. The records embed types of the C library.
accept_as_baseline() {
  abidw --headers-dir include --headers-dir src/hal/linux --headers-dir /usr/arm-linux-gnueabihf/include \
    --drop-private-types --exported-interfaces-only --no-show-locs --no-corpus-path \
    --no-comp-dir-path --type-id-style hash "$1/src/libqor_bus.so" --out-file $baseline.abi
  cp "$1/numbers" $baseline.numbers
}
