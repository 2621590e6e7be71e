#!/bin/bash
# What the shell tests share. A test sources this file first. It then runs in an empty folder of its stage;
# `root` is the repository, and `build` the folder that the first argument of the test names.
set -eEu

# Off a stage, a test would find and kill the processes of others. Process 1 of a stage knows the stage's folder.
if ! grep -zqsxF "STAGE=${STAGE:-none}" /proc/1/environ; then
    echo "$0: runs only on a stage: tests/stage $0 ${*:-build}" >&2
    exit 2
fi
root=$(realpath "${BASH_SOURCE%/*}/..") build=$(realpath "${1-build}")
cd "$(mktemp -d -p "$STAGE")"
logs=(log err) # whose ends a failure shows
exec {report}>&1 # for failures of commands whose output goes elsewhere

fail() { # what is wrong; also shows the lines that led here, the last one first
    trap - ERR
    set +e
    {
        echo "FAIL: ${0##*/}, lines ${BASH_LINENO[*]}: $*"
        tail -c 5000 "${logs[@]}" 2>/dev/null
    } >&"$report"
    exit 1
}
# A subshell that fails leaves the report to its parent.
trap '[ $BASH_SUBSHELL != 0 ] || fail "$BASH_COMMAND"' ERR
skip() { echo "SKIPPED: $*"; } # what is not tested and why; tests/run shows it
not() { ! "$@"; }

# Repeats a command until it succeeds, for `limit` seconds at most, 60 if that is not set.
await() {
    local end=$((SECONDS + ${limit-60}))
    until "$@" >"$STAGE/attempt" 2>&1; do
        [ $SECONDS -lt $end ] || fail "not within ${limit-60} s: $* $(tail -c 1000 "$STAGE/attempt")"
        sleep 0.05
    done
}
exits() { # exit status, process id of a child
    local status=0
    await not kill -0 "$2"
    wait "$2" || status=$?
    [ $status = "$1" ] || fail "exit status $status instead of $1"
}
terminate() { kill "$2" && exits "$@"; } # exit status, process id of a child
same() { # a file of tests/expected that standard input has to equal; UPDATE=1 writes it
    cat >"$STAGE/seen"
    [ -z "${UPDATE-}" ] || cp "$STAGE/seen" "$root/tests/expected/$1"
    diff -u "$root/tests/expected/$1" "$STAGE/seen"
}

logged() { grep -qaF -e "$1" "${2-log}"; } # text, file
logged_times() { [ "$(grep -ac -e "$2" "${3-log}")" = "$1" ]; } # number of lines, pattern, file
pid_of() { sed -n "s/.*started zarn5_$1 with pid \([0-9]*\).*/\1/p" log | tail -n 1; } # gui or uartinterface
samples() { ln -sf "$build"/demo/zarn5_* .; } # the sample modules
settings() { # what follows in section "logging", and further sections
    mkdir -p "$XDG_CONFIG_HOME/zarn5"
    printf '[logging]\nlogfile=log\ntelegramfile=telegrams\n%b' "${1-}" >"$XDG_CONFIG_HOME/zarn5/keepwatch.conf"
}
launch() { # a wrapper of the daemon, if any; sets `daemon`
    rm -f log
    "$@" "$build/keepwatch" >out 2>err &
    daemon=$!
    await test -s log
}
stop() { # shuts the daemon and its modules down
    kill -INT "$daemon" "$daemon"
    exits 0 "$daemon"
    logged "system was shutted down"
    [ ! -s err ] && not pgrep -af 'zarn5_|sleep 1000'
}
