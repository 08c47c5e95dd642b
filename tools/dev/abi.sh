# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
# What './dev abi' does to one tree.
export LC_ALL=C
# shellcheck disable=SC2034 # './dev abi' goes through them
targets='armhf x86_64'
frozen=abi/$(sed -n 's/^project(.* VERSION \([0-9]*\).*/\1/p' CMakeLists.txt).0

# describe TREE BUILD TARGET: builds its library with debug information, and lists its numbers beside it.
describe() {
  [ -f "$2/build.ninja" ] || cmake -S "$1" -B "$2" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_TOOLCHAIN_FILE="cmake/$3-glibc.cmake" -DCMAKE_CXX_COMPILER_LAUNCHER= \
    -DCMAKE_CXX_FLAGS="-g '-ffile-prefix-map=$PWD/='" >/dev/null
  cmake --build "$2" --target qor_bus -- --quiet
  readelf --debug-dump=info "$2/src/libqor_bus.so" | awk -f tools/dev/numbers.awk | sort -u >"$2/numbers"
}

# compare BASELINE BUILD: prints what differs from the baseline; the status is that of './dev abi'.
compare() {
  local numbers=0 changed=0 broken=0 library=$2/src/libqor_bus.so
  diff -U 0 "$1.numbers" "$2/numbers" || numbers=1
  abidiff --exported-interfaces-only "$1.abi" "$library" || changed=$?
  abidiff --exported-interfaces-only --no-added-syms "$1.abi" "$library" >/dev/null || broken=$?
  [ $((changed & 3)) = 0 ] || return 1 # abidiff itself failed
  [ $((numbers | changed)) != 0 ] || return 0
  [ $broken = 0 ] && [ -z "$(comm -23 "$1.numbers" "$2/numbers")" ] && return 3
  return 4
}

# keeps_promise BUILD TARGET: whether it at most adds to the first release of its major version, which
# no '--update' changes.
keeps_promise() {
  local status=0
  compare "$frozen/libqor_bus.$2" "$1" >/dev/null || status=$?
  [ $status = 0 ] || [ $status = 3 ] || {
    printf '%s: breaks what was built on %s\n' "$2" "$frozen" >&2
    return 4
  }
}

# accept_as_baseline BUILD TARGET: only what an application sees. The records embed types of the C library.
accept_as_baseline() {
  local headers=/usr/include
  [ "$2" != armhf ] || headers=/usr/arm-linux-gnueabihf/include
  abidw --headers-dir include --headers-dir src/hal/linux --headers-dir $headers \
    --drop-private-types --exported-interfaces-only --no-show-locs --no-corpus-path \
    --no-comp-dir-path --type-id-style hash "$1/src/libqor_bus.so" --out-file "abi/libqor_bus.$2.abi"
  cp "$1/numbers" "abi/libqor_bus.$2.numbers"
}
