#!/usr/bin/env bash
# Looks at the sources without running them. Installs what is missing first.
#
# Usage: scripts/check.sh [format|shell|tidy|tidy-tests]...
#   format  every C++ file is formatted as .clang-format says
#   shell   shellcheck has nothing to say about the scripts
#   tidy    clang-tidy has nothing to say about what build/debug compiles, the tests apart
#   tidy-tests  nor about the tests; this takes the longest
#   Without any, all of them.

set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

usage() { sed -n '2,/^$/s/^# \{0,1\}//p' scripts/check.sh; }

format() {
    git ls-files -z '*.h' '*.cpp' | xargs --null --no-run-if-empty clang-format-14 --dry-run --Werror
}

shell() {
    { git ls-files -z 'scripts/*.sh' 'packaging/*.sh'; printf '.ci/run\0'; } | xargs --null shellcheck
}

# Every unit that build/debug compiles but asio's own, which is not ours to judge.
units() {
    [[ -e build/debug/compile_commands.json ]] || cmake --preset debug >&2
    sed --quiet "s|^ *\"file\": \"$PWD/\(.*\)\".*|\1|p" build/debug/compile_commands.json | grep --invert-match '^cmake/'
}

# How much clang-tidy saw in the system's headers is no news.
clang_tidy() {
    xargs --no-run-if-empty --max-args=1 --max-procs="$(nproc)" clang-tidy-14 --quiet -p build/debug 2>&1 |
        sed '/^[0-9]* warnings\{0,1\} generated\.$/d'
}

tidy() { units | grep --invert-match '^tests/' | clang_tidy; }

tidy_tests() { units | grep '^tests/' | clang_tidy; }

for job in "$@"; do
    case $job in
        -h | --help) usage; exit 0 ;;
        format | shell | tidy | tidy-tests) ;;
        *) echo "check.sh: unknown check '$job', see --help" >&2; exit 2 ;;
    esac
done
(($# > 0)) || set -- format shell tidy tidy-tests

scripts/setup.sh build test check
for job in "$@"; do
    echo "check: $job"
    "${job//-/_}"
done
