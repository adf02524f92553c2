#!/usr/bin/env bash
# Says how much of the agent its tests run through, by subsystem: lines, and branches other than those that the compiler
# adds for exceptions. Installs what is missing first.
#
# Usage: scripts/coverage.sh [--missing]
#   --missing  also lists the lines that no test runs through, file by file
#
# The build stays in build/coverage. The exit status is 1 when a test fails, or when the tests run through less than
# 97% of the lines or 90% of the branches. What runs in a process that its test kills does not count.

set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

usage() { sed -n '2,/^$/s/^# \{0,1\}//p' scripts/coverage.sh; }

missing=false
for argument in "$@"; do
    case $argument in
        -h | --help) usage; exit 0 ;;
        --missing) missing=true ;;
        *) echo "coverage.sh: unknown option '$argument', see --help" >&2; exit 2 ;;
    esac
done

subsystems=(json log core registration tunnel)
tests=("${subsystems[@]}" agent)
build=build/coverage

scripts/setup.sh build test coverage
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS=--coverage
cmake --build "$build" --target "${tests[@]/%/_tests}"
find "$build" -name '*.gcda' -delete
for folder in "${tests[@]}"; do
    ctest --test-dir "$build/tests/$folder" --output-on-failure --parallel 4 --timeout 120
done

# Lines are gcovr's. Branches are taken from gcov itself: gcovr also counts those inside the clean-up that the compiler
# writes for exceptions. A branch counts when its condition was ever looked at, or its line never ran at all.
gcovr --root . "${subsystems[@]/#/--filter=}" --exclude-throw-branches --exclude-unreachable-branches \
    --json "$build/coverage.json" "${subsystems[@]/#/$build/}" "$build/tests"
if $missing; then gcovr --root . --add-tracefile "$build/coverage.json"; fi

gcov_reports=$build/gcov
rm -rf "$gcov_reports"
mkdir "$gcov_reports"
for subsystem in "${subsystems[@]}"; do
    (cd "$gcov_reports" && find "../$subsystem" -name '*.gcda' -exec \
        gcov --branch-probabilities --branch-counts --preserve-paths {} +)
done >/dev/null

# gcovr puts a new file in the place of its output: for root, /dev/null too.
line_figures() { # subsystem, lines, lines run
    for subsystem in "${subsystems[@]}"; do
        gcovr --root . --add-tracefile "$build/coverage.json" --filter "$subsystem/" --print-summary \
            --output "$build/report.txt" |
            sed -nE "s/^lines: .*\(([0-9]+) out of ([0-9]+)\)/lines $subsystem \2 \1/p"
    done
}
branch_figures() { # the same of branches
    awk '
        FNR == 1 { depth = split(FILENAME, path, "#"); subsystem = path[depth - 1] }
        /^ *[^:]+: *[0-9]+:/ { split($0, part, ":"); ran = part[1] !~ /[#=]/ }
        /^branch/ && !/throw/ && (!ran || !/never executed/) { all[subsystem]++; taken[subsystem] += /taken [1-9]/ }
        END { for (name in all) print "branches", name, all[name], taken[name] }' "$gcov_reports"/*.gcov
}

{ line_figures; branch_figures; } | awk -v names="${subsystems[*]}" '
    index(" " names " ", " " $2 " ") { all[$1, $2] = $3; run[$1, $2] = $4; sum[$1] += $3; done[$1] += $4 }
    function row(name, lines, ran, branches, taken) {
        printf "%-14s %6.1f%% of %4d lines %6.1f%% of %4d branches\n", name, 100 * ran / lines, lines,
            100 * taken / branches, branches
    }
    END {
        for (i = 1; i <= split(names, name, " "); i++)
            row(name[i], all["lines", name[i]], run["lines", name[i]], all["branches", name[i]], run["branches", name[i]])
        row("the agent", sum["lines"], done["lines"], sum["branches"], done["branches"])
        exit done["lines"] < 0.97 * sum["lines"] || done["branches"] < 0.90 * sum["branches"]
    }'
