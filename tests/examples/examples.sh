#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: examples.sh CASE PROGRAM...   runs one test case on an example
set -u
case_name=$1
shift
program=("$@")
data=$(cd "$(dirname "$0")" && pwd)/data
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
    printf '%s: %s\n' "$case_name" "$1"
    tail -n 60 "$work/out" "$work/err"
    exit 1
}

# run STATUS ARGUMENT...: the program must end with this status, and the bus must not complain.
run() {
    local wanted=$1
    shift
    "${program[@]}" "$@" >"$work/out" 2>"$work/err"
    ended $? "$wanted"
}

ended() {
    [ "$1" = "$2" ] || fail "status $1 instead of $2"
    ! grep -q '\]\[err\]' "$work/out" || fail "the bus reports errors"
}

# The lines of the table, without the bus's own lines and without times that differ each run.
table() {
    sed -n '/^telemetry:/,$p' "$work/out" | grep -v '^\[' | grep -v '^  round trip'
}

# row NAME NUMBER: a row of the table.
row() {
    grep -Eq "^ +$1 +$2\$" "$work/out" || fail "no row '$1 $2'"
}

# complaint TEXT: the first line on standard error.
complaint() {
    [ "$(head -n 1 "$work/err")" = "telemetry: $1" ] || fail "standard error is not '$1'"
}

# start ARGUMENT...: begins a long watch as process $pid and waits until it is up.
start() {
    "${program[@]}" --samples 100000 "$@" >"$work/out" 2>"$work/err" &
    pid=$!
    for ((i = 0; i < 3000; i++)); do
        grep -q 'alarm context.*init success' "$work/out" && break
        sleep 0.02
    done
    grep -q 'alarm context.*init success' "$work/out" || fail "the bus does not come up"
}

# signalled SIGNAL: sent while samples are being taken.
signalled() {
    start
    kill -s "$1" "$pid"
    wait "$pid"
    ended $? 0
    grep -q 'ended by a signal' "$work/out" || fail "the table does not tell the signal"
    local samples
    samples=$(sed -n 's/^  samples *//p' "$work/out")
    row requests "$samples"
    row responses "$samples"
}

hello_greets() {
    run 0
    [ "$(grep -v '^\[' "$work/out")" = $'answerer: hello\nasker: hi' ] || fail "another greeting"
}

# The signal is pending from the start, so that the bus is told to quit before it is up.
hello_ends_on_a_signal() {
    # shellcheck disable=SC2016 # the inner shell expands these
    env --block-signal=TERM sh -c 'kill -s TERM $$; exec "$@"' sh "${program[@]}" >"$work/out" 2>&1
    local status=$?
    [ "$status" = 0 ] || fail "status $status"
}

telemetry_replays_a_recording() {
    run 0 --input "$data/build.rec"
    diff <(table) "$data/build.table" || fail "another table"
}

telemetry_judges_clamps_and_skips() {
    run 0 --input "$data/odd.rec"
    diff <(table) "$data/odd.table" || fail "another table"
    sed "s|$data/||" "$work/err" | diff - "$data/odd.err" || fail "other complaints"
}

telemetry_records_what_it_replays() {
    run 0 --samples 7 --record "$work/rec"
    table | sed 1d >"$work/live"
    run 0 --input "$work/rec"
    diff "$work/live" <(table | sed -e 1d -e /malformed/d) || fail "another table"
}

telemetry_draws_a_picture() {
    run 0 --input "$data/build.rec" --svg "$work/svg"
    grep -q '<svg' "$work/svg" || fail "no picture"
    [ "$(tail -n 1 "$work/svg")" = '</svg>' ] || fail "half a picture"
    for cls in load memory alarmed publish filter request call listen response ask answer; do
        grep -q "class=\"$cls\"" "$work/svg" || fail "nothing of class $cls"
    done
    [ "$(grep -c '>sample [0-9]' "$work/svg")" = 3 ] || fail "not three samples"
}

telemetry_runs_a_command() {
    # shellcheck disable=SC2016 # the inner shell expands these
    run 0 -- sh -c 'sleep 0.5; echo done >"$1"' sh "$work/done"
    [ "$(cat "$work/done")" = 'done' ] || fail "the command has not run"
    grep -q 'ended with the command' "$work/out" || fail "ended otherwise"
    grep -q 'the command ended with status 0' "$work/out" || fail "the command's end is not told"
}

telemetry_reports_a_failing_command() {
    run 1 -- sh -c 'exit 3'
    grep -q 'the command ended with status 3' "$work/out" || fail "the failure is not told"
    run 1 -- sh -c 'kill -9 $$'
    grep -q 'the command ended by signal 9' "$work/out" || fail "the signal is not told"
}

