#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# How the commands of ./dev install what is missing, with a stand-in for apt-get.
#   usage: check_packages.sh ROOT
set -euo pipefail
export root=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0

mkdir "$work/bin"
printf '#!/bin/sh\nexit 1\n' >"$work/bin/dpkg-query"
printf '#!/bin/sh\necho 0\n' >"$work/bin/id"
printf '#!/bin/sh\n' >"$work/bin/sleep"
# It answers with the lines of 'answers', one a call.
cat >"$work/bin/apt-get" <<'END'
#!/bin/sh
cd "$(dirname "$0")/.."
echo "$*" >>calls
answer=$(head -n 1 answers)
sed -i 1d answers
[ "$answer" = ok ] || { echo "E: $answer" >&2 && exit 100; }
END
chmod +x "$work/bin"/*

# expect STATUS CALLS TEXT ANSWER...: what need does when apt-get answers so.
expect() {
  local status=0 calls
  : >"$work/calls"
  printf '%s\n' "${@:4}" >"$work/answers"
  # shellcheck disable=SC2016 # the inner shell expands it
  PATH=$work/bin:$PATH bash -euo pipefail -c '. "$root/tools/dev/packages.sh"; need one two' \
    </dev/null >"$work/output" 2>&1 || status=$?
  calls=$(grep -o 'update$\|install .*' "$work/calls" | paste -sd ' ')
  if [ "$status $calls" != "$1 $2" ] || [[ $(cat "$work/output") != *"$3"* ]] ||
    [ "$(grep -c DPkg::Lock::Timeout=120 "$work/calls")" != "$(wc -l <"$work/calls")" ]; then
    printf 'apt-get answers %s: status %d after %s, and says\n' "${*:4}" $status "$calls" >&2
    cat "$work/output" >&2
    failures=$((failures + 1))
  fi
}

locked='Could not get lock /var/lib/apt/lists/lock. It is held by process 1'
install='install -y --no-install-recommends one two'
expect 0 "update $install" '' ok ok
expect 0 "update update update $install $install" 'held by process' "$locked" "$locked" ok "$locked" ok
expect 0 "update $install" 'The package lists could not be fetched' 'no network' ok
expect 1 "update $install" 'Could not install these packages: is the machine online' ok 'no network'
exit $failures
