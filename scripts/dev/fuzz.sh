#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: ./dev fuzz [SECONDS]
#
# Looks for inputs that break something, that long for each of the fuzz targets, 60 seconds unless given.
source scripts/dev/common.sh

# fuzz_one INPUT SECONDS: what it finds goes to build/fuzz-findings, inputs that reach something new to
# build/fuzz-corpus, where the next run finds them.
fuzz_one() {
    local corpus=build/fuzz-corpus/$1 length=4096
    [[ $1 != play ]] || length=100 # the time goes into the steps of a script
    mkdir -p "$corpus" build/fuzz-findings
    "build/fuzz/fuzz/$1_fuzz" -max_total_time="$2" -max_len="$length" -timeout=10 -entropic=0 \
        -print_final_stats=1 -artifact_prefix="build/fuzz-findings/$1-" "$corpus" "fuzz/corpus/$1" \
        >"build/fuzz-$1.log" 2>&1
}

# Prints what came of it; fails when it found something.
fuzz_result() {
    local log=build/fuzz-$1.log found=0
    [[ $2 == 0 ]] || found=1
    awk -v input="$1" -v found="$found" '/^stat::number_of_executed_units/ { count = $2 }
        /^stat::average_exec_per_sec/ { rate = $2 }
        END { printf "%-10s %9d inputs %6d a second  findings: %d\n", input, count, rate, found }' "$log"
    ((found)) || return 0
    grep -E '^(not as it should be|SUMMARY|.*runtime error|.*Test unit written)' "$log" || tail "$log"
    return 1
}

seconds=${1:-60} findings=0
[[ $# -le 1 && $seconds =~ ^[1-9][0-9]*$ ]] || die "fuzz takes whole seconds, not \"$*\"" 2
need clang "${BUILD_PACKAGES[@]}"
# Some releases have it in a package that clang depends on.
compgen -G "$(clang --print-runtime-dir)/libclang_rt.fuzzer*" >/dev/null || need libclang-rt-dev
build fuzz
export UBSAN_OPTIONS=print_stacktrace=1
cores=$(nproc)
inputs=(fuzz/corpus/*)
inputs=("${inputs[@]##*/}")
for ((at = 0; at < ${#inputs[@]}; at += cores)); do
    batch=("${inputs[@]:at:cores}") pids=()
    for i in "${!batch[@]}"; do
        fuzz_one "${batch[i]}" "$seconds" &
        pids+=($!)
    done
    for i in "${!batch[@]}"; do
        code=0
        wait "${pids[i]}" || code=$?
        fuzz_result "${batch[i]}" "$code" || findings=$((findings + 1))
    done
done
echo "fuzz: ${#inputs[@]} targets, $findings findings"
((findings == 0))
