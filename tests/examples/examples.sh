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
    [ -z "${pid:-}" ] || kill -9 "$pid" 2>/dev/null
    exit 1
}

# run STATUS ARGUMENT...: the program must end with this status, and the bus must not complain.
run() {
    local wanted=$1
    shift
    "${program[@]}" "$@" >"$work/out" 2>"$work/err"
    ended $? "$wanted"
}

# draw STATUS ARGUMENT...: the same for the program that draws.
draw() {
    local wanted=$1
    shift
    "${program[@]::${#program[@]}-1}" "$TELEMETRY_DRAW" "$@" >"$work/out" 2>"$work/err"
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
    [ "$(grep -v '^\[' "$work/out")" = $'asked: hello\nanswered: hi' ] || fail "another greeting"
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
    row 'malformed, skipped' 0
    diff "$work/live" <(table | sed -e 1d -e /malformed/d) || fail "another table"
}

# The readings are kept as they came: what is made of them again is the same.
telemetry_records_a_replay() {
    run 0 --input "$data/odd.rec" --record "$work/rec"
    run 0 --input "$work/rec"
    diff <(table | grep -v malformed) <(grep -v malformed "$data/odd.table") || fail "another table"
    run 2 --input "$work/rec" --record "$work/rec"
    complaint "a recording is not replayed into itself"
    [ -s "$work/rec" ] || fail "the recording is gone"
}

picture() {
    draw 0 "$work/rec" "$work/svg"
    grep -q '<svg' "$work/svg" || fail "no picture"
    [ "$(tail -n 1 "$work/svg")" = '</svg>' ] || fail "half a picture"
}

telemetry_draws_a_picture() {
    run 0 --input "$data/build.rec" --record "$work/rec"
    picture
    for cls in load memory alarmed; do
        grep -q "class=\"$cls\"" "$work/svg" || fail "nothing of class $cls"
    done
    grep -q 'Samples: 74. Alarms: 2.' "$work/svg" || fail "other figures"
}

# A recording that no bus has written: four samples, two alarms.
telemetry_draws_every_alarm() {
    {
        printf '0 0 0 1 1 1\n# a remark\n'
        printf 'sample %d 0 -1 500\n' 0
        printf 'sample %d %d00 950 500\n' 1 1 2 2 3 3
        printf 'alarm 100 200 1\nalarm 300 300 3\nwatch 4 2 50 60 70\n'
    } >"$work/rec"
    picture
    [ "$(grep -c 'class="alarmed"' "$work/svg")" = 3 ] || fail "not two alarms and their legend"
    grep -q 'From request to response: 50 to 70' "$work/svg" || fail "other figures"
}

# What the bus's recorder has kept: all five modules, and that it was ended in order.
telemetry_keeps_what_the_modules_did() {
    run 0 --input "$data/build.rec" --trace "$work/trace"
    [ "$(head -c 7 "$work/trace")" = QORTRC1 ] || fail "not a recording"
    [ "$(od -An -t u4 -j 44 -N 4 "$work/trace" | tr -d ' ')" = 2 ] || fail "not ended in order"
    local module
    for module in sampler guard judge alarm recorder; do
        grep -aq "$module" "$work/trace" || fail "$module is not named"
    done
    run 2 --trace "$work/none/trace"
    complaint "cannot write $work/none/trace: No such file or directory"
}

telemetry_refuses_what_cannot_be_drawn() {
    draw 2
    grep -q '^usage: telemetry-draw' "$work/err" || fail "no usage"
    draw 2 "$work/none" "$work/svg"
    grep -qx "telemetry-draw: cannot read $work/none: No such file or directory" "$work/err" || fail "no file"
    draw 2 "$data/build.rec" "$work/svg"
    grep -qx "telemetry-draw: no samples in $data/build.rec" "$work/err" || fail "no samples"
    local line
    for line in 'sample 1 2 3' 'sample a 2 3 4' 'alarm 1' 'watch 1 2'; do
        printf 'sample 0 0 -1 5\n%s\n' "$line" >"$work/rec"
        draw 2 "$work/rec" "$work/svg"
        grep -qx "telemetry-draw: $work/rec:2: cannot use \"$line\"" "$work/err" || fail "took $line"
    done
    printf 'sample 0 0 -1 5\n' >"$work/rec"
    draw 2 "$work/rec" "$work/none/svg"
    draw 1 "$work/rec" /dev/full
    grep -qx 'telemetry-draw: /dev/full is incomplete: No space left on device' "$work/err" || fail "not told"
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
    run 2 --record "$work/none/a"
    complaint "cannot write $work/none/a: No such file or directory"
    : >"$work/empty"
    run 2 --input "$work/empty"
    complaint "no readings in $work/empty"
}

telemetry_refuses_wrong_options() {
    run 2 --no
    complaint "unknown option --no"
    run 2 --input
    complaint "a file name must follow --input"
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
}

