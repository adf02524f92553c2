#!/usr/bin/env bash
# Feeds the agent with hostile input, made up by libFuzzer, under the address and undefined-behaviour sanitizers.
# Installs what is missing first.
#
# Usage: scripts/fuzz.sh [TARGET] [SECONDS]
#        scripts/fuzz.sh --replay [TARGET]
#   TARGET    json, control, tunnel, sso, rest or config; without it, all of them, one after the other
#   SECONDS   how long each target runs, 10 without it
#   --replay  only what is in fuzz/corpus, once each
#
# The build, and inputs that reach something new, stay in build/fuzz. An input that crashes, leaks, takes more than 5
# seconds or 512 MiB is a finding: its file stays in build/fuzz/findings, and the exit status is 1. Once the fault is
# mended, the file goes to fuzz/corpus.

set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

usage() { sed -n '2,/^$/s/^# \{0,1\}//p' scripts/fuzz.sh; }

targets=(json control tunnel sso rest config)
seconds=10
replay=false
for argument in "$@"; do
    case $argument in
        -h | --help) usage; exit 0 ;;
        --replay) replay=true ;;
        json | control | tunnel | sso | rest | config) targets=("$argument") ;;
        '' | 0* | *[!0-9]*) echo "fuzz.sh: neither a target nor a number of seconds: '$argument', see --help" >&2; exit 2 ;;
        *) seconds=$argument ;;
    esac
done

scripts/setup.sh build fuzz
cmake -S . -B build/fuzz -G Ninja -DCMAKE_CXX_COMPILER=clang++-14 -DCMAKE_BUILD_TYPE=Debug \
    -DSANITIZE=address,undefined,fuzzer-no-link -DFUZZ=ON -DBUILD_LAB=OFF -DBUILD_TESTS=OFF
cmake --build build/fuzz --target "${targets[@]/#/fuzz_}"
export ASAN_SYMBOLIZER_PATH=/usr/bin/llvm-symbolizer-14
# What is freed is kept back for long enough to see it used, and counts as memory: less than the usual 256 MiB.
export ASAN_OPTIONS=quarantine_size_mb=32

# fuzz TARGET: what it finds new is kept and built upon the next time
fuzz() {
    local new=build/fuzz/corpus/$1 length=65536
    # A short message can open a session that moves half a megabyte.
    case $1 in control) length=4096 ;; tunnel) length=16384 ;; esac
    local options=(-timeout=5 -rss_limit_mb=512 -max_len="$length" -artifact_prefix="build/fuzz/findings/$1-")
    mkdir -p "$new" build/fuzz/findings
    if $replay; then
        "build/fuzz/fuzz/fuzz_$1" "${options[@]}" -runs=0 "fuzz/corpus/$1"
    else
        "build/fuzz/fuzz/fuzz_$1" "${options[@]}" -max_total_time="$seconds" -print_final_stats=1 \
            "$new" "fuzz/corpus/$1"
    fi
}

failed=()
for target in "${targets[@]}"; do
    echo "fuzz: $target"
    fuzz "$target" || failed+=("$target")
done
if ((${#failed[@]} > 0)); then
    echo "fuzz: FINDINGS in ${failed[*]}; what was found, the latest first:" >&2
    ls -1t build/fuzz/findings/* >&2
    exit 1
fi
echo "fuzz: nothing found"
