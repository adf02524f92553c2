#!/usr/bin/env bash
# Builds everything with warnings as errors and runs every test, in parallel. Installs what is missing first.
#
# Usage: scripts/test.sh [--preset NAME | --sanitize address|thread] [FOLDER]...
#   --preset NAME       one of CMakePresets.json: debug (the default), release, asan, tsan
#   --sanitize address  the same as --preset asan: address and undefined-behaviour sanitizers
#   --sanitize thread   the same as --preset tsan: thread sanitizer (without tests/faults, which it cannot run)
#   FOLDER              of tests/, such as tunnel: only what is in it
#
# The build stays in build/NAME. The exit status is 0 when every test passed.

# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

preset=debug
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
if ((${#folders[@]} == 0)); then
    echo "test: running every test of build/$preset"
    exec "${runner[@]}" ctest --preset "$preset"
fi
status=0
for folder in "${folders[@]}"; do
    echo "test: running tests/$folder of build/$preset"
    (cd "build/$preset/tests/$folder" && "${runner[@]}" ctest --output-on-failure --parallel 4 --timeout 120 \
        --no-tests=error) || status=1
done
exit "$status"
