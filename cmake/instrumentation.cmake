# SPDX-License-Identifier: Apache-2.0
# Sanitizers and coverage, for everything that is built below; whether the library is hardened.
if(QOR_SANITIZE)
  set(_san -fsanitize=${QOR_SANITIZE} -fno-omit-frame-pointer)
  if(QOR_SANITIZE MATCHES "undefined")
    list(APPEND _san -fno-sanitize-recover=undefined)
    if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
      list(APPEND _san -fno-sanitize=function,vptr) # both need run-time type information
    endif()
  endif()
  add_compile_options(${_san})
  add_link_options(${_san})
endif()
if(QOR_COVERAGE AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang") # each condition's effect on its decision, too
  set(_watched -fprofile-instr-generate -fcoverage-mapping -fcoverage-mcdc -fprofile-update=atomic)
  add_compile_options(${_watched})
  add_link_options(${_watched})
elseif(QOR_COVERAGE)
  add_compile_options(--coverage -fprofile-update=atomic)
  add_link_options(--coverage)
endif()
if(QOR_WERROR)
  add_compile_options(-Werror)
endif()

# Checks of stack and buffers, and no address of a function that can be overwritten after loading: for
# builds that are made for speed. Those for size go without; sanitizers check more than that.
set(QOR_HARDENED $<BOOL:${QOR_HARDENING}>)
if(QOR_SANITIZE)
  set(QOR_HARDENED 0)
elseif(QOR_HARDENING STREQUAL "AUTO")
  set(QOR_HARDENED $<CONFIG:Release,RelWithDebInfo>)
endif()
