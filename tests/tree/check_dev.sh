#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Every command of ./dev refuses arguments that it does not know, before it does anything.
#   usage: check_dev.sh ROOT
# Commands find nothing but the shell, what finds their way, and stand-ins that write down their calls.
set -euo pipefail
root=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
calls=$work/calls
status=0
bad() {
  printf '%s\n' "$*" >&2
  status=1
}

mkdir "$work/bin"
for program in bash dirname nproc readlink sed; do
  ln -s "$(command -v $program)" "$work/bin"
done
for program in apt-get awk cmake ctest dpkg-query find gcovr git grep id paste rm sudo uptime; do
  printf '#!/bin/sh\necho "%s $*" >>"%s"\n' $program "$calls" >"$work/bin/$program"
done
chmod +x "$work/bin"/*

# called ARGUMENT...: ./dev with them; what it wrote is in output and errors, its status in result.
called() {
  : >"$calls"
  result=0
  PATH=$work/bin "$root/dev" "$@" >"$work/output" 2>"$work/errors" </dev/null || result=$?
}

# refused ARGUMENT...: status 2, one line on standard error, and nothing was done.
refused() {
  called "$@"
  [ $result = 2 ] || bad "./dev $*: status $result"
  [ "$(wc -l <"$work/errors")" = 1 ] || bad "./dev $*: not one line of error"
  [ ! -s "$work/output" ] || bad "./dev $*: has output"
  [ ! -s "$calls" ] || bad "./dev $*: calls $(head -n 1 "$calls")"
}

# hands_on TOOL COMMAND: what the tool is given ends with the arguments.
hands_on() {
  called "$2" -R 'a name'
  grep -q "^$1 .*-R a name\$" "$calls" || bad "./dev $2: $1 did not get the arguments"
}

for script in "$root"/tools/dev/*; do
  command=${script##*/}
  case $command in *.*) continue ;; esac
  takes=$(sed -n '4s/^# takes: //p' "$script")
  case $takes in
    nothing) refused "$command" nothing ;;
    'one of '*)
      read -ra words <<<"${takes#one of }"
      refused "$command" "${words[@]}" "${words[0]}" # more than one
      ;;
    'any of '*) refused "$command" "${takes#any of }" ;; # all of them as one
    'arguments of '*) continue ;;
    *) bad "tools/dev/$command: its fourth line does not say what it takes" ;;
  esac
  refused "$command" --no-such-argument
  refused "$command" ''
done
hands_on ctest test
hands_on ctest valgrind
refused help format
refused no-such-command
refused lib.sh
refused ../dev/clean
exit $status
