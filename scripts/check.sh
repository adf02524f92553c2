#!/usr/bin/env bash
# Checks the sources without running them. Installs missing packages first.
#
# Usage: scripts/check.sh [format|shell|tidy|tidy-tests]...
#   format      every C++ file is formatted as .clang-format says
#   shell       shellcheck finds nothing in the scripts
#   tidy        clang-tidy finds nothing in the sources that build/debug compiles, without the tests
#   tidy-tests  clang-tidy finds nothing in the tests; this takes the longest
#
# Without arguments it makes all four checks. The exit status is 0 when every check that ran found nothing.

# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

format() {
    git ls-files -z '*.h' '*.cpp' | xargs --null --no-run-if-empty clang-format-14 --dry-run --Werror
}

shell() {
    { git ls-files -z 'scripts/*.sh' packaging/sysv 'packaging/debian/p*'; printf '.ci/run\0'; } | xargs --null shellcheck
}

# Prints the sources that build/debug compiles, without the one that only compiles asio.
units() {
    [[ -e build/debug/compile_commands.json ]] || cmake --preset debug >&2
    local file
    sed --quiet 's|^ *"file": "\(.*\)".*|\1|p' build/debug/compile_commands.json |
        while read -r file; do printf '%s\n' "${file#"$PWD"/}"; done | grep --invert-match '^cmake/'
}

# Drops clang-tidy's counts of warnings in the system's headers.
clang_tidy() {
    xargs --no-run-if-empty --max-args=1 --max-procs="$(nproc)" clang-tidy-14 --quiet -p build/debug 2>&1 |
        sed '/^[0-9]* warnings\{0,1\} generated\.$/d'
}

tidy() { units | grep --invert-match '^tests/' | clang_tidy; }

tidy_tests() { units | grep '^tests/' | clang_tidy; }

for job in "$@"; do
    case $job in
        format | shell | tidy | tidy-tests) ;;
        *) refuse "unknown check '$job'" ;;
    esac
done
(($# > 0)) || set -- format shell tidy tidy-tests

scripts/setup.sh build test check
for job in "$@"; do
    echo "check: $job"
    "${job//-/_}"
done
