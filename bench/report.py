"""Turns results into tables, the list of goals, and plots."""

import os
import statistics
import subprocess

FAIRNESS_LIMITS = {
    "fair beside 1 p50 ms": 130, "fair beside 8 p50 ms": 110, "fair beside 64 p50 ms": 650,
    "fair beside 1, one ended, worst ms": 250, "fair beside 8, one ended, worst ms": 250,
    "fair beside 64, one ended, worst ms": 1300, "fair beside skips, worst ms": 300,
    "fair beside 8, close seen ms": 200, "fair beside 64, close seen ms": 600,
    "memory of a queued payload B": 300, "memory drained KiB": 13000, "heartbeats off by s": 0.1}
CPU_LIMITS = {("up", 1): 0.7, ("up", 8): 0.75, ("down", 1): 1.08, ("down", 8): 1.05}  # x floor
WAYS = [(way, count) for way in ("up", "down") for count in (1, 8)]
QUICK = ", quick (heartbeats: one interval instead of two; fair: nothing beside a single upload)"
STREAMS = (1, 10, 64, 100, 1000)


def write_all(result, folder):
    figures = {name: dict(values) for name, values in result["figures"].items()}
    for values in figures.values():
        add_derived(values)
    tables = (figure_table(figures), part_table(result["parts"]), goal_table(figures, result["parts"]))
    text = "\n\n".join(filter(None, (describe(result), *tables))) + "\n"
    print("\n" + text)
    plots = [f"![{name}]({name}.svg)\n" for name in plot_all(figures, folder)]
    with open(folder + "/figures.md", "w", encoding="utf-8") as file:
        head = "# Figures\n\nWritten by `scripts/bench.sh`; docs/performance.md explains them.\n\n"
        file.write(head + text + "\n" + "\n".join(plots))


def add_derived(values):
    if "memory 0 KiB" in values:
        values["memory per session KiB"] = [
            (many - none) / 1000 for none, many in zip(values["memory 0 KiB"], values["memory 1000 KiB"])]


def describe(result):
    machine = result["machine"]
    return (f"{machine['cpu']}, {machine['cores']} cores, Linux {machine['kernel']}, "
            f"load {machine['load']:.1f} at the end of the run; {result['rounds']} rounds"
            f"{QUICK if result['quick'] else ''}. Median (least - greatest)."
            + "".join(f"\n- failed: {failure}" for failure in result["failures"]))


# ---- Tables


def rounded(value):
    return f"{value:.0f}" if value >= 100 else f"{value:.3g}"


def cell(values):
    if not values:
        return ""
    text = rounded(statistics.median(values))
    return text if len(values) == 1 else f"{text} ({rounded(min(values))} - {rounded(max(values))})"


def median(figures, name, figure):
    values = figures.get(name, {}).get(figure)
    return statistics.median(values) if values else None


def ratio(figures, figure, other):
    ours, theirs = median(figures, "agent", figure), median(figures, other, figure)
    return ours / theirs if ours is not None and theirs else None


def markdown(head, rows):
    if not rows:
        return ""
    lines = [head, ["---"] * len(head), *rows]
    return "\n".join("| " + " | ".join(line) + " |" for line in lines)


def figure_table(figures):
    names = list(figures)
    others = ["floor", "ssh", *(["before"] if "before" in figures else [])]
    every = list(dict.fromkeys(figure for values in figures.values() for figure in values))
    rows = []
    for figure in every:
        ratios = [ratio(figures, figure, other) for other in others]
        rows.append([figure, *(cell(figures[name].get(figure)) for name in names),
                     *("" if value is None else f"{value:.2f}" for value in ratios)])
    return markdown(["figure", *names, *("agent / " + other for other in others)], rows)


def part_table(parts):
    return markdown(["small part", "ns"], [[name, cell(values)] for name, values in parts.items()])


# ---- Goals


def goal_table(figures, parts):
    rows = []
    for what, value, sign, limit in goals(figures, parts):
        if value is not None:
            met = value <= limit if sign == "<=" else value >= limit
            rows.append([what, f"{value:.2f}", f"{sign} {limit:g}", "met" if met else "**missed**"])
    return markdown(["goal", "seen", "wanted", ""], rows)


def goals(figures, parts):
    """What, its value or None when it was not measured, and the limit."""
    for kind in ("request", "both"):
        figure = f"roundtrip {kind} p50 us"
        yield figure + ", x floor", ratio(figures, figure, "floor"), "<=", 1.2
    for kind in ("whole up", "request up", "both up"):
        figure = f"line {kind} p50 us"
        yield figure + ", x ssh", ratio(figures, figure, "ssh"), "<=", 0.5
    for way, count in WAYS:
        figure = f"bulk {way} {count} CPU s/GiB"
        yield figure + ", x floor", ratio(figures, figure, "floor"), "<=", CPU_LIMITS[way, count]
        if way == "up":
            yield figure + ", x ssh", ratio(figures, figure, "ssh"), "<=", 0.8
        figure = f"bulk {way} {count} MB/s"
        yield figure + ", x floor", ratio(figures, figure, "floor"), ">=", 0.95
        figure = f"mallocs {way} {count} per frame"
        yield figure, median(figures, "agent", figure), "<=", 1
    yield "sessions per s, x ssh", ratio(figures, "sessions per s", "ssh"), ">=", 100
    yield "sessions CPU us, x floor", ratio(figures, "sessions CPU us", "floor"), "<=", 1.25
    yield "memory per session KiB", median(figures, "agent", "memory per session KiB"), "<=", 6
    # Two heartbeats a minute, and a minute may catch the edge of a third.
    yield "idle wake-ups per min", median(figures, "agent", "idle wake-ups per min"), "<=", 3
    for way in ("up", "down"):
        many, one = (median(figures, "agent", f"bulk {way} {count} CPU s/GiB") for count in (1000, 1))
        yield f"bulk {way} CPU s/GiB, 1000 streams x 1", many / one if many and one else None, "<=", 1.3
    yield from small_frame_goals(figures)
    yield from fairness_goals(figures)
    yield from part_goals(parts)


