"""The measurements, each of one running forwarder: a generator of the values of one step, by figure.

A figure's name goes from the general to the special: kind, direction, number of streams, unit. A figure that
depends on the moment is measured several times, and yielded as often.
"""

import contextlib
import json
import os
import re
import signal
import subprocess
import time

MIB, GIB = 1 << 20, 1 << 30
TIMES = 4  # that something short is measured by one process
LATE = 6  # seconds; a session whose client has gone is served for five
UPLOAD_FRAME, DOWNLOAD_FRAME = 16384, 131072  # bytes of payload at most; frames are rarely smaller in bulk


class Load:
    """One run of bench-load; `with` waits until its sessions stand, and ends it."""

    def __init__(self, forwarder, *words):
        self.command = [forwarder.tools + "/bench-load", str(forwarder.port), *map(str, words)]
        self.process = subprocess.Popen(
            self.command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)

    def __enter__(self):
        try:
            self.wait_until_ready()
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.communicate()

    def wait_until_ready(self):
        if self.process.stdout.readline() != "ready\n":
            raise RuntimeError("no sessions for: " + " ".join(self.command))

    def step(self):
        """Lets it go, up to where it waits again."""
        self.process.stdin.write("go\n")
        self.process.stdin.flush()
        self.wait_until_ready()

    def finish(self):
        """Lets it go and returns its figures."""
        output, _ = self.process.communicate("go\n", timeout=120)
        if self.process.returncode != 0:
            raise RuntimeError("failed: " + " ".join(self.command))
        return json.loads(output)


def cpu_seconds(forwarder):
    """Of the device's process since its start, all threads, user and system."""
    if not forwarder.device:
        return 0.0
    # The kernel's clock of that process, see clock_getcpuclockid(3).
    return time.clock_gettime((~forwarder.device.pid << 3) | 2)


def prove(forwarder):
    command = [forwarder.tools + "/bench-load", str(forwarder.port), "prove", str(8 * MIB)]
    output = subprocess.run(command, check=True, timeout=60, stdout=subprocess.PIPE).stdout
    if not json.loads(output)["same"]:
        raise RuntimeError(forwarder.name + " does not return what it was sent")


def move(forwarder, size, direction, streams):
    """MB/s, and CPU seconds per GiB of the device's process."""
    with Load(forwarder, "bulk", size, direction, streams) as run:
        before = cpu_seconds(forwarder)
        result = run.finish()
        spent = cpu_seconds(forwarder) - before
    return result["bytes"] / result["seconds"] / 1e6, spent * GIB / result["bytes"]


