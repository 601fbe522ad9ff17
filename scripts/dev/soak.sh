#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: ./dev soak [REQUESTS]
#
# Sends a million requests, or so many, beside hostile clients.
# First over sockets, then ten times as many in virtual time; then it watches the main loop of the example
# player. Takes a quarter of an hour.
source scripts/dev/common.sh

requests=${1:-1000000}
[[ $# -le 1 && $requests =~ ^[1-9][0-9]*$ ]] || die "soak takes a whole number, not \"$*\"" 2
need g++ "${BUILD_PACKAGES[@]}" libgtest-dev libgmock-dev strace
build dev
(cd build && dev/tests/soak "$requests" "$PWD/dev/examples/player/player")
