#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Whether programs start no thread: check.sh ONE_THREAD PROGRAM... runs each with that preloaded.
set -eu
one_thread=$1
shift
for program; do
  LD_PRELOAD=$one_thread "$program" --gtest_brief=1 >/dev/null || {
    echo "$program starts a thread, or fails" >&2
    exit 1
  }
done
echo "$# programs, none starts a thread"
