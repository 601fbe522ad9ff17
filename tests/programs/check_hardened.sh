#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# check_hardened.sh FILE...: fails unless each was linked and compiled to withstand attacks.
set -euo pipefail

failed=0
# must FILE WHAT PATTERN TEXT: TEXT has a line like PATTERN.
must() {
    grep -qE "$3" <<<"$4" || { echo "check_hardened: $1 has no $2" >&2; failed=1; }
}
for file in "$@"; do
    segments=$(readelf -lW "$file") dynamic=$(readelf -dW "$file") symbols=$(nm -D "$file")
    must "$file" "read-only relocations" '^ +GNU_RELRO' "$segments"
    must "$file" "stack that can't be executed" '^ +GNU_STACK .* RW +0x' "$segments"
    must "$file" "binding at the start" 'FLAGS_1.*NOW' "$dynamic"
    must "$file" "stack protector" ' __stack_chk_(fail|guard)' "$symbols"
    must "$file" "code at a random address" 'FLAGS_1.*PIE|SONAME' "$dynamic"
done
exit $failed
