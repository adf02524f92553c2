#!/usr/bin/env python3
"""Runs the measurements; scripts/bench.sh builds what this needs and says how to use it."""

import argparse
import contextlib
import json
import os
import platform
import random
import subprocess
import sys
import tempfile
import time

import forwarders as kinds
import measures
import report

AGENTS = (kinds.Agent, kinds.Before)
WITH_FLOOR = (*AGENTS, kinds.Floor)
NEEDS_FRESH = ("memory", "queued", "drained")  # processes

# Name, how the forwarder is set up for it, which forwarders can, and how many times in a round, with new
# processes each time: some figures depend on where a process's memory happens to lie.
MEASURES = {
    "bulk": ({}, lambda kind: True, 3),
    "roundtrip": ({}, lambda kind: True, 1),
    "streams": ({}, lambda kind: kind is not kinds.Direct, 1),
    "sessions": ({}, lambda kind: True, 2),
    "memory": ({}, lambda kind: kind is not kinds.Direct, 1),
    "line": ({"line": kinds.SLOW_LINE}, lambda kind: kind.has_uplink, 1),
    "mallocs": ({"counts_mallocs": True}, lambda kind: kind in WITH_FLOOR, 1),
    "frames": ({"frame_bytes": 16384}, lambda kind: kind in WITH_FLOOR, 2),
    "pieces": ({"line": kinds.NARROW_LINE}, lambda kind: kind in WITH_FLOOR, 3),
    "both": ({}, lambda kind: kind in AGENTS, 2),
    "fair": ({"line": kinds.SLOW_LINE}, lambda kind: kind in (*AGENTS, kinds.Ssh), 1),
    "queued": ({}, lambda kind: kind in AGENTS, 1),
    "drained": ({}, lambda kind: kind in AGENTS, 1),
}


def main():
    options = read_options()
    kinds.raise_descriptor_limit()
    os.sched_setaffinity(0, kinds.CLOUD_PROCESSORS)  # ours, and of all that we start but on_device
    os.makedirs(options.output, exist_ok=True)
    figures, parts, failures = {name: {} for name in options.forwarders}, {}, []
    with tempfile.TemporaryDirectory(prefix="bench-") as folder:
        service = kinds.Process("service", kinds.on_device(options.tools + "/bench-service"), folder)
        try:
            port = int(service.wait_for(r"port (\d+)")[1])
            for number in range(1, options.rounds + 1):
                print(f"round {number} of {options.rounds}", flush=True)
                failures += one_round(options, folder, port, figures)
                if "parts" in options.only:
                    measure_parts(options, parts)
            if "idle" in options.only:
                measure_idle(options, folder, port, figures)
            if "heartbeats" in options.only:
                failures += measure_heartbeats(options, folder, port, figures)
        finally:
            service.stop()
    result = {"machine": machine(), "quick": options.quick, "rounds": options.rounds, "failures": failures,
              "figures": figures, "parts": parts}
    with open(options.output + "/results.json", "w", encoding="utf-8") as file:
        json.dump(result, file, indent=1)
    report.write_all(result, options.output)
    return 1 if any(failure.split()[0] in ("agent", "floor") for failure in failures) else 0


def read_options():
    parser = argparse.ArgumentParser(prog="bench.sh")
    every = [*MEASURES, "idle", "heartbeats", "parts"]
    parser.add_argument("--quick", action="store_true", help="one round of short measurements")
    parser.add_argument("--rounds", type=int, help="how often each is measured [5, quick: 1]")
    parser.add_argument("--output", default="build/bench/results",
                        help="folder of results and plots [%(default)s]")
    parser.add_argument("--only", nargs="+", choices=every, default=every, metavar="WHAT",
                        help=f"of {' '.join(every)}")
    parser.add_argument("--forwarders", nargs="+", choices=kinds.FORWARDERS, default=list(kinds.FORWARDERS),
                        metavar="NAME", help=f"of {' '.join(kinds.FORWARDERS)}")
    parser.add_argument("--before", metavar="DIR",
                        help="also the agent of another build folder, as \"before\"")
    parser.add_argument("--tools", default="build/bench/bench", help=argparse.SUPPRESS)
    options = parser.parse_args()
    if options.before:
        if not os.access(options.before + "/core/tunnel-client", os.X_OK):
            parser.error(f"no agent has been built in {options.before}")
        kinds.Before.build = options.before
        kinds.FORWARDERS["before"] = kinds.Before
        options.forwarders.append("before")
    options.rounds = options.rounds or (1 if options.quick else 5)
    return options


