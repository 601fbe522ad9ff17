#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# check_imports.sh LIBRARY: fails unless the library takes from the platform exactly what imports.txt
# lists, and everything else from the C and C++ libraries.
set -euo pipefail
export LC_ALL=C
list=$(dirname "${BASH_SOURCE[0]}")/imports.txt

# Those of the C and C++ libraries carry a version.
imported=$(nm -D --undefined-only "$1" | awk '$1 == "U" && $2 !~ /@/ { print $2 }' | sort)
if ! difference=$(diff "$list" <(echo "$imported")); then
    echo "check_imports: $1 does not import what imports.txt lists (< missing, > too many):" >&2
    grep '^[<>]' <<<"$difference" >&2
    exit 1
fi

others=$(nm -D --undefined-only "$1" | grep '@' |
    grep -vE '@(GLIBC|GLIBCXX|CXXABI|GCC|LIBC)_[0-9.]+$') || exit 0
echo "check_imports: $1 needs other libraries:" >&2
echo "$others" >&2
exit 1
