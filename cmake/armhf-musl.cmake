# SPDX-License-Identifier: Apache-2.0
# 32-bit ARM (ARMv7-A, Thumb-2, hard float) with musl, in a sysroot that the first configuration
# makes. The compiler is the one for glibc: its libgcc.a and crtbeginS.o serve any C library, and its
# C driver, used for both languages, links no C++ runtime library.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-gcc)
set(QOR_LIBC libc.so) # the one library that may be needed

# Outside the build folders, so that a clean build does not fetch it again.
set(_cache $ENV{XDG_CACHE_HOME})
if(NOT _cache)
  set(_cache $ENV{HOME}/.cache)
endif()
set(QOR_MUSL_SYSROOT ${_cache}/libqor_bus/armhf-musl CACHE PATH "musl, made when it is not there")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES QOR_MUSL_SYSROOT)
if(NOT EXISTS ${QOR_MUSL_SYSROOT}/.complete)
  execute_process(COMMAND ${CMAKE_CURRENT_LIST_DIR}/musl-sysroot.sh ${QOR_MUSL_SYSROOT}
    RESULT_VARIABLE _failed)
  if(_failed)
    message(FATAL_ERROR "the musl sysroot could not be made")
  endif()
endif()
execute_process(COMMAND ${CMAKE_C_COMPILER} -print-libgcc-file-name
  OUTPUT_VARIABLE _gcc OUTPUT_STRIP_TRAILING_WHITESPACE)
get_filename_component(_gcc "${_gcc}" DIRECTORY)
set(_include ${QOR_MUSL_SYSROOT}/usr/include/arm-linux-musleabihf)
set(_lib ${QOR_MUSL_SYSROOT}/usr/lib/arm-linux-musleabihf)

set(CMAKE_C_FLAGS_INIT "-nostdinc -isystem ${_gcc}/include -isystem ${_include}")
set(CMAKE_CXX_FLAGS_INIT "${CMAKE_C_FLAGS_INIT}")
set(_start "-nostdlib -L${_lib} -L${_gcc} ${_lib}/crti.o ${_gcc}/crtbeginS.o")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_start}")
set(CMAKE_EXE_LINKER_FLAGS_INIT
  "-pie ${_start} ${_lib}/Scrt1.o -Wl,--dynamic-linker=/lib/ld-musl-armhf.so.1")
# libc and libgcc use each other.
set(CMAKE_C_STANDARD_LIBRARIES "-lc -lgcc -lc ${_gcc}/crtendS.o ${_lib}/crtn.o")
set(CMAKE_CXX_STANDARD_LIBRARIES "${CMAKE_C_STANDARD_LIBRARIES}")
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -cpu cortex-a7 -L ${QOR_MUSL_SYSROOT})

set(CMAKE_FIND_ROOT_PATH ${QOR_MUSL_SYSROOT})
include(${CMAKE_CURRENT_LIST_DIR}/find_roots.cmake)
