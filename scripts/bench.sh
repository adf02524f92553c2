#!/usr/bin/env bash
# Measures the agent beside other ways to carry the same bytes: the floor (a program that does the least that
# any agent must do), ssh -R, a plain relay, and a direct connection. Starts them all, lets them take turns in
# random order for several rounds, and prints medians, spread, ratios and goals. Installs missing packages
# first.
#
# Usage: scripts/bench.sh [--quick] [--rounds N] [--output DIR] [--only WHAT...] [--forwarders NAME...]
#                         [--before DIR]
#   --quick       one round of short measurements
#   --rounds      number of rounds, instead of 5
#   --output      folder for results.json, figures.md and the plots, instead of build/bench/results
#   --only        some of: bulk roundtrip streams sessions memory line mallocs frames pieces both fair queued
#                 drained idle heartbeats parts
#   --forwarders  some of: direct floor haproxy ssh agent
#   --before      also measures, as the forwarder "before", the agent in the build folder of another checkout;
#                 everything around that agent comes from this checkout
#
# Everything stays on the loopback interface; keys and temporary files are deleted at the end. Run nothing
# else meanwhile. docs/performance.md explains the results.

# shellcheck source=scripts/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

measures=' bulk roundtrip streams sessions memory line mallocs frames pieces both fair queued drained idle heartbeats parts '
forwarders=' direct floor haproxy ssh agent '

# The arguments are checked here, because the build takes minutes and comes before the program that reads
# them.
arguments=("$@")
names=
for ((i = 0; i < $#; i++)); do
    argument=${arguments[i]}
    value=${arguments[i + 1]-}
    case $argument in
        --quick) names= ;;
        --rounds)
            [[ $value =~ ^[1-9][0-9]{0,5}$ ]] || refuse "--rounds wants a number from 1"
            names=
            ((++i)) ;;
        --output | --before)
            [[ -n $value ]] || refuse "$argument wants a folder"
            [[ $value == /* ]] || value=$called_from/$value
            [[ $argument == --output || -x $value/core/tunnel-client ]] || refuse "no agent has been built in '$value'"
            names=
            ((++i))
            arguments[i]=$value ;;
        --only)
            names=$measures
            [[ $names == *" $value "* ]] || refuse "--only wants some of:${names% }" ;;
        --forwarders)
            names=$forwarders
            [[ $names == *" $value "* ]] || refuse "--forwarders wants some of:${names% }" ;;
        *)
            [[ $names == *" $argument "* ]] || refuse "unknown option or name '$argument'" ;;
    esac
done

scripts/setup.sh build bench
cmake --preset release -B build/bench -DBUILD_TESTS=OFF -DBUILD_BENCH=ON
cmake --build build/bench
exec python3 -B bench/run.py "${arguments[@]}"
