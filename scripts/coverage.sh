#!/usr/bin/env bash
# Reports how much of the agent its tests run, for each subsystem: lines, and branches without those that the
# compiler adds for exceptions. Installs missing packages first.
#
# Usage: scripts/coverage.sh [--missing]
#   --missing  also lists the lines that no test runs, file by file
#
# The build stays in build/coverage. The exit status is 1 when a test fails, or when the tests run less than
# 97% of the lines or 90% of the branches. A process that its test kills contributes nothing.

# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

missing=false
for argument in "$@"; do
    case $argument in
        --missing) missing=true ;;
        *) refuse "unknown option '$argument'" ;;
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

# gcovr counts the lines. gcov itself counts the branches, because gcovr also counts those inside the clean-up
# that the compiler writes for exceptions. A branch counts when its condition was evaluated at least once, or
# when its line never ran.
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

# The output is a file because gcovr replaces its output by a new file; run by root it would replace
# /dev/null.
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
