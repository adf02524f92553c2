#!/usr/bin/env bash
# Runs the agent's tunnel client against a hostile tunnel server and hostile services, all in one process and drawn from
# one seed, and keeps a ledger of every byte. Installs what is missing first.
#
# Usage: scripts/storm.sh [--preset NAME] [--log FOLDER] [MEGABYTES] [SEED]
#   --preset NAME  one of CMakePresets.json: release (the default), debug, asan
#   --log FOLDER   writes the client's log there, with all that it can tell: about a line for every frame and read
#   MEGABYTES      to be received by services and server together, 200 without it
#   SEED           a number; without it a random one. It is printed.
#
# The client's delays are milliseconds, so that a tunnel is made, flooded and broken every second or two. Frames come in
# pieces of any size, or in one with others; either side stops and goes on; sessions end in every way, and ids are used
# twice. All bytes are keyed by session, direction and place. At the end each byte has arrived, or is missing for a
# reason that the report names; none is foreign, repeated or out of order; every frame and message of the client was as
# it should be; no run hung; and the process holds the descriptors that it held at the start. Then the exit status is 0,
# otherwise 1.
#
# A seed draws the same sessions, bytes and plans again, but not the same timing. The build stays in build/NAME.

set -euo pipefail
called_from=$PWD
cd "$(dirname "${BASH_SOURCE[0]}")/.."

usage() { sed -n '2,/^$/s/^# \{0,1\}//p' scripts/storm.sh; }
refuse() { echo "storm.sh: $1, see --help" >&2; exit 2; }

preset=release
log=
numbers=()
while (($# > 0)); do
    case $1 in
        -h | --help) usage; exit 0 ;;
        --preset) (($# > 1)) || refuse "--preset wants a name"; preset=$2; shift ;;
        --log) [[ -n ${2:-} ]] || refuse "--log wants a folder"; log=$2; shift ;;
        -*) refuse "unknown option '$1'" ;;
        '' | *[!0-9]*) refuse "not a number: '$1'" ;;
        *) numbers+=("$1") ;;
    esac
    shift
done
[[ $preset =~ ^(debug|release|asan)$ ]] || refuse "unknown preset '$preset'"
megabytes=${numbers[0]:-200}
seed=${numbers[1]:-$(od --address-radix=n --read-bytes=6 --format=u8 /dev/urandom | tr --delete ' ')}
if ((${#numbers[@]} > 2)) || ! [[ $megabytes =~ ^0*[1-9][0-9]{0,8}$ && $seed =~ ^0*[0-9]{1,18}$ ]]; then
    refuse "MEGABYTES from 1 to 999999999, and SEED of at most 18 digits"
fi
[[ -z $log || $log == /* ]] || log=$called_from/$log
[[ -z $log || (-d $log && -w $log) ]] || refuse "no folder to write to: '$log'"

scripts/setup.sh build soak
cmake --preset "$preset" -DBUILD_TESTS=OFF -DBUILD_SOAK=ON
cmake --build --preset "$preset" --target tunnel-storm

echo "storm: $megabytes MB, seed $seed"
if ! "build/$preset/soak/storm/tunnel-storm" "$megabytes" "$seed" ${log:+"$log/agent"}; then
    echo "storm: again, with the client's log: scripts/storm.sh --preset $preset --log FOLDER $megabytes $seed" >&2
    exit 1
fi
