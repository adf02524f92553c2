#!/usr/bin/env bash
# Runs sessions of every kind through agent and lab for a while, and keeps a ledger of every byte. Installs
# missing packages first.
#
# Usage: scripts/soak.sh [MINUTES] [SEED]
#   MINUTES  how long sessions are opened, 1 without it
#   SEED     which sessions, a number; without it a random one. It is printed.
#
# Sessions open, close, die and stall at random. Every 4 to 14 seconds the tunnel breaks, alone or with its
# server, which starts again. At the end bursts of small sessions show the memory that each leaves behind. All
# bytes are keyed by session, direction and place. At the end each byte has arrived, or was dropped for a
# reason that the report names; none is foreign, repeated or out of order; everything that services sent
# before they ended in good order has arrived; the agent has kept its delay before it closed a service's
# socket; and it holds the descriptors and threads that it held after the first third (or minute, if that is
# shorter), and no memory for each session since. Then the exit status is 0, otherwise 1, and a line FAULT
# names each fault.
#
# The agent's clock runs ten times as fast as the others', so that its delays come to an end within the run.
# The build stays in build/release.

# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

(($# <= 2)) || refuse "too many arguments, '$3' is the first"
minutes=${1-1}
seed=${2-$(random_seed)}
[[ $minutes =~ ^0*([1-9][0-9]{0,3}|10000)$ ]] || refuse "MINUTES is a number from 1 to 10000, not '$minutes'"
[[ $seed =~ ^[0-9]{1,18}$ ]] || refuse "SEED is a number of at most 18 digits, not '$seed'"

scripts/setup.sh build soak
cmake --preset release -DBUILD_TESTS=OFF -DBUILD_SOAK=ON
cmake --build --preset release --target tunnel-soak

# The output of the two programs is long, and only of use to find a fault.
work=build/release/soak/logs
rm -rf "$work"
mkdir "$work"
echo "soak: $minutes minutes, seed $seed (again: scripts/soak.sh $minutes $seed)"
if build/release/soak/tunnel-soak "$minutes" "$seed" "$work"; then
    rm -rf "$work"
else
    echo "soak: the logs of agent and server are in $work" >&2
    exit 1
fi
