#!/usr/bin/env bash
# Runs the agent's tunnel client against a hostile tunnel server and hostile services, all in one process and
# drawn from one seed, and keeps a ledger of every byte. Installs missing packages first.
#
# Usage: scripts/storm.sh [--preset NAME] [--log FOLDER] [MEGABYTES] [SEED]
#   --preset NAME  one of CMakePresets.json: release (the default), debug, asan
#   --log FOLDER   writes the client's log there at its highest level: about a line for every frame and read
#   MEGABYTES      how much services and server receive together (default 200)
#   SEED           a number; without it a random one, which is printed
#
# The client's delays are milliseconds, so that a tunnel is made, flooded and broken every second or two.
# Frames arrive in pieces of any size or several at once; either side stops and goes on; sessions end in every
# way, and ids are used twice. All bytes are keyed by session, direction and position. The exit status is 0
# when, at the end,
# - each byte has arrived, or is missing for a reason that the report names;
# - no byte is foreign, repeated or out of order;
# - every frame and message of the client was correct;
# - no run hung;
# - the process holds as many descriptors as at the start.
# Otherwise it is 1.
#
# The same seed draws the same sessions, bytes and plans again, but not the same timing. The build stays in
# build/NAME.

# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

preset=release
log=
numbers=()
while (($# > 0)); do
    case $1 in
        --preset) (($# > 1)) || refuse "--preset wants a name"; preset=$2; shift ;;
        --log) [[ -n ${2:-} ]] || refuse "--log wants a folder"; log=$2; shift ;;
        -*) refuse "unknown option '$1'" ;;
        *) numbers+=("$1") ;;
    esac
    shift
done
[[ $preset =~ ^(debug|release|asan)$ ]] || refuse "unknown preset '$preset'"
((${#numbers[@]} <= 2)) || refuse "too many arguments, '${numbers[2]}' is the first"
megabytes=${numbers[0]-200}
seed=${numbers[1]-$(random_seed)}
[[ $megabytes =~ ^0*[1-9][0-9]{0,8}$ ]] || refuse "MEGABYTES is a number from 1 to 999999999, not '$megabytes'"
[[ $seed =~ ^0*[0-9]{1,18}$ ]] || refuse "SEED is a number of at most 18 digits, not '$seed'"
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
