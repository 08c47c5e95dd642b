// SPDX-License-Identifier: Apache-2.0
// The same program in C++.
#include "own.c"
