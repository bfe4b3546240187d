#!/usr/bin/env python3
"""Writes the figures of benchmark runs as Markdown tables and SVG bar charts.

    report.py <results> <build> <document>

Reads every Google Benchmark JSON file in <results> and the libraries in <build>; replaces the part of <document>
between its two marks, and writes the charts into images/ beside it. A figure is the best of all rounds of its
benchmark: what else runs on a machine only ever adds to it. Figures are compared within one run alone.
"""
import datetime
import json
import os
import pathlib
import platform
import random
import re
import subprocess
import sys
import tempfile
from xml.sax.saxutils import escape

# What is compared with what: its name, the benchmark, the one beside it, the measure ("time" or "cpu"), the unit, and
# the aim: "ratio" (at most so many times the other) or "difference" (at most so much more, in nanoseconds), or none.
COMPARISONS = [
    ("exchange over a kept connection, wall time", "Exchange/SDK", "Exchange/libcurl", "time", "µs", ("ratio", 1.25)),
    ("exchange over a kept connection, client's processor time", "Exchange/SDK", "Exchange/libcurl", "cpu", "µs",
     ("difference", 20_000)),
    ("the same, beside libcurl on a thread of its own", "Exchange/SDK", "Exchange/libcurl on a thread", "cpu", "µs", None),
    ("the same with all threads on one processor", "one processor/Exchange/SDK", "one processor/Exchange/libcurl", "cpu",
     "µs", ("difference", 20_000)),
    ("the same, beside libcurl on a thread of its own", "one processor/Exchange/SDK",
     "one processor/Exchange/libcurl on a thread", "cpu", "µs", None),
    ("the same with an uncompressed answer, wall time", "PlainExchange/SDK", "PlainExchange/libcurl", "time", "µs", None),
    ("the same with an uncompressed answer, client's processor time", "PlainExchange/SDK", "PlainExchange/libcurl", "cpu",
     "µs", None),
    ("exchange with a fresh connection, wall time", "FreshConnection/SDK", "FreshConnection/libcurl", "time", "µs", None),
    ("first exchange of a process, wall time", "FirstExchange/SDK", "FirstExchange/libcurl", "time", "ms", None),
    ("process that only links it, start to exit, wall time", "Start/SDK", "Start/libcurl", "time", "ms", None),
    ("process that only links it, start to exit, processor time", "Start/SDK", "Start/libcurl", "cpu", "ms", None),
]
# Figures that stand alone.
SINGLES = [
    ("first `sharedManager` call of a process", "FirstSharedManager/SDK", "time", "µs"),
    ("process that links neither, start to exit", "Start/empty", "time", "ms"),
]
# What must stay flat: its name, the benchmarks, the measure, the unit, and how many times the first one's cost any may have.
SERIES = [
    ("wall time of an exchange, by exchanges in flight", [f"InFlight/{count}" for count in (1, 10, 100, 1000)], "time", "µs", 1.2),
    ("client's processor time of an exchange, by exchanges in flight",
     [f"InFlight/{count}" for count in (1, 10, 100, 1000)], "cpu", "µs", 1.2),
]
# From text to objects: the peers, in the benchmarks' names, and the two that the aims name.
PEERS = ["ZembraCoreSDK", "ZembraCoreSDK, array first", "simdjson On-Demand, by hand", "simdjson DOM, by hand",
         "RapidJSON, by hand", "Boost.JSON value_to", "nlohmann/json get"]
SDK, FASTEST, BY_HAND, BY_LIST = PEERS[0], PEERS[2], PEERS[3], PEERS[6]
GROWTH = (1_000, 10_000, 100_000, 1_000_000)
KEY_LENGTHS = (8, 14, 20, 32)
ROUNDS = 7  # of the processes that map once

