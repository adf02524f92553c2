#!/usr/bin/env bash
# Feeds the agent with hostile input that libFuzzer invents, under the address and undefined-behaviour
# sanitizers. Installs missing packages first.
#
# Usage: scripts/fuzz.sh [TARGET] [SECONDS]
#        scripts/fuzz.sh --replay [TARGET]
#   TARGET    json, control, tunnel, sso, rest or config; without it, all of them, one after the other
#   SECONDS   how long each target runs (default 10)
#   --replay  only runs each input of fuzz/corpus once
#
# The build stays in build/fuzz, and so do inputs that reach new code. An input that crashes, leaks, or takes
# more than 5 seconds or 512 MiB is a finding: its file stays in build/fuzz/findings, and the exit status is
# 1. Once the fault has been mended, move the file to fuzz/corpus.

# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

targets=(json control tunnel sso rest config)
seconds=
replay=false
for argument in "$@"; do
    case $argument in
        --replay) replay=true ;;
        json | control | tunnel | sso | rest | config)
            ((${#targets[@]} > 1)) || refuse "one target only, or none for all"
            targets=("$argument") ;;
        '' | 0* | *[!0-9]*) refuse "neither a target nor a number of seconds: '$argument'" ;;
        *)
            [[ -z $seconds ]] || refuse "one number of seconds only"
            seconds=$argument ;;
    esac
done
[[ -z $seconds || $replay == false ]] || refuse "--replay takes no number of seconds"
seconds=${seconds:-10}

scripts/setup.sh build fuzz
cmake -S . -B build/fuzz -G Ninja -DCMAKE_CXX_COMPILER=clang++-14 -DCMAKE_BUILD_TYPE=Debug \
    -DSANITIZE=address,undefined,fuzzer-no-link -DFUZZ=ON -DBUILD_LAB=OFF -DBUILD_TESTS=OFF
cmake --build build/fuzz --target "${targets[@]/#/fuzz_}"
export ASAN_SYMBOLIZER_PATH=/usr/bin/llvm-symbolizer-14
# The sanitizer keeps freed memory back to detect its use, and that counts towards the limit of 512 MiB. So
# keep back less than the usual 256 MiB.
export ASAN_OPTIONS=quarantine_size_mb=32

# fuzz TARGET: keeps inputs that reach new code; the next run starts from them
fuzz() {
    local new=build/fuzz/corpus/$1 length=65536
    # Short, because one message can open a session that moves half a megabyte.
    case $1 in control) length=4096 ;; tunnel) length=16384 ;; esac
    local options=(-timeout=5 -rss_limit_mb=512 -max_len="$length" -artifact_prefix="build/fuzz/findings/$1-")
    case $1 in control | tunnel) options+=(-dict=fuzz/tunnel.dict) ;; esac
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
    echo "fuzz: FINDINGS in ${failed[*]}; their files, the latest first:" >&2
    ls -1t build/fuzz/findings/* >&2
    exit 1
fi
echo "fuzz: nothing found"
