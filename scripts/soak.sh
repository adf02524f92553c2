#!/usr/bin/env bash
# Runs sessions of every kind through agent and lab for a while, and keeps a ledger of every byte. Installs what is
# missing first.
#
# Usage: scripts/soak.sh [MINUTES] [SEED]
#   MINUTES  how long sessions are opened, 1 without it
#   SEED     which sessions, a number; without it a random one. It is printed.
#
# Sessions open, close, die and stall at random, and every 6 to 20 seconds the server dies and starts again. All bytes
# are keyed by session, direction and place. At the end each byte has arrived, or was dropped for a reason that the
# report names; none is foreign, repeated or out of order; what services sent before they closed has arrived; and the
# agent holds the descriptors, threads and memory that it held after the first third (or minute, if that is shorter).
# Then the exit status is 0, otherwise 1.
#
# The agent's clock runs ten times as fast as the others', so that its delays come to an end within the run. The build
# stays in build/release.

set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

usage() { sed -n '2,/^$/s/^# \{0,1\}//p' scripts/soak.sh; }

for argument in "$@"; do
    case $argument in
        -h | --help) usage; exit 0 ;;
        '' | *[!0-9]*) echo "soak.sh: not a number: '$argument', see --help" >&2; exit 2 ;;
    esac
done
if (($# > 2)) || [[ ${1:-1} =~ ^0*$ ]]; then
    echo "soak.sh: MINUTES from 1, and SEED, see --help" >&2
    exit 2
fi
minutes=${1:-1}
seed=${2:-$(od --address-radix=n --read-bytes=6 --format=u8 /dev/urandom | tr --delete ' ')}

scripts/setup.sh build soak
cmake --preset release -DBUILD_TESTS=OFF -DBUILD_SOAK=ON
cmake --build --preset release --target tunnel-soak

# What the two programs say is long, and of no use but to find a fault.
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
