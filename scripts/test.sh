#!/usr/bin/env bash
# Builds everything with warnings as errors and runs every test, in parallel. Installs what is missing first.
#
# Usage: scripts/test.sh [--preset NAME | --sanitize address|thread] [--stress [ROUNDS]] [FOLDER]...
#   --preset NAME       one of CMakePresets.json: debug (the default), release, asan, tsan
#   --sanitize address  the same as --preset asan: address and undefined-behaviour sanitizers
#   --sanitize thread   the same as --preset tsan: thread sanitizer (without tests/faults, which it cannot run)
#   --stress [ROUNDS]   runs the tests ROUNDS times (default 10) beside twice as many busy processes as there
#                       are cores, because no test may depend on how fast the machine is. Prints after each
#                       round how it went, and after the last one which tests failed and how often.
#   FOLDER              of tests/, such as tunnel: only what is in it
#
# The build stays in build/NAME. The exit status is 0 when every test passed.

# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

preset=debug
rounds=0
folders=()
while (($# > 0)); do
    case $1 in
        --preset)
            (($# > 1)) || refuse "--preset wants a name"
            preset=$2
            shift ;;
        --sanitize)
            case ${2:-} in
                address) preset=asan ;;
                thread) preset=tsan ;;
                *) refuse "--sanitize wants address or thread" ;;
            esac
            shift ;;
        --stress)
            rounds=10
            if [[ ${2:-} =~ ^[1-9][0-9]*$ ]]; then
                rounds=$2
                shift
            fi ;;
        -*) refuse "unknown option '$1'" ;;
        *)
            [[ -e tests/$1/CMakeLists.txt && $1 != support ]] || refuse "no tests in '$1'"
            folders+=("$1") ;;
    esac
    shift
done
case $preset in
    debug | release | asan | tsan) ;;
    *) refuse "unknown preset '$preset'" ;;
esac

scripts/setup.sh build test
echo "test: building in build/$preset"
cmake --preset "$preset" -DBUILD_LAB=ON -DBUILD_TESTS=ON
targets=()
((${#folders[@]} == 0)) || targets=(--target "${folders[@]/%/_tests}")
cmake --build --preset "$preset" "${targets[@]}"

runner=()
# The thread sanitizer fails under the wide address randomisation of newer kernels, so switch that off if
# permitted.
if [[ $preset == tsan ]] && setarch --addr-no-randomize true 2>/dev/null; then
    runner=(setarch --addr-no-randomize)
fi

# Every test, or those of the folders, once.
run_tests() {
    if ((${#folders[@]} == 0)); then
        echo "test: running every test of build/$preset"
        "${runner[@]}" ctest --preset "$preset"
        return
    fi
    local folder status=0
    for folder in "${folders[@]}"; do
        echo "test: running tests/$folder of build/$preset"
        (cd "build/$preset/tests/$folder" &&
            "${runner[@]}" ctest --output-on-failure --parallel 4 --no-tests=error) || status=1
    done
    return "$status"
}

busy=()
stop_busy() {
    ((${#busy[@]} == 0)) || kill "${busy[@]}" 2>/dev/null || true
    busy=()
}

# Each ends by itself when this script is killed and cannot end it.
start_busy() {
    local i
    for ((i = 0; i < 2 * $(nproc); ++i)); do
        while kill -0 $$ 2>/dev/null; do
            for ((turns = 0; turns < 100000; ++turns)); do :; done
        done &
        busy+=($!)
    done
}

stress() {
    local round started failed=0
    output=$(mktemp)
    trap 'stop_busy; rm -f "$output" "$output.round"' EXIT
    trap 'exit 130' INT TERM HUP
    start_busy
    echo "test: $rounds rounds beside ${#busy[@]} busy processes"
    for ((round = 1; round <= rounds; ++round)); do
        started=$SECONDS
        if run_tests >"$output.round" 2>&1; then
            echo "test: round $round of $rounds passed in $((SECONDS - started)) s"
        else
            failed=$((failed + 1))
            echo "test: round $round of $rounds FAILED in $((SECONDS - started)) s"
            cat "$output.round"
            sed -nE 's/^\t *[0-9]+ - (.*) \(.*\)$/\1/p' "$output.round" >>"$output"
        fi
    done
    ((failed > 0)) || { echo "test: no failure in $rounds rounds"; return 0; }
    echo "test: FAILED in $failed of $rounds rounds; the tests, and how often each failed:"
    sort "$output" | uniq --count
    return 1
}

if ((rounds > 0)); then stress; else run_tests; fi
