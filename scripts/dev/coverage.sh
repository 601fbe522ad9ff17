#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: ./dev coverage
#
# Says which lines and branches the tests reach; fails when they reach too few.
source scripts/dev/common.sh

COVERAGE_REPORT=build/coverage/report

# Where the compiler adds edges of its own for exceptions without marking them as such.
COMPILERS_BRANCHES='.*(new \(std::nothrow\)|\} catch \(|return nelvo::logException).*'

# portion A B: A of B, in per cent as well, rounded down: 100.0 % is all.
portion() {
    local tenths=$((1000 * $1 / $2))
    printf '%5d of %5d (%3d.%d %%)' "$1" "$2" $((tenths / 10)) $((tenths % 10))
}

# covered GROUP LINES BRANCHES: prints what the tests reach of a folder; fails when that is less than
# the percentages given.
covered() {
    local name of counts=() enough=yes
    while read -r name of; do
        [[ $name =~ ^(lines|branches): && $of =~ \(([0-9]+)\ out\ of\ ([0-9]+)\) ]] || continue
        counts+=("${BASH_REMATCH[@]:1}")
    done < <(gcovr --add-tracefile "$COVERAGE_REPORT/report.json" --filter "$1/" --print-summary \
        --output "$COVERAGE_REPORT/summary.txt")
    ((${#counts[@]} == 4 && counts[1])) || die "gcovr counted nothing in $1/"
    ((100 * counts[0] >= $2 * counts[1] && 100 * counts[2] >= $3 * counts[3])) || enough=
    local short=
    [[ $enough ]] || short=', MISSED'
    printf '%-6s %s  %s   wanted: %d %% and %d %%%s\n' "$1/" "$(portion "${counts[@]:0:2}")" \
        "$(portion "${counts[@]:2}")" "$2" "$3" "$short"
    [[ $enough ]]
}

(($# == 0)) || die "coverage does not take \"$1\"; see ./dev help" 2
need g++ "${BUILD_PACKAGES[@]}" libgtest-dev libgmock-dev gcovr
build coverage
echo "Running the tests ..."
find build/coverage -name '*.gcda' -delete
# Not the sweeps: they take minutes here, and go where the others have been.
quietly coverage-tests ctest --test-dir build/coverage --output-on-failure --no-tests=error \
    --exclude-regex '^faults$' --parallel "$(nproc)"
mkdir -p "$COVERAGE_REPORT"
quietly coverage-report gcovr --filter src/ --filter host/ \
    --exclude-throw-branches --exclude-unreachable-branches \
    --exclude-branches-by-pattern "$COMPILERS_BRANCHES" \
    --json "$COVERAGE_REPORT/report.json" --html-details "$COVERAGE_REPORT/index.html" \
    build/coverage

enough=yes
printf '\n%-6s %24s  %24s\n' folder lines branches
covered src 100 100 || enough=
covered host 95 0 || enough=
printf '\nline by line: %s\n' "$COVERAGE_REPORT/index.html"
[[ $enough ]] || die "the tests reach too little"