def small_frame_goals(figures):
    for count in (1, 8):
        figure = f"bulk 16K frames down {count} CPU s/GiB"
        yield figure + ", x floor", ratio(figures, figure, "floor"), "<=", 0.5
    yield "pieces down CPU s/GiB, x before", ratio(figures, "pieces down CPU s/GiB", "before"), "<=", 0.9
    for way in ("up", "down"):
        yield f"both {way} 64 MB/s, x before", ratio(figures, f"both {way} 64 MB/s", "before"), ">=", 0.95


def fairness_goals(figures):
    for figure, limit in FAIRNESS_LIMITS.items():
        yield figure, median(figures, "agent", figure), "<=", limit
    yield "fair beside 8 p50 ms, x ssh", ratio(figures, "fair beside 8 p50 ms", "ssh"), "<=", 0.25


def part_goals(parts):
    for name, values in parts.items():
        if name.endswith("/131072"):
            small = statistics.median(parts[name.replace("/131072", "/1024")])
            yield name + ", time per byte x 1 KiB", statistics.median(values) / small / 128, "<=", 1.5
    if "log/below_threshold" in parts:
        yield "log/below_threshold ns", statistics.median(parts["log/below_threshold"]), "<=", 5


# ---- Plots


def plot_all(figures, folder):
    """@return the names of the plots, those that have something to show"""
    kinds = ("whole", "request", "both")
    names = [
        bars(figures, folder, "bulk-cpu", "CPU seconds per GiB, device's side",
             {f"{way}, {count}": f"bulk {way} {count} CPU s/GiB" for way, count in WAYS}),
        bars(figures, folder, "bulk-speed", "MB/s",
             {f"{way}, {count}": f"bulk {way} {count} MB/s" for way, count in WAYS}),
        bars(figures, folder, "roundtrip", "round trip, median, us",
             {kind: f"roundtrip {kind} p50 us" for kind in kinds}, "set logscale y"),
        bars(figures, folder, "line", "round trip on the slow line, median, us",
             {kind + way: f"line {kind}{way} p50 us" for way in ("", " up") for kind in kinds}),
        *(lines(figures, folder, "streams-" + way, f"CPU seconds per GiB {way}, device's side",
                "sessions, all active", {count: f"bulk {way} {count} CPU s/GiB" for count in STREAMS})
          for way in ("up", "down")),
    ]
    return [name for name in names if name]


def bars(figures, folder, name, label, columns, more=""):
    shown = [who for who in figures if any(figure in figures[who] for figure in columns.values())]
    data = "".join(
        block(who, [[f'"{title}"', *spread(figures[who].get(figure))] for title, figure in columns.items()])
        for who in shown)
    draw = ", ".join(f'${who} using 2:3:4:xticlabels(1) title "{who}"' for who in shown)
    return gnuplot(folder, name, label, shown, data + f"""
set style data histogram
set style histogram errorbars gap 1 linewidth 1
set style fill solid 0.7 noborder
set yrange [0:*]
{more and "set yrange [*:*]; " + more}
plot {draw}
""")


def lines(figures, folder, name, label, xlabel, columns):
    shown = [who for who in figures if any(figure in figures[who] for figure in columns.values())]
    data = "".join(block(who, [[str(x), *spread(figures[who].get(figure))] for x, figure in columns.items()])
                   for who in shown)
    draw = ", ".join(f'${who} using 1:2:3:4 with yerrorlines title "{who}"' for who in shown)
    return gnuplot(folder, name, label, shown, data + f"""
set xlabel "{xlabel}"
set logscale x
set xrange [0.7:1500]
set yrange [0:*]
plot {draw}
""")


def spread(values):
    return map(str, (statistics.median(values), min(values), max(values)) if values else ("NaN",) * 3)


def block(name, rows):
    return f"${name} << EOD\n" + "".join(" ".join(row) + "\n" for row in rows) + "EOD\n"


def gnuplot(folder, name, label, shown, commands):
    if not shown:
        return None
    script = f"""
set terminal svg size 720,360 background "white"
set output "{os.path.join(folder, name)}.svg"
set ylabel "{label}"
set grid ytics
set key outside
{commands}"""
    subprocess.run(["gnuplot"], input=script, text=True, check=True, timeout=30)
    return name