SIZE_LIMIT = 400_000  # bytes, both libraries together
# The charts: file, title, unit, and bars of label, benchmark and measure.
CHARTS = [
    ("bench-exchange.svg", "An app token exchange over a kept connection", "µs", [
        ("SDK, wall time", "Exchange/SDK", "time"), ("libcurl, wall time", "Exchange/libcurl", "time"),
        ("SDK, processor time", "Exchange/SDK", "cpu"), ("libcurl, processor time", "Exchange/libcurl", "cpu")]),
    ("bench-in-flight.svg", "Processor time of an exchange, by exchanges in flight", "µs", [
        (str(count), f"InFlight/{count}", "cpu") for count in (1, 10, 100, 1000)]),
    ("bench-mapping.svg", "10,000 place records to objects, processor time", "ms", [
        (peer, f"map/{peer}/10000", "cpu") for peer in PEERS]),
    ("bench-start.svg", "A process from its start to its end", "ms", [
        ("links the SDK", "Start/SDK", "time"), ("links libcurl", "Start/libcurl", "time"),
        ("links neither", "Start/empty", "time")]),
]

NANOSECONDS = {"ns": 1, "µs": 1e3, "us": 1e3, "ms": 1e6, "s": 1e9}
MARKS = ("<!-- figures: written by scripts/bench -->\n", "<!-- end of figures -->\n")


def best_figures(directory):
    """The least of each measure, in nanoseconds: {(benchmark, measure): value}. And what the runs say of themselves."""
    figures, contexts = {}, []
    for file in sorted(directory.glob("*.json")):
        report = json.loads(file.read_text())
        contexts.append(report["context"])
        prefix = "one processor/" if file.stem.endswith("-on-one-processor") else ""
        for round_ in report["benchmarks"]:
            if round_["run_type"] != "iteration":
                continue
            if round_.get("error_occurred"):
                sys.exit(f"{file.name}: {round_['name']}: {round_['error_message']}")
            name = re.sub(r"/(iterations|repeats|min_time|threads|manual_time|process_time|real_time)\b.*", "", round_["name"])
            name = prefix + name
            unit = NANOSECONDS[round_["time_unit"]]
            measures = {"time": round_.get("time_ns", round_["real_time"] * unit)}
            if "cpu_ns" in round_ or "time_ns" not in round_:
                measures["cpu"] = round_.get("cpu_ns", round_["cpu_time"] * unit)
            for measure, value in measures.items():
                figures[name, measure] = min(value, figures.get((name, measure), value))
    return figures, contexts


def stripped_size(library):
    with tempfile.NamedTemporaryFile() as file:
        subprocess.run(["strip", "--strip-unneeded", "-o", file.name, library], check=True)
        return os.path.getsize(file.name)


def library_sizes(build):
    sdk = {name: stripped_size(build / f"ios-sdk/{name}/lib{name}.so") for name in ("ZembraPlatform", "ZembraCoreSDK")}
    linked = subprocess.run(["ldd", build / "ios-sdk/ZembraPlatform/libZembraPlatform.so"], check=True, text=True,
                            capture_output=True).stdout
    return sdk, stripped_size(re.search(r"libcurl\S* => (\S+)", linked)[1])


def number(nanoseconds, unit):
    value = nanoseconds / NANOSECONDS[unit]
    return f"{value:.0f}" if abs(value) >= 100 else f"{value:.1f}"


def verdict(is_met):
    return "met" if is_met else "**missed**"


def table(heads, rows):
    lines = [heads, ["---"] + ["---:"] * (len(heads) - 2) + ["---"], *rows]
    return "".join("| " + " | ".join(line) + " |\n" for line in lines)


def comparison_rows(figures):
    for what, name, other, measure, unit, aim in COMPARISONS:
        if (name, measure) not in figures:
            continue
        mine, others = figures[name, measure], figures[other, measure]
        row = [what, f"{number(mine, unit)} {unit}", f"{number(others, unit)} {unit}", f"{mine / others:.2f}",
               f"{number(mine - others, unit)} {unit}", "none"]
        if aim:
            kind, limit = aim
            is_ratio = kind == "ratio"
            text = f"at most {limit} times" if is_ratio else f"at most {number(limit, unit)} {unit} more"
            row[-1] = f"{text}: {verdict((mine / others if is_ratio else mine - others) <= limit)}"
        yield row


def series_rows(figures):
    for what, names, measure, unit, limit in SERIES:
        values = [figures[name, measure] for name in names if (name, measure) in figures]
        if values:
            ratio = max(values) / values[0]
            yield [what, *(f"{number(value, unit)} {unit}" for value in values),
                   f"at most {limit} times the first: {verdict(ratio <= limit)} ({ratio:.2f})"]