telemetry_reports_a_full_disk() {
    run 1 --samples 2 --record /dev/full
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
    start --record "$work/rec"
    kill -s INT "$pid"
    kill -s TERM "$pid"
    wait "$pid"
    local status=$?
    [ "$status" = 0 ] || fail "status $status"
    tail -n 1 "$work/rec" | grep -q '^watch ' || fail "half a recording"
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

# await TEXT [FILE]: until a line of the output begins so; standard output if no file is named.
await() {
    for ((i = 0; i < 3000; i++)); do
        grep -q "^$1" "${2:-$work/out}" && return
        sleep 0.02
    done
    fail "no line '$1'"
}

# daemon_start ARGUMENT...: begins the service as process $pid; file descriptor 3 is its input.
daemon_start() {
    mkfifo "$work/in"
    exec 3<>"$work/in"
    "${program[@]}" "$@" <"$work/in" >"$work/out" 2>"$work/err" &
    pid=$!
}

# daemon_supervised SOCKET: the same below a supervisor, which keeps what it is told in its own file.
daemon_supervised() {
    "${BASH_SOURCE[0]%/*}/supervisor.py" "$1" >"$work/told" &
    supervisor=$!
    await bound "$work/told"
    NOTIFY_SOCKET=$1 daemon_start
    await READY=1 "$work/told"
    wait "$supervisor" || fail "the supervisor has failed"
    diff "$work/told" <(printf 'bound\nREADY=1\n') || fail "the supervisor was told something else"
}

# daemon_answers NUMBER COMMAND: until so many answers to it have been printed.
daemon_answers() {
    for ((i = 0; i < 3000; i++)); do
        [ "$(grep -c "^$2: " "$work/out")" = "$1" ] && return
        sleep 0.02
    done
    fail "not $1 answers to $2"
}

# daemon_gone STATUS: it must end within a minute, with this status.
daemon_gone() {
    for ((i = 0; i < 3000; i++)); do
        kill -0 "$pid" 2>/dev/null || break
        sleep 0.02
    done
    ! kill -0 "$pid" 2>/dev/null || fail "it does not end"
    wait "$pid"
    local status=$?
    pid=
    [ "$status" = "$1" ] || fail "status $status instead of $1"
}

# daemon_ends STATUS: the same, and the bus has not complained.
daemon_ends() {
    daemon_gone "$1"
    ended "$1" "$1"
}

daemon_serves_until_sigterm() {
    daemon_supervised "$work/socket"
    ! grep -q '^ready' "$work/out" || fail "told twice"
    printf 'measure\nnonsense\n' >&3
    await 'measure: 20\.0 degrees$'
    await 'commands: status, measure, quit$'
    for ((n = 1; n < 600; n++)); do # until the sampler has had its turn
        echo status >&3
        daemon_answers "$n" status
        grep -Eq '^status: [1-9][0-9]* samples, [0-9]+ missed, load [0-9.]+; 1 answered, 0 dropped$' \
            "$work/out" && break
        sleep 0.02
    done
    ((n < 600)) || fail "no samples"
    kill -TERM "$pid"
    daemon_ends 0
    [ ! -s "$work/err" ] || fail "it complains"
}

daemon_ends_on_sigint() {
    daemon_start
    await 'ready$'
    kill -INT "$pid"
    daemon_ends 0
}

daemon_logs_elsewhere() {
    mkfifo "$work/console"
    daemon_start -l "$work/console"
    echo quit >"$work/console"
    daemon_gone 0
    [ ! -s "$work/out" ] || fail "with -l it printed: $(cat "$work/out")"
}

daemon_finishes_what_was_asked_before_quit() {
    daemon_start
    printf 'measure\nmeasure\nquit\n' >&3
    daemon_ends 0
    [ "$(grep -c '^measure: .* degrees$' "$work/out")" = 2 ] || fail "not both are answered"
}

daemon_goes_on_without_input() {
    "${program[@]}" </dev/null >"$work/out" 2>"$work/err" &
    pid=$!
    await 'ready$'
    kill -TERM "$pid"
    daemon_ends 0
}

# Four are open and four wait; the device does ten in a second.
daemon_answers_all_when_too_many_ask() {
    daemon_start
    await 'ready$'
    for ((n = 0; n < 40; n++)); do echo measure; done >&3
    daemon_answers 40 measure
    grep -q '^measure: dropped, too many wait$' "$work/out" || fail "none is dropped"
    grep -q '^measure: .* degrees$' "$work/out" || fail "none is measured"
    ! grep -q '^measure: failed$' "$work/out" || fail "more are open than the device has room for"
    echo quit >&3
    daemon_ends 0
}

# It stays open when a writer has gone.
daemon_reads_a_fifo() {
    mkfifo "$work/console"
    daemon_start "$work/console"
    await 'ready$'
    echo measure >"$work/console"
    await 'measure: 20\.0 degrees$'
    echo quit >"$work/console"
    daemon_ends 0
}

daemon_tells_an_abstract_socket() {
    daemon_supervised "@$work/socket"
    echo quit >&3
    daemon_ends 0
}

daemon_tells_a_file_descriptor() {
    mkfifo "$work/told"
    exec 4<>"$work/told"
    NOTIFY_FD=4 daemon_start
    local line=none
    read -r -t 60 line <&4 || fail "not told"
    [ -z "$line" ] || fail "told '$line'"
    echo quit >&3
    daemon_ends 0
}

daemon_fails_without_its_supervisor() {
    NOTIFY_SOCKET=$work/none daemon_start
    daemon_ends 1
    grep -qx 'qor-daemon: cannot tell the supervisor: No such file or directory' "$work/err" ||
        fail "not told"
}

daemon_says_what_is_not_up() {
    NOTIFY_FD=1 daemon_start "$work/none"
    daemon_gone 1
    grep -qx "$work/none: No such file or directory" "$work/err" || fail "no reason"
    grep -qx 'qor-daemon: console is not up: its init has failed' "$work/err" || fail "not told"
    ! grep -qx '' "$work/out" || fail "ready all the same"
}

# What it would tell procd, whose functions have stand-ins here.
# shellcheck disable=SC2034,SC2317 # the script that is read uses them
daemon_is_started_by_procd() (
    procd_open_instance() { :; }
    procd_close_instance() { :; }
    procd_set_param() { echo "$*"; }
    # shellcheck source=/dev/null
    . "${BASH_SOURCE[0]%/*}/../../examples/daemon/qor-daemon.init"
    CONSOLE=$work/console
    start_service >"$work/out" || fail "it does not start"
    [ -p "$work/console" ] || fail "no FIFO"
    grep -qx "command /usr/bin/qor-daemon -l $work/console" "$work/out" || fail "another command"
    grep -q '^respawn ' "$work/out" || fail "not begun again"
    [ "$USE_PROCD" = 1 ] || fail "without procd"
)

daemon_has_a_unit() {
    sed "s|/usr/bin/qor-daemon|${program[0]}|" \
        "${BASH_SOURCE[0]%/*}/../../examples/daemon/qor-daemon.service" >"$work/qor-daemon.service"
    systemd-analyze verify --man=no "$work/qor-daemon.service" >"$work/out" 2>"$work/err" ||
        fail "the unit is not understood"
    [ ! -s "$work/err" ] || fail "the unit is not understood"
}

watchdog_feeds_while_all_is_well() {
    run 0 -n 3
    [ "$(grep -cx fed "$work/out")" = 3 ] || fail "not fed each second"
    ! grep -q '^not fed' "$work/out" || fail "not well"
}

watchdog_feeds_a_supervisor() {
    "${BASH_SOURCE[0]%/*}/supervisor.py" "$work/socket" >"$work/told" &
    supervisor=$!
    await bound "$work/told"
    NOTIFY_SOCKET=$work/socket run 0 -n 1
    wait "$supervisor" || fail "the supervisor has failed"
    diff "$work/told" <(printf 'bound\nWATCHDOG=1\n') || fail "the supervisor was told something else"
    ! grep -qx fed "$work/out" || fail "told twice"
}

# At its end it says that it needs no watchdog any more.
watchdog_feeds_a_device() {
    : >"$work/device"
    run 0 -n 2 -d "$work/device"
    printf '\0\0V' | cmp "$work/device" - || fail "the device got something else"
}

# starved PATTERN...: it is not fed at last, and the last explanation has such lines.
starved() {
    grep -v '^\[' "$work/out" >"$work/lines"
    tail -n 1 "$work/lines" | grep -q '^  ' || fail "it was fed at last"
    tac "$work/lines" | sed '/^not fed/q' >"$work/last"
    local pattern
    for pattern; do
        grep -Eq "$pattern" "$work/last" || fail "not said: $pattern"
    done
}

watchdog_starves_at_a_stall() {
    run 1 -n 5 -s
    grep -qx fed "$work/out" || fail "never fed"
    starved '^not fed: busy [12] of 2, over 1, circles 0, oldest server for [0-9]+ ms, ' \
        '^  thread [0-9]+: worker, depth 1 > server request 0, session [0-9]+, topic 0, ms [0-9]+$'
}

# What the inits call fails at the end, and the bus says so.
watchdog_starves_at_a_circle() {
    "${program[@]}" -n 2 -c >"$work/out" 2>"$work/err"
    [ $? = 1 ] || fail "fed all along"
    ! grep -qx fed "$work/out" || fail "fed in spite of the circle"
    starved '^not fed: .* circles 1, ' '^  circle of 2: (server|client) \(thread [0-9]+\) ' \
        'waits for the start of server, held up by thread' \
        'waits for the start of client, held up by thread'
}

watchdog_refuses_wrong_options() {
    run 2 -x
    grep -q '^usage: watchdog' "$work/err" || fail "no usage"
    run 2 -d "$work/none"
    grep -qx 'watchdog: nobody to feed: No such file or directory' "$work/err" || fail "no reason"
}

"$case_name"
