#!/usr/bin/env bash
# Measures the agent beside the least that any agent must do (the floor), ssh -R, a plain relay, and nothing at all:
# starts them all and lets them take turns, in random order, several rounds; prints medians, spread, ratios and goals.
#
# Usage: scripts/bench.sh [--quick] [--rounds N] [--output DIR] [--only WHAT...] [--forwarders NAME...] [--before DIR]
#   --quick       one round of short measurements
#   --rounds      how often each is measured, instead of 5
#   --output      where results.json, figures.md and the plots go, instead of build/bench/results
#   --only        some of: bulk roundtrip streams sessions memory line mallocs frames pieces both fair queued drained idle
#                 heartbeats parts
#   --forwarders  some of: direct floor haproxy ssh agent
#   --before      also the agent of another build folder, of an earlier checkout, as the forwarder "before"; its agent
#                 only, what surrounds it is this build's
#
# Installs what is missing first. Everything stays on the loopback interface, with keys and files that do not stay.
# Nothing else should run meanwhile; docs/performance.md says how to read what comes out.

set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

usage() { sed -n '2,/^$/s/^# \{0,1\}//p' scripts/bench.sh; }

for option in "$@"; do
    case $option in
        -h | --help) usage; exit 0 ;;
    esac
done

scripts/setup.sh build bench
cmake --preset release -B build/bench -DBUILD_TESTS=OFF -DBUILD_BENCH=ON
cmake --build build/bench
exec python3 -B bench/run.py "$@"