def one_round(options, folder, port, figures):
    """What a forwarder could not do; the rest is measured all the same."""
    failures = []
    for measure, (_, _, times) in MEASURES.items():
        if measure not in options.only:
            continue
        started = time.monotonic()
        for _ in range(1 if options.quick else times):
            failures += one_measure(options, folder, port, figures, measure)
        print(f"  {measure:10} {time.monotonic() - started:5.1f} s", flush=True)
    return failures


def one_measure(options, folder, port, figures, measure):
    manner, suits, _ = MEASURES[measure]
    failures = []
    with contextlib.ExitStack() as ends:
        steps = {}
        for name in options.forwarders:
            if suits(kinds.FORWARDERS[name]):
                steps[name] = figures_of(name, measure, manner, options, folder, port)
                ends.callback(steps[name].close)
        for name, result in in_turns(steps):
            if isinstance(result, Exception):
                failures.append(f"{name} {measure}: {result}")
                print("  FAILED", failures[-1], flush=True)
                continue
            for figure, value in result.items():
                figures[name].setdefault(figure, []).append(value)
    return failures


def in_turns(generators):
    """Pairs of a name and the next value of its generator, or the exception that ended it. All take turns step
    by step, in random order, so that a slow minute of the machine falls on all of them."""
    while generators:
        for name in random.sample(list(generators), len(generators)):
            try:
                yield name, next(generators[name])
            except StopIteration:
                del generators[name]
            except (RuntimeError, OSError, subprocess.SubprocessError) as error:
                del generators[name]
                yield name, error


def figures_of(name, measure, manner, options, folder, port):
    """The measurement's steps, on a forwarder that runs as long as this generator lives."""
    with tempfile.TemporaryDirectory(dir=folder) as own:
        with kinds.FORWARDERS[name](options.tools, own, port, **manner) as forwarder:
            if measure not in NEEDS_FRESH:
                measures.prove(forwarder)
            yield from getattr(measures, measure)(forwarder, options.quick)
            if measure in NEEDS_FRESH:
                measures.prove(forwarder)


def measure_idle(options, folder, port, figures):
    standing = []
    try:
        for name in options.forwarders:
            if name != "direct":
                own = tempfile.mkdtemp(dir=folder)
                standing.append(kinds.FORWARDERS[name](options.tools, own, port).__enter__())
                measures.prove(standing[-1])
        time.sleep(20)  # until the sessions of the proof and the verification's timer are gone
        for name, figure, value in measures.idle(standing):
            figures[name][figure] = [value]
    finally:
        for forwarder in standing:
            forwarder.__exit__()


def measure_heartbeats(options, folder, port, figures):
    with contextlib.ExitStack() as ends:
        standing = []
        for name in options.forwarders:
            if kinds.FORWARDERS[name] in AGENTS:
                own = tempfile.mkdtemp(dir=folder)
                forwarder = kinds.FORWARDERS[name](options.tools, own, port, line=kinds.SLOW_LINE)
                standing.append(ends.enter_context(forwarder))
        try:
            for name, figure, value in measures.heartbeats(standing, options.quick):
                figures[name][figure] = [value]
        except (RuntimeError, OSError, subprocess.SubprocessError) as error:
            print("  FAILED agent heartbeats:", error, flush=True)
            return [f"agent heartbeats: {error}"]
    return []


def measure_parts(options, parts):
    """Nanoseconds of each small part. One follows the other, so a slow minute of the machine falls on some of
    them, and on others in the next round."""
    command = [options.tools + "/bench-parts", "--benchmark_format=json", "--benchmark_repetitions=3",
               "--benchmark_min_time=" + ("0.05" if options.quick else "0.2")]
    text = subprocess.run(
        command, check=True, timeout=600, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout
    for run in json.loads(text)["benchmarks"]:
        if run["run_type"] == "iteration":
            parts.setdefault(run["name"].replace("/iterations:200000", ""), []).append(run["cpu_time"])


def machine():
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        model = next((line.split(": ")[1].strip() for line in file if line.startswith("model name")), "")
    return {"cpu": model, "cores": os.cpu_count(), "kernel": platform.release(), "load": os.getloadavg()[0]}


if __name__ == "__main__":
    sys.exit(main())
