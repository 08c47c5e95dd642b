# SPDX-License-Identifier: Apache-2.0
# The machine that builds, by the name that the other targets have.
set(CMAKE_C_COMPILER gcc)
set(CMAKE_CXX_COMPILER g++)
