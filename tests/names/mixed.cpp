// SPDX-License-Identifier: Apache-2.0
// The same unit in C++.
#include "mixed.c"
