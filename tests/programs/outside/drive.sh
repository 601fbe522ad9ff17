#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# drive.sh NELVOCTL MANIFEST APP_ID PROGRAM...: starts the application, asks it with nelvoctl until it
# answers, and ends it.
set -euo pipefail
nelvoctl=$1 app=$3
export NELVO_HOST_MANIFEST=$2
NELVO_HOST_RUNTIME_DIR=$(mktemp -d)
export NELVO_HOST_RUNTIME_DIR
shift 3

timeout 60 "$@" &
pid=$!
trap 'kill $pid 2>/dev/null || true; rm -rf "$NELVO_HOST_RUNTIME_DIR"' EXIT
for ((tries = 0; tries < 500; tries++)); do
    code=0
    answer=$("$nelvoctl" call "$app" "${ACTION:-greet}" "${PARAMS:-Ann}" 2>&1) || code=$?
    [[ $code == 3 ]] || break # not there yet
    kill -0 $pid
    sleep 0.02
done
printf '%s: %s\n' "$1" "$answer"
[[ $code == 0 && $answer == *ACTION_EXECUTION_SUCCESS* ]]
