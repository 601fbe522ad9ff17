#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# check_exports.sh LIBRARY: fails unless the library exports its public functions and nothing else.
# check_exports.sh LIBRARY HEADER: fails when it exports C++ that the header does not declare.
set -euo pipefail

if (($# == 2)); then
    declared=$(grep -oE '[A-Za-z]+' "$2" | sort -u)
    while read -r name; do
        grep -qx "$name" <<<"$declared" && continue
        echo "check_exports: $1 exports $name, which $2 does not declare" >&2
        exit 1
    done < <(nm -DC --defined-only "$1" | sed -n 's/.* nelvo::testkit::\([A-Za-z]*\).*/\1/p' | sort -u)
    ! nm -DC --defined-only "$1" | grep ' W std::' || exit 1
    exit 0
fi

wanted=$(sort <<'LIST'
nelvo_complete_action_execution
nelvo_complete_app_state_request
nelvo_deinitialize
nelvo_get_action_name
nelvo_initialize
nelvo_set_action_execution_cb
nelvo_set_app_state_request_cb
nelvo_unset_action_execution_cb
nelvo_unset_app_state_request_cb
LIST
)
exported=$(nm -D --defined-only "$1" | awk '{ print $3 }' | sort)

if ! difference=$(diff <(echo "$wanted") <(echo "$exported")); then
    echo "check_exports: $1 does not export what it should (< missing, > too many):" >&2
    grep '^[<>]' <<<"$difference" >&2
    exit 1
fi
