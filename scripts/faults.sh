#!/usr/bin/env bash
# Makes each single system call and allocation of the agent fail once, in one run of the agent for each:
# connections, reads, files, threads, memory. The agent must survive, keep no resource, and serve again.
# Installs missing packages first.
#
# Usage: scripts/faults.sh [--preset NAME] [--step N] [FUNCTION...]
#   --preset NAME  one of CMakePresets.json: debug (the default), release, asan
#   --step N       only every N-th call of the memory functions, which are called thousands of times (default 1)
#   FUNCTION       only these functions, such as connect or new (default: all that the tests know)
#
# Builds first, in build/NAME. The exit status is 0 when the agent survived everything. It is 1 also when no
# call of a function could be made to fail, because then nothing has been tested.

# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

preset=debug
step=1
functions=()
while (($# > 0)); do
    case $1 in
        --preset) (($# > 1)) || refuse "--preset wants a name"; preset=$2; shift ;;
        --step) [[ ${2:-} =~ ^[1-9][0-9]*$ ]] || refuse "--step wants a number"; step=$2; shift ;;
        -*) refuse "unknown option '$1'" ;;
        *) functions+=("$1") ;;
    esac
    shift
done
[[ $preset =~ ^(debug|release|asan)$ ]] || refuse "unknown preset '$preset'"

scripts/setup.sh build test
cmake --preset "$preset" -DBUILD_LAB=ON -DBUILD_TESTS=ON
cmake --build --preset "$preset" --target faults_tests
program=build/$preset/tests/faults/faults_tests
mapfile -t known < <("$program" --gtest_filter='*AgentOutlives*' --gtest_list_tests | sed -n 's,^  .*/\(\w*\).*,\1,p')
((${#known[@]} > 0)) || { echo "faults.sh: the tests know no function" >&2; exit 1; }
for function in "${functions[@]}"; do
    [[ " ${known[*]} " == *" $function "* ]] || refuse "no test makes '$function' fail; the tests know: ${known[*]}"
done
((${#functions[@]} > 0)) || functions=("${known[@]}")

# A run mostly waits, so several run at once: lane K takes the calls K, K + lanes, K + 2 * lanes, ...
lanes=8
logs=$(mktemp -d)
trap 'rm -rf "$logs"' EXIT
status=0
for function in "${functions[@]}"; do
    case $function in malloc | calloc | realloc | new) stride=$((lanes * step)) ;; *) stride=$lanes ;; esac
    pids=()
    for ((lane = 0; lane < lanes; lane++)); do
        FAIL_FIRST=$((1 + lane * stride / lanes)) FAIL_STEP=$stride \
            "$program" --gtest_filter="*AgentOutlives*/$function" >"$logs/$function-$lane" 2>&1 &
        pids+=($!)
    done
    verdict=survived
    for ((lane = 0; lane < lanes; lane++)); do
        wait "${pids[lane]}" || { verdict=FAILED; status=1; cat "$logs/$function-$lane"; }
    done
    faults=$(sed -n 's/^.*: \([0-9]*\) faults, .*/\1/p' "$logs/$function"-* |
        awk '{ sum += $1 } END { print sum + 0 }')
    ((faults > 0)) || { verdict='FAILED: none could be made'; status=1; }
    printf 'faults: %-14s %5d faults, %s\n' "$function" "$faults" "$verdict"
done
exit "$status"
