#!/bin/sh
# kesto-host end to end against the in-memory loopback plug-in.
# Usage: loopback-cases.sh CASE TOOL PLUGIN WORKDIR
set -u
case_name=$1
tool=$2
plugin=$3
work=$4/loopback-$1
mkdir -p "$work"

run() { "$tool" --plugin "$plugin" --bus 1 --address 2 "$@"; }

# expect STATUS PATTERN COMMAND...: the command exits with STATUS and its
# standard error matches PATTERN (grep -E).
expect() {
    want=$1 pattern=$2
    shift 2
    "$@" 2>"$work/stderr"
    got=$?
    if [ "$got" -ne "$want" ]; then
        cat "$work/stderr"
        echo "FAIL: exit status $got, expected $want"
        exit 1
    fi
    if ! grep -Eq "$pattern" "$work/stderr"; then
        cat "$work/stderr"
        echo "FAIL: standard error does not match: $pattern"
        exit 1
    fi
}

case $case_name in
echo)
    expect 0 '' run echo --bytes 3M --pings 5 >"$work/stdout"
    grep -q '^round trip, 5 pings of 100 bytes' "$work/stdout" &&
        grep -q '^3145728 bytes echoed in' "$work/stdout" || { cat "$work/stdout"; exit 1; }
    ;;
bridge-file)
    head -c 300001 /dev/urandom >"$work/in"
    expect 0 'all 300001 bytes of input sent' run bridge --linger 0.2 <"$work/in" >"$work/out"
    cmp "$work/in" "$work/out"
    ;;
bridge-slow-reader)
    # The phone goes quiet long before the reader has taken everything.
    head -c 400000 /dev/urandom >"$work/in"
    cat "$work/in" | run bridge --linger 0.1 2>"$work/stderr" | (sleep 1; cat) >"$work/out"
    cmp "$work/in" "$work/out"
    ;;
bridge-empty-input)
    expect 0 'all 0 bytes of input sent' run bridge </dev/null >"$work/out"
    test ! -s "$work/out"
    ;;
echo-timer-events)
    KESTO_LOOPBACK_MODE=timer-events expect 0 '' run echo --bytes 1M >"$work/stdout"
    grep -q '^1048576 bytes echoed in' "$work/stdout"
    ;;
signal-while-busy)
    # The loop never has to wait here, and must notice Ctrl-C all the same.
    timeout -s KILL 15 "$tool" --plugin "$plugin" --bus 1 --address 2 echo --bytes 100G \
        >/dev/null 2>"$work/stderr" &
    pid=$!
    sleep 0.5
    kill -INT "$pid"
    wait "$pid"
    got=$?
    if [ "$got" -ne 130 ] || ! grep -q 'stopped by signal 2' "$work/stderr"; then
        tail -5 "$work/stderr"
        echo "FAIL: exit status $got, expected 130 after SIGINT"
        exit 1
    fi
    ;;
corrupt)
    KESTO_LOOPBACK_MODE=corrupt expect 3 'byte 5000 came back as' run echo --bytes 64K
    ;;
no-connect)
    KESTO_LOOPBACK_MODE=no-connect expect 1 'not connected after 0\.[0-9] s' run echo --timeout 0.3
    ;;
leak)
    KESTO_LOOPBACK_MODE=leak expect 1 'kept 1 of the 3 strings' run echo --bytes 1K --model Tester
    ;;
fail-open)
    KESTO_LOOPBACK_MODE=fail-open expect 1 \
        'connectionEstablish failed: KestoBearerErrorCannotOpenDevice \(17\)' run echo
    grep -q 'last plug-in log line: Error: Could not open android device' "$work/stderr"
    ;;
*)
    echo "unknown case $case_name"
    exit 2
    ;;
esac
