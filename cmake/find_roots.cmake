# SPDX-License-Identifier: Apache-2.0
# Where a build for another machine looks: below the root of that machine, never on this one, and below
# the prefixes that its user names in CMAKE_PREFIX_PATH, which CMake takes for paths of that machine
# unless they are roots themselves.
string(REPLACE ":" ";" _named "$ENV{CMAKE_PREFIX_PATH}")
list(PREPEND CMAKE_FIND_ROOT_PATH ${CMAKE_PREFIX_PATH} ${_named})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
