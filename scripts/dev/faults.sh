#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: ./dev faults [EVERY]
#
# Makes each allocation and each platform call fail in every scenario, under the sanitizers; with EVERY, only
# each so many points.
source scripts/dev/common.sh

# Platform functions that the library calls and that are not documented to fail.
NEVER_FAIL="app_info_destroy bundle_foreach bundle_free bundle_keyval_get_type
    bundle_keyval_type_is_array dlog_print ecore_timer_del rpc_port_parcel_destroy
    rpc_port_stub_destroy"

every=${1:-1}
[[ $# -le 1 && $every =~ ^[1-9][0-9]*$ ]] || die "faults takes a whole number, not \"$*\"" 2
need g++ "${BUILD_PACKAGES[@]}" libgtest-dev libgmock-dev
build asan
export ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1
build/asan/tests/faults/faults "$every" | tee build/faults.log
[[ $every == 1 ]] || exit 0 # a sample need not reach every function
failed=" $NEVER_FAIL $(awk '$3 == "points" && $2 > 0 { print $1 }' build/faults.log) "
for function in $(nm -D --undefined-only build/asan/src/libnelvo.so |
    awk '$2 ~ /^(app|bundle|dlog|ecore|rpc_port)_/ { print $2 }'); do
    [[ ${failed//$'\n'/ } == *[[:space:]]"$function"[[:space:]]* ]] ||
        die "the library calls $function, which was never made to fail"
done