def bulk(forwarder, quick, streams=(1, 8), ways=("up", "down"), prefix="bulk"):
    size = GIB // 4 if quick else 2 * GIB
    for direction in ways:
        for count in streams:
            # Many sessions take a while to fill what lies between. But a thousand services hand 2 GiB to the
            # kernel at once, and under memory pressure (tcp_mem, see tcp(7)) it drops segments and waits for
            # seconds.
            times = 1 if quick else TIMES // 2 if count > 10 else TIMES
            for _ in range(times):
                speed, cpu = move(forwarder, size // times, direction, count)
                values = {f"{prefix} {direction} {count} MB/s": speed}
                if forwarder.device:
                    values[f"{prefix} {direction} {count} CPU s/GiB"] = cpu
                yield values


def streams(forwarder, quick):
    if forwarder.device:
        yield from bulk(forwarder, quick, (10, 64, 100, 1000))


def frames(forwarder, quick):
    """On a forwarder whose server sends frames of 16 KiB."""
    yield from bulk(forwarder, quick, ways=("down",), prefix="bulk 16K frames")


def pieces(forwarder, quick):
    """On a forwarder with the narrow line, which brings large frames in packets of 1448 bytes."""
    for _ in range(1 if quick else TIMES // 2):
        _, cpu = move(forwarder, 8 * MIB, "down", 1)
        yield {"pieces down CPU s/GiB": cpu}


def both(forwarder, quick):
    with Load(forwarder, "both", 2 if quick else 5, 64) as run:
        result = run.finish()
    time.sleep(LATE)  # or the others would have to share the processors with what is still served
    yield {f"both {way} 64 MB/s": result[way] / result["seconds"] / 1e6 for way in ("up", "down")}


def round_trips(forwarder, prefix, times, kinds):
    for kind in kinds:
        with Load(forwarder, "roundtrip", times, *kind.split()) as run:
            result = run.finish()
        if " " in kind:
            time.sleep(LATE)  # the stream beside it must not be there twice
        yield {f"{prefix} {kind} p50 us": result["p50"], f"{prefix} {kind} p99 us": result["p99"]}


def roundtrip(forwarder, quick):
    times = 300 if quick else 1500
    loads = ["whole", "request", "both"] * (1 if quick else TIMES)
    yield from round_trips(forwarder, "roundtrip", times, loads)
    yield from round_trips(forwarder, "roundtrip", times, ["whole up", "request up", "both up", "whole down"])


def line(forwarder, quick):
    """On a forwarder with the slow line."""
    yield from round_trips(forwarder, "line", 15 if quick else 60, ["whole", "request", "both"])
    yield from round_trips(forwarder, "line", 15 if quick else 40, ["whole up", "request up", "both up"])


def fair(forwarder, quick):
    """On a forwarder with the slow line: the share that busy sessions leave to others. ssh is measured beside
    eight only, because the one goal about it is."""
    quiet_from = 0.0  # when the frames of the load before have gone
    for uploads in (8,) if forwarder.name == "ssh" else (8, 64) if quick else (1, 8, 64):
        closes = {1: 0, 8: 4, 64: 3}[uploads]
        seconds = 4 if quick else 12 if uploads == 64 else 6
        time.sleep(max(0, quiet_from - time.monotonic()))
        with Load(forwarder, "beside", uploads, seconds, closes) as run:
            result = run.finish()
        quiet_from = time.monotonic() + LATE
        values = {f"fair beside {uploads} p50 ms": result["p50"],
                  f"fair beside {uploads}, uploads MB/s": result["bytes per s"] / 1e6,
                  f"fair beside {uploads}, one ended, worst ms": result["worst after"]}
        if closes:
            values[f"fair beside {uploads}, close seen ms"] = result["closed"]
        yield values
    if forwarder.name != "ssh":
        time.sleep(max(0, quiet_from - time.monotonic()))
        with Load(forwarder, "skips", 2 if quick else 4, 3) as run:
            yield {"fair beside skips, worst ms": run.finish()["worst"]}


def sessions(forwarder, quick):
    for _ in range(1 if quick else TIMES // 2):
        before = cpu_seconds(forwarder)
        with Load(forwarder, "sessions", 300 if quick else 1500) as run:
            result = run.finish()
        values = {"sessions per s": result["sessions"] / result["seconds"]}
        if forwarder.device:
            time.sleep(11)  # an ended session costs its device something up to ten seconds later
            values["sessions CPU us"] = 1e6 * (cpu_seconds(forwarder) - before) / result["sessions"]
        yield values


def memory(forwarder, quick):
    """On a fresh forwarder: KiB of memory that is the device process's own."""
    if not forwarder.device:
        return
    yield {"memory 0 KiB": own_memory(forwarder)}
    for count in (1000,) if quick else (1, 100, 1000):
        with Load(forwarder, "idle", count) as run:
            size = own_memory(forwarder)
            run.finish()
        yield {f"memory {count} KiB": size}
        time.sleep(0 if count == 1000 else 11)  # until the agent has let go of the sessions


def own_memory(forwarder):
    with open(f"/proc/{forwarder.device.pid}/status", encoding="utf-8") as status:
        return int(re.search(r"^RssAnon:\s+(\d+) kB", status.read(), re.MULTILINE)[1])


def queued(forwarder, _):
    """On a fresh forwarder. Every payload is a frame of its own; otherwise the figure would be for several.
    There are so many that one large payload, on its way at the moment of measuring, makes little difference."""
    count = 2000
    with Load(forwarder, "queued", count, 20) as run:
        before = own_memory(forwarder)
        run.step()
        grown = own_memory(forwarder) - before
        run.finish()
    yield {"memory of a queued payload B": 1024 * grown / count}


def drained(forwarder, _):
    """On a fresh forwarder, whose server stands still for a while in the middle of the uploads."""
    with Load(forwarder, "drained", 300, 4 * MIB) as run:
        forwarder.lab.signal(signal.SIGSTOP)
        time.sleep(3)
        forwarder.lab.signal(signal.SIGCONT)
        run.step()
        time.sleep(11)  # until the agent has let go of the sessions
        size = own_memory(forwarder)
        run.finish()
    yield {"memory drained KiB": size}


def mallocs(forwarder, quick):
    """On a forwarder that counts its allocations."""
    for direction, frame in (("up", UPLOAD_FRAME), ("down", DOWNLOAD_FRAME)):
        for count in (1, 8):
            size = GIB // 4 if quick else GIB
            with Load(forwarder, "bulk", size, direction, count) as run:
                before = malloc_count(forwarder)
                run.finish()
                count_per_frame = (malloc_count(forwarder) - before) * frame / size
                yield {f"mallocs {direction} {count} per frame": count_per_frame}


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


def heartbeats(forwarders, quick):
    """Of all agents at once on slow lines, from the connect on, which the first heartbeat follows at once."""
    with contextlib.ExitStack() as ends:
        runs = [ends.enter_context(Load(forwarder, "flood", 64)) for forwarder in forwarders]
        time.sleep(33 if quick else 66)
        for run in runs:
            run.finish()
    for forwarder in forwarders:
        yield forwarder.name, "heartbeats off by s", furthest_off(forwarder, 1 if quick else 2)


def furthest_off(forwarder, wanted):
    """How much the time between two heartbeats differs from 30 s at most."""
    with open(forwarder.device.log, encoding="utf-8") as log:
        times = re.findall(r"^(\d+):(\d+):(\d+\.\d+) \[.*Sending heartbeat$", log.read(), re.MULTILINE)
    seconds = [3600 * int(hours) + 60 * int(minutes) + float(rest) for hours, minutes, rest in times]
    between = [(later - earlier) % 86400 for earlier, later in zip(seconds, seconds[1:])]
    if len(between) < wanted:
        raise RuntimeError(f"only {len(seconds)} heartbeats of {forwarder.name}")
    return max(abs(gap - 30) for gap in between)