def markdown(figures, sizes, contexts, build):
    parts = [machine(contexts), "\n",
             table(["what", "SDK", "beside it", "ratio", "difference", "aim"], comparison_rows(figures)), "\n"]
    singles = [[what, f"{number(figures[name, measure], unit)} {unit}"] for what, name, measure, unit in SINGLES
               if (name, measure) in figures]
    parts += ["| what | figure |\n| --- | ---: |\n", *(f"| {what} | {figure} |\n" for what, figure in singles), "\n"]
    parts += [table(["what", "1", "10", "100", "1000", "aim"], series_rows(figures)), "\n"]
    sdk, libcurl = sizes
    total = sum(sdk.values())
    parts += [table(["library, shared and stripped", "bytes", "aim"],
                    [[f"lib{name}.so", f"{size:,}", ""] for name, size in sdk.items()] +
                    [["both", f"{total:,}", f"under {SIZE_LIMIT:,}: {verdict(total < SIZE_LIMIT)}"],
                     ["libcurl.so, for comparison", f"{libcurl:,}", ""]]), "\n"]
    parts += [mapping(figures, build)]
    return "".join(parts)


def first_mappings(program):
    """The best of a few processes that map once: {(peer, records): (nanoseconds, MiB above the text)}."""
    runs = [(peer, count) for peer in PEERS for count in (GROWTH if peer in (SDK, FASTEST) else (10_000,))]
    best = {}
    for run in random.sample(ROUNDS * runs, ROUNDS * len(runs)):
        printed = subprocess.run([program, *map(str, run)], check=True, text=True, capture_output=True).stdout
        best[run] = tuple(map(min, map(float, printed.split()), best.get(run, (float("inf"), float("inf")))))
    return best


def mapping_rows(figures, count, first):
    for peer in PEERS:
        mine = figures[f"map/{peer}/{count}", "cpu"]
        row = [peer, f"{number(mine, 'us')} µs", f"{figures[f'map/{BY_LIST}/{count}', 'cpu'] / mine:.1f}",
               f"{mine / figures[f'map/{BY_HAND}/{count}', 'cpu']:.2f}"]
        if first:
            time, memory = first[peer, count]
            row += [f"{number(time, 'us')} µs", f"{memory:.1f}"]
        yield row


def mapping(figures, build):
    """From JSON text to objects beside other libraries, and keys to names."""
    if (f"map/{SDK}/10000", "cpu") not in figures:
        return ""
    first = first_mappings(build / "bench/zembra-first-mapping")

    def aim(what, value, limit, is_least=False):
        is_met = value >= limit if is_least else value <= limit
        return [what, f"{value:.2f}", f"{'at least' if is_least else 'at most'} {limit}: {verdict(is_met)}"]

    def time(name):
        return figures[name, "cpu"]

    def growth_rows(what, time_of, limit):
        for peer in (SDK, FASTEST):
            times = [time_of(peer, count) / count for count in GROWTH]
            ratio = max(times) / times[0]
            is_aim = limit and peer == SDK
            yield [f"{what}, {peer}", *(f"{value / 1e3:.2f} µs" for value in times),
                   f"at most {limit} times the first: {verdict(ratio <= limit)} ({ratio:.2f})" if is_aim else "none"]

    heads = ["processor time", "figure", "times as fast as nlohmann", "times simdjson DOM's"]
    parts = ["10,000 records (6 MB) to objects:\n\n",
             table([*heads, "first time in a process", "peak memory above the text, MiB"], mapping_rows(figures, 10000, first)),
             "\n20 records (12 KB) to objects:\n\n", table(heads, mapping_rows(figures, 20, None)), "\n",
             table(["processor time of a record, by their number", *(f"{count:,}" for count in GROWTH), "aim"],
                   [*growth_rows("first time in a process", lambda *run: first[run][0], 1.15),
                    *growth_rows("again and again", lambda peer, count: time(f"growth/{peer}/{count}"), None)]), "\n",
             table(["what", "figure", "aim"], [
                 aim("10,000 records, times as fast as nlohmann/json", time(f"map/{BY_LIST}/10000") / time(f"map/{SDK}/10000"), 6, True),
                 aim("10,000 records, times simdjson DOM's time", time(f"map/{SDK}/10000") / time(f"map/{BY_HAND}/10000"), 1.4),
                 aim("20 records, times as fast as nlohmann/json", time(f"map/{BY_LIST}/20") / time(f"map/{SDK}/20"), 5, True),
                 aim("peak memory above the text, MiB", first[SDK, 10000][1], 24),
                 ["shuffled keys, times the same with keys in order",
                  f"{time(f'shuffled keys/{SDK}/10000') / time(f'map/{SDK}/10000'):.2f} "
                  f"(simdjson DOM {time(f'shuffled keys/{BY_HAND}/10000') / time(f'map/{BY_HAND}/10000'):.2f})", "no cliff"],
                 ["a fifth of the keys missing, times the same with all",
                  f"{time(f'missing keys/{SDK}/10000') / time(f'map/{SDK}/10000'):.2f} "
                  f"(simdjson DOM {time(f'missing keys/{BY_HAND}/10000') / time(f'map/{BY_HAND}/10000'):.2f})", "no cliff"],
                 *(aim(f"camelizing a key of {length} bytes, times copying it",
                       time(f"keys/camelizedString/{length}") / time(f"keys/copy of the string/{length}"), 2)
                   for length in KEY_LENGTHS)]), "\n"]
    return "".join(parts)


