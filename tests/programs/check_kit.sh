#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# check_kit.sh LIBRARY HEADER: fails when the test kit exports C++ that its header does not declare.
set -euo pipefail
names=$(nm -DC --defined-only "$1" |
    sed -nE 's/.* nelvo::testkit::([A-Za-z]*).*/\1/p; s/.* W (std::.*)/\1/p' | sort -u)
if unknown=$(grep -vxF "$(grep -oE '[A-Za-z]+' "$2")" <<<"$names"); then
    echo "check_kit: $1 exports what $2 does not declare:" "$unknown" >&2
    exit 1
fi
