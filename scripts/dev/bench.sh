#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: ./dev bench [--gate]
#
# Measures round trips against budgets and other ways to talk; with --gate it only counts what one round trip
# costs, and fails when that is too much.
source scripts/dev/common.sh

# What a round trip is compared with, and measured with piece by piece; each may be missing.
BENCH_PEERS=(libsystemd-dev dbus-daemon libgrpc++-dev libprotobuf-dev protobuf-compiler-grpc
    libbenchmark-dev)

[[ $# == 0 || $* == --gate ]] || die "bench does not take \"$*\"; see ./dev help" 2
need g++ "${BUILD_PACKAGES[@]}" python3 strace valgrind
if (($#)); then
    build bench
    python3 -B bench/gate.py build/bench/bench
    exit
fi
(need "${BENCH_PEERS[@]}") || echo "bench: going on with what is there"
build bench
[[ ! -x build/bench/bench/bench_pieces ]] || build/bench/bench/bench_pieces
python3 -B bench/run.py build/bench build/bench/results