def machine(contexts):
    model = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
    compiler = subprocess.run(["c++", "--version"], check=True, text=True, capture_output=True).stdout.splitlines()[0]
    curl = subprocess.run(["curl-config", "--version"], check=True, text=True, capture_output=True).stdout.strip()
    load = max(context["load_avg"][0] for context in contexts)
    return (f"{datetime.date.today()}, {model[1] if model else platform.machine()}, {os.cpu_count()} cores, "
            f"{platform.freedesktop_os_release()['PRETTY_NAME']}, {compiler}, {curl}; load average at the start {load:.1f}.\n")


def chart(title, unit, bars):
    """A horizontal bar for each label and value."""
    label_width, bar_width, row, top = 220, 400, 30, 44
    longest = max(value for _, value in bars)
    lines = []
    for index, (label, value) in enumerate(bars):
        y, width = top + index * row, bar_width * value / longest
        is_other = any(word in label for word in ("libcurl", "neither", *PEERS[2:]))
        colour = "#a0aec0" if is_other else "#2b6cb0"
        lines.append(f'<text x="{label_width - 8}" y="{y + 15}" text-anchor="end">{escape(label)}</text>'
                     f'<rect x="{label_width}" y="{y}" width="{width:.1f}" height="21" rx="2" fill="{colour}"/>'
                     f'<text x="{label_width + width + 6:.1f}" y="{y + 15}">{number(value * NANOSECONDS[unit], unit)} {unit}</text>')
    width, height = label_width + bar_width + 90, top + len(bars) * row + 8
    return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" width="{width}" height="{height}" '
            f'font-family="sans-serif" font-size="13">\n<title>{escape(title)}</title>\n'
            f'<rect width="{width}" height="{height}" fill="#ffffff"/>\n'
            f'<text x="14" y="26" font-size="15" font-weight="bold">{escape(title)}</text>\n' + "\n".join(lines) + "\n</svg>\n")


def main(results, build, document):
    figures, contexts = best_figures(results)
    sizes = library_sizes(build)
    text = markdown(figures, sizes, contexts, build)
    before, _, rest = document.read_text().partition(MARKS[0])
    _, _, after = rest.partition(MARKS[1])
    document.write_text(before + MARKS[0] + text + MARKS[1] + after)

    images = document.parent / "images"
    images.mkdir(exist_ok=True)
    charts = [(file, title, unit, [(label, figures[name, measure] / NANOSECONDS[unit]) for label, name, measure in bars
                                   if (name, measure) in figures]) for file, title, unit, bars in CHARTS]
    sdk, libcurl = sizes
    charts.append(("bench-size.svg", "Shared libraries, stripped", "kB", [
        ("both of the SDK", sum(sdk.values()) / 1e3), ("libcurl", libcurl / 1e3)]))
    for file, title, unit, bars in charts:
        if bars:
            (images / file).write_text(chart(title, unit, bars))
    print(text, end="")


if __name__ == "__main__":
    NANOSECONDS["kB"] = 1  # the charts' other unit
    main(*map(pathlib.Path, sys.argv[1:4]))
