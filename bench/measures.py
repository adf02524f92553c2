"""The measurements, each of one forwarder that stands: a generator of the values of one step, by figure.

A figure's name reads from the general to the special: what, which way, how many streams, unit. What depends on when it is
measured is measured several times, and its figure comes as often.
"""

import contextlib
import json
import os
import re
import subprocess
import time

MIB, GIB = 1 << 20, 1 << 30
TIMES = 4  # that something short is measured by one process
UPLOAD_FRAME, DOWNLOAD_FRAME = 16384, 131072  # bytes of payload at most; frames are rarely smaller in bulk


@contextlib.contextmanager
def load(forwarder, *words):
    """One run of bench-load whose sessions stand; the value lets it go and returns its figures."""
    command = [forwarder.tools + "/bench-load", str(forwarder.port), *map(str, words)]
    with subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True) as process:

        def finish():
            output, _ = process.communicate("go\n", timeout=60)
            if process.returncode != 0:
                raise RuntimeError("failed: " + " ".join(command))
            return json.loads(output)

        try:
            if process.stdout.readline() != "ready\n":
                raise RuntimeError("no sessions for: " + " ".join(command))
            yield finish
        finally:
            process.kill()


def cpu_seconds(forwarder):
    """Of the device's process since its start, all threads, user and system."""
    if not forwarder.device:
        return 0.0
    return time.clock_gettime((~forwarder.device.pid << 3) | 2)  # the clock that the kernel keeps for that process


def prove(forwarder):
    command = [forwarder.tools + "/bench-load", str(forwarder.port), "prove", str(8 * MIB)]
    output = subprocess.run(command, check=True, timeout=60, stdout=subprocess.PIPE).stdout
    if not json.loads(output)["same"]:
        raise RuntimeError(forwarder.name + " does not return what it was sent")


def move(forwarder, size, direction, streams):
    """MB/s, and CPU seconds per GiB of the device's process."""
    with load(forwarder, "bulk", size, direction, streams) as finish:
        before = cpu_seconds(forwarder)
        result = finish()
        spent = cpu_seconds(forwarder) - before
    return result["bytes"] / result["seconds"] / 1e6, spent * GIB / result["bytes"]


def bulk(forwarder, quick, streams=(1, 8)):
    size = GIB // 4 if quick else 2 * GIB
    for direction in ("up", "down"):
        for count in streams:
            # Many sessions take a while to fill what lies between. But a thousand services hand 2 GiB to the kernel at
            # once, and under memory pressure (tcp_mem, see tcp(7)) it drops segments and waits for seconds.
            times = 1 if quick else TIMES // 2 if count > 10 else TIMES
            for _ in range(times):
                speed, cpu = move(forwarder, size // times, direction, count)
                values = {f"bulk {direction} {count} MB/s": speed}
                if forwarder.device:
                    values[f"bulk {direction} {count} CPU s/GiB"] = cpu
                yield values


def streams(forwarder, quick):
    if forwarder.device:
        yield from bulk(forwarder, quick, (10, 100, 1000))


def round_trips(forwarder, prefix, times, kinds):
    for kind in kinds:
        with load(forwarder, "roundtrip", times, *kind.split()) as finish:
            result = finish()
        if " " in kind:
            time.sleep(6)  # the stream beside it is served for five more seconds, and must not be there twice
        yield {f"{prefix} {kind} p50 us": result["p50"], f"{prefix} {kind} p99 us": result["p99"]}


def roundtrip(forwarder, quick):
    times = 300 if quick else 1500
    yield from round_trips(forwarder, "roundtrip", times, ["whole", "request", "both"] * (1 if quick else TIMES))
    yield from round_trips(forwarder, "roundtrip", times, ["whole up", "request up", "both up", "whole down"])


def line(forwarder, quick):
    """On a forwarder that stands with the slow line."""
    yield from round_trips(forwarder, "line", 15 if quick else 60, ["whole", "request", "both"])
    yield from round_trips(forwarder, "line", 15 if quick else 40, ["whole up", "request up", "both up"])


def sessions(forwarder, quick):
    for _ in range(1 if quick else TIMES // 2):
        before = cpu_seconds(forwarder)
        with load(forwarder, "sessions", 300 if quick else 1500) as finish:
            result = finish()
        values = {"sessions per s": result["sessions"] / result["seconds"]}
        if forwarder.device:
            time.sleep(11)  # an ended session costs its device something up to ten seconds later
            values["sessions CPU us"] = 1e6 * (cpu_seconds(forwarder) - before) / result["sessions"]
        yield values


def memory(forwarder, quick):
    """On a forwarder without a past: KiB of memory that is the device process's own."""
    if not forwarder.device:
        return
    yield {"memory 0 KiB": own_memory(forwarder)}
    for count in (1000,) if quick else (1, 100, 1000):
        with load(forwarder, "idle", count) as finish:
            size = own_memory(forwarder)
            finish()
        yield {f"memory {count} KiB": size}
        time.sleep(0 if count == 1000 else 11)  # until the agent has let go of the sessions


def own_memory(forwarder):
    with open(f"/proc/{forwarder.device.pid}/status", encoding="utf-8") as status:
        return int(re.search(r"^RssAnon:\s+(\d+) kB", status.read(), re.MULTILINE)[1])


def mallocs(forwarder, quick):
    """On a forwarder that counts its allocations."""
    for direction, frame in (("up", UPLOAD_FRAME), ("down", DOWNLOAD_FRAME)):
        for count in (1, 8):
            size = GIB // 4 if quick else GIB
            with load(forwarder, "bulk", size, direction, count) as finish:
                before = malloc_count(forwarder)
                finish()
                yield {f"mallocs {direction} {count} per frame": (malloc_count(forwarder) - before) * frame / size}


def malloc_count(forwarder):
    with open(forwarder.folder + "/mallocs", "rb") as file:
        return int.from_bytes(file.read(8), "little")


def idle(forwarders):
    """All at once, for it takes a minute."""
    before = {forwarder.name: wake_ups(forwarder) for forwarder in forwarders}
    time.sleep(60)
    for forwarder in forwarders:
        yield forwarder.name, "idle wake-ups per min", wake_ups(forwarder) - before[forwarder.name]


def wake_ups(forwarder):
    total = 0
    for task in os.listdir(f"/proc/{forwarder.device.pid}/task"):
        with open(f"/proc/{forwarder.device.pid}/task/{task}/status", encoding="utf-8") as status:
            total += int(re.search(r"^voluntary_ctxt_switches:\s+(\d+)", status.read(), re.MULTILINE)[1])
    return total