telemetry_stops_a_command_that_outlives_it() {
    run 0 --samples 3 -- sleep 1000
    row samples 3
    grep -q 'the command was still running' "$work/out" || fail "the command's end is not told"
}

telemetry_refuses_a_missing_command() {
    run 2 -- "$work/none"
    complaint "cannot run $work/none: No such file or directory"
}

telemetry_refuses_missing_files() {
    run 2 --input "$work/none"
    complaint "cannot read $work/none: No such file or directory"
    run 2 --svg "$work/none/a"
    complaint "cannot write $work/none/a: No such file or directory"
    run 2 --record "$work/none/a"
    complaint "cannot write $work/none/a: No such file or directory"
    : >"$work/empty"
    run 2 --input "$work/empty"
    complaint "no readings in $work/empty"
}

telemetry_refuses_wrong_options() {
    run 2 --no
    complaint "unknown option --no"
    run 2 --svg
    complaint "a file name must follow --svg"
    run 2 --samples
    complaint "a number must follow --samples"
    for number in 0 -1 x 1x '' 99999999999999999999; do
        run 2 --samples "$number"
        complaint "--samples needs a number from 1 on, not $number"
    done
    run 2 --
    complaint "no command follows --"
    run 2 --input a -- b
    complaint "a replay runs no command"
    run 2 --input a --record b
    complaint "a replay is not recorded"
}

telemetry_reports_a_full_disk() {
    run 1 --samples 2 --svg /dev/full
    complaint "/dev/full is incomplete: No space left on device"
    row samples 2
}

telemetry_prints_help() {
    run 0 --help
    grep -q 'MS BUSY TOTAL MEMORY FREE OWN' "$work/out" || fail "the format is not told"
}

telemetry_ends_on_sigterm() {
    signalled TERM
}

telemetry_ends_on_sigint() {
    signalled INT
}

# What is under way is dropped then, and the bus may say so.
telemetry_ends_at_once_on_a_second_signal() {
    start --svg "$work/svg"
    kill -s INT "$pid"
    kill -s TERM "$pid"
    wait "$pid"
    local status=$?
    [ "$status" = 0 ] || fail "status $status"
    [ "$(tail -n 1 "$work/svg")" = '</svg>' ] || fail "half a picture"
}

# Three warnings as a rule, but a busy machine may delay them until the hog is gone.
telemetry_is_watched_by_the_monitor() {
    run 0 --hog --samples 5
    grep -q 'MONITOR: hog,' "$work/out" || fail "no warning"
}

pool_counts_words() {
    printf 'One two, TWO three_3;\0three_3 three_3.  4 x' >"$work/a"
    printf 'Grüße two' >"$work/b"
    : >"$work/empty"
    run 0 "$work/a" "$work/b" "$work/empty"
    printf '%8d  %s\n' 3 three_3 3 two 1 grüße 1 one 1 x >"$work/expected"
    sed -n 1p "$work/out" | grep -qx '9 words, 5 different' || fail "not all words are counted"
    sed 1d "$work/out" | diff "$work/expected" - || fail "the list is wrong"
}

pool_counts_the_same_with_1_and_8_threads() {
    for file in {1..60}; do
        for ((i = 0; i < 200; i++)); do echo "w$((RANDOM % 40)) w$((RANDOM % file))"; done >"$work/$file"
    done
    run 0 --threads 1 "$work"/[0-9]*
    cp "$work/out" "$work/one"
    run 0 --threads 8 "$work"/[0-9]*
    diff "$work/one" "$work/out" || fail "8 threads count otherwise"
    grep -q '^24000 words' "$work/out" || fail "not all words are counted"
    [ "$(wc -l <"$work/out")" = 21 ] || fail "not the 20 most frequent words"
}

pool_reads_the_sources_by_default() {
    run 0
    grep -Eq '^[1-9][0-9]{4,} words' "$work/out" || fail "too few words"
    grep -Eq '^ +[0-9]+  this$' "$work/out" || fail "no sources"
}

pool_reports_and_skips_unreadable_files() {
    echo 'only this' >"$work/a"
    run 1 "$work/none" "$work/a" "$work"
    grep -q '^2 words' "$work/out" || fail "the readable file is not counted"
    printf 'pool: %s: %s\n' "$work" 'Is a directory' "$work/none" 'No such file or directory' |
        diff - <(LC_ALL=C sort -t: -k2,2 "$work/err") || fail "the others are not reported"
}

pool_refuses_wrong_options() {
    local options
    for options in '--threads' '--threads 0' '--threads x' '--threads 1x' '--other'; do
        # shellcheck disable=SC2086 # words
        run 2 $options
        grep -q '^usage: pool' "$work/err" || fail "no usage for $options"
    done
}

"$case_name"
