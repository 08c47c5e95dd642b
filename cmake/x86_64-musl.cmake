# SPDX-License-Identifier: Apache-2.0
# musl on the machine that builds. The C driver for both languages: it compiles C++ and links no C++
# runtime library.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_C_COMPILER musl-gcc)
set(CMAKE_CXX_COMPILER musl-gcc)
set(QOR_LIBC libc.so) # the one library that may be needed

# For link-time optimisation; musl-tools has none of its own.
foreach(_language IN ITEMS C CXX)
  set(CMAKE_${_language}_COMPILER_AR gcc-ar)
  set(CMAKE_${_language}_COMPILER_RANLIB gcc-ranlib)
endforeach()
