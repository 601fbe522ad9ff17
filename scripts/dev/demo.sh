#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: ./dev demo
#
# Builds, then drives the example player through everything it can do.
source scripts/dev/common.sh

NELVOCTL=build/release/tools/nelvoctl/nelvoctl
DEMO_DIR=
PLAYER_PID=
ANSWERS=0
WRONG=0

demo_cleanup() {
    [[ -z $PLAYER_PID ]] || kill "$PLAYER_PID" 2>/dev/null || true
    [[ -z $DEMO_DIR ]] || rm -rf "$DEMO_DIR"
}

wrong() {
    WRONG=$((WRONG + 1))
    printf 'WRONG: %s\n' "$1"
}

start_player() {
    DEMO_DIR=$(mktemp -d)
    trap demo_cleanup EXIT
    unset NELVO_HOST_APP_ID NELVO_HOST_MANIFEST
    export NELVO_HOST_RUNTIME_DIR=$DEMO_DIR
    # It gets the signals that timeout gets; if it does not end, it is killed.
    timeout --kill-after=5 120 build/release/examples/player/player 2>"$DEMO_DIR/player.log" &
    PLAYER_PID=$!
    local tries
    for ((tries = 0; tries < 500; tries++)); do
        ! "$NELVOCTL" state demo.player >/dev/null 2>&1 || return 0
        kill -0 "$PLAYER_PID" 2>/dev/null || break
        sleep 0.02
    done
    cat "$DEMO_DIR/player.log" >&2
    die "the player did not start"
}

# ask WANTED_EXIT_CODE WANTED_ANSWER ARGUMENT...: runs nelvoctl, shows what it says and compares. The
# request id is random and left out of the comparison; an answer is one line with its keys in order.
ask() {
    local wanted_code=$1 wanted=$2 code=0 out argument
    shift 2
    printf '\n$ nelvoctl'
    for argument in "$@"; do
        [[ $argument =~ ^[A-Za-z0-9._-]+$ ]] || argument="'$argument'"
        printf ' %s' "$argument"
    done
    echo
    out=$("$NELVOCTL" "$@" 2>"$DEMO_DIR/stderr") || code=$?
    cat "$DEMO_DIR/stderr"
    [[ -z $out ]] || printf '%s\n' "$out"
    printf '(exit code %d)\n' "$code"

    ANSWERS=$((ANSWERS + 1))
    [[ ! $out =~ ^(.*)\"requestId\":[0-9]+,(.*)$ ]] || out=${BASH_REMATCH[1]}${BASH_REMATCH[2]}
    [[ $out == "$wanted" ]] || wrong "the answer should be: $wanted"
    ((code == wanted_code)) || wrong "the exit code should be $wanted_code"
}

success() {
    printf '{"result":"%s","status_code":"ACTION_EXECUTION_SUCCESS"}' "$1"
}

state() {
    printf '{"appContext":"%s","status_code":"ACTION_EXECUTION_SUCCESS"}' "${1//\"/\\\"}"
}

ask_everything() {
    local app=demo.player
    ask 0 "$(state '{"playing":false,"position":0.0,"shuffled":false,"volume":50}')" state $app
    ask 0 "$(success playing)" call $app play
    ask 0 "$(success 'volume 30')" call $app set_volume '{"volume": 30}'

    printf '\n# The player checks what it is given; the answer says what it wants.\n'
    ask 0 "$(success 'error: set_volume expects {\"volume\": N} with a whole N from 0 to 100')" \
        call $app set_volume '{"volume": -1}'

    printf '\n# It reports the outcome of seek 0.2 s after its callback has returned.\n'
    ask 0 "$(success 'position 42.5')" call $app seek '{"position": 42.5}'

    printf '\n# shuffle is registered 0.08 s after the answer to load_playlist: the library waits for it.\n'
    ask 0 "$(success loading)" call $app load_playlist
    ask 0 "$(success shuffled)" call $app shuffle

    printf '\n# Nobody registers this one, so the library answers.\n'
    ask 1 "$(printf '{"result":"","status_code":"ACTION_EXECUTION_FAILURE","status_msg":"%s"}' \
        'Action Execution callback not registered')" call $app dance

    printf '\n# record never completes. The library would answer after 30 s; we wait less.\n'
    ask 4 '' call $app record --timeout 0.5

    printf '\n# The next request takes its place, and nothing is amiss.\n'
    ask 0 "$(success paused)" call $app pause
    ask 0 "$(state '{"playing":false,"position":42.5,"shuffled":true,"volume":30}')" state $app

    printf '\n# An application that is not there.\n'
    ask 3 '' call demo.absent play
}

stop_player() {
    local code=0
    kill -TERM "$PLAYER_PID"
    wait "$PLAYER_PID" || code=$?
    PLAYER_PID=
    ((code == 0)) || wrong "the player should end with exit code 0, not $code"
}

(($# == 0)) || die "demo does not take \"$1\"; see ./dev help" 2
need g++ "${BUILD_PACKAGES[@]}"
build release
start_player
ask_everything
stop_player
if ((WRONG)); then
    [[ ! -s $DEMO_DIR/player.log ]] || sed 's/^/player log: /' "$DEMO_DIR/player.log"
    printf '\n'
    die "demo: $WRONG of the results above are marked WRONG"
fi
printf '\ndemo: all %d answers were right and the player ended cleanly\n' "$ANSWERS"
