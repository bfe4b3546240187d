#!/usr/bin/env python3
"""Writes the figures of benchmark runs as Markdown tables.

    report.py <results> <build> <document>

Reads every Google Benchmark JSON file in <results>, measures what happens once in a process, and replaces the part of
<document> between its two marks. A figure is the best of all its rounds: what else runs on a machine only ever adds to
it. Figures are compared within one run alone.
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

PEERS = ["ZembraCoreSDK", "ZembraCoreSDK, array first", "simdjson On-Demand, by hand", "simdjson DOM, by hand",
         "RapidJSON, by hand", "Boost.JSON value_to", "nlohmann/json get"]
SDK, ARRAY_FIRST, ON_DEMAND, DOM, NLOHMANN = PEERS[0], PEERS[1], PEERS[2], PEERS[3], PEERS[6]
GROWTH = (1_000, 10_000, 100_000, 1_000_000)
ROUNDS = 9  # of the processes that do something once
SIZE_LIMIT = 450_000  # bytes, both libraries together
AUTHORITY_DIRECTORY = "/etc/ssl/certs"
NANOSECONDS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}
MARKS = ("<!-- figures: written by scripts/bench -->\n", "<!-- end of figures -->\n")


def best_figures(directory):
    """The least wall and processor time of each benchmark, in nanoseconds, of one exchange where there are several."""
    figures = {}
    for file in sorted(directory.glob("*.json")):
        for run in json.loads(file.read_text())["benchmarks"]:
            if run["run_type"] != "iteration":
                continue
            if run.get("error_occurred"):
                sys.exit(f"{file.name}: {run['name']}: {run['error_message']}")
            name = re.sub(r"/(iterations|repeats|real_time)\b.*", "", run["name"])
            scale = NANOSECONDS[run["time_unit"]] / run.get("exchanges", 1)
            times = run["real_time"] * scale, run["cpu_time"] * scale
            figures[name] = tuple(map(min, times, figures.get(name, times)))
    return figures


def best_of_processes(commands):
    """The least of each number that a program prints, over shuffled rounds: {name: numbers}."""
    best = {}
    for name in random.sample(ROUNDS * list(commands), ROUNDS * len(commands)):
        command = list(map(str, commands[name]))
        printed = subprocess.run(command, check=True, text=True, capture_output=True).stdout
        numbers = tuple(map(float, printed.split()))
        best[name] = tuple(map(min, numbers, best.get(name, numbers)))
    return best


def first_exchanges(build):
    """Wall and processor time of a process's first exchange, with a sandbox of its own."""
    with tempfile.TemporaryDirectory() as directory:
        authority, defaults = f"{directory}/sandbox.pem", f"{directory}/all.pem"
        sandbox = subprocess.Popen([build / "sandbox/zembra-sandbox", "--ca-file", authority], text=True, stdout=subprocess.PIPE)
        try:
            address = sandbox.stdout.readline().split()[-1]
            sandbox.stdout.readline()  # the file is there now
            system = pathlib.Path(AUTHORITY_DIRECTORY, "ca-certificates.crt").read_text()
            pathlib.Path(defaults).write_text(system + pathlib.Path(authority).read_text())
            program = build / "bench/zembra-first-exchange"
            return best_of_processes({
                "SDK": [program, "SDK", address, authority],
                "defaults": [program, "libcurl", address, defaults],
                "directory": [program, "libcurl", address, authority, AUTHORITY_DIRECTORY]})
        finally:
            sandbox.terminate()


def first_mappings(build):
    """Processor time, and memory above the text, of a process's first mapping."""
    program = build / "bench/zembra-first-mapping"
    return best_of_processes({(peer, count): [program, peer, count] for peer in PEERS
                              for count in (GROWTH if peer in (SDK, ON_DEMAND) else (10_000,))})


def stripped_size(library):
    with tempfile.NamedTemporaryFile() as file:
        subprocess.run(["strip", "--strip-unneeded", "-o", file.name, library], check=True)
        return os.path.getsize(file.name)


def table(heads, rows):
    lines = [heads, ["---"] + ["---:"] * (len(heads) - 1), *rows]
    return "".join("| " + " | ".join(line) + " |\n" for line in lines) + "\n"


def aim(what, value, limit, is_least=False):
    is_met = value >= limit if is_least else value <= limit
    return [what, f"{value:.2f}", f"at {'least' if is_least else 'most'} {limit}: {'met' if is_met else '**missed**'}"]


def microseconds(time):
    return f"{time / 1e3:,.1f} µs"


def exchanges(figures, first):
    (wall, cpu), defaults, directory = first["SDK"], first["defaults"], first["directory"]
    sdk, fresh = figures["SDK/1"][0], figures["libcurl on a fresh connection"][0]
    kept = figures["libcurl on a kept connection"][0]
    rows = [aim("first exchange: processor time, times libcurl's with its defaults", cpu / defaults[1], 0.35),
            aim("first exchange: wall time, times libcurl's with its defaults", wall / defaults[0], 0.5),
            aim("first exchange: wall time, times libcurl's with the directory", wall / directory[0], 1.5),
            aim("later exchange: wall time, times libcurl's on a fresh connection", sdk / fresh, 1.2)]
    in_flight = [figures[f"SDK/{count}"][0] for count in (1, 10, 100, 1000)]
    rows.append(aim("exchange with up to 1,000 in flight, times a lone one", max(in_flight) / sdk, 1.2))
    return (table(["first exchange of a process", "wall time", "processor time"],
                  [[name, *map(microseconds, times)] for name, times in
                   (("SDK", first["SDK"]), ("libcurl with its defaults", defaults),
                    ("libcurl with the directory", directory))]) +
            table(["later exchange", "wall time"],
                  [["SDK", microseconds(sdk)], ["libcurl on a fresh connection", microseconds(fresh)],
                   ["libcurl on a kept connection", microseconds(kept)],
                   *([f"SDK, one of {count} in flight", microseconds(time)]
                     for count, time in zip((10, 100, 1000), in_flight[1:]))]) +
            table(["exchanges", "figure", "aim"], rows))


def mapping(figures, first):
    def ratio(name, other):
        return figures[name][1] / figures[other][1]

    rows = [[peer, *(microseconds(figures[f"map/{peer}/{count}"][1]) for count in (20, 10_000)),
             microseconds(first[peer, 10_000][0]), f"{first[peer, 10_000][1]:.1f} MiB"] for peer in PEERS]
    growth = [first[SDK, count][0] / count for count in GROWTH]
    on_demand = first[ON_DEMAND, 10_000][0]
    return (table(["from text to objects", "20 records", "10,000 records", "10,000, first in a process", "memory"], rows) +
            table(["mapping", "figure", "aim"], [
                aim("first in a process, times simdjson On-Demand's", first[SDK, 10_000][0] / on_demand, 1.3),
                aim("the same, array first", first[ARRAY_FIRST, 10_000][0] / on_demand, 1.3),
                aim("10,000 records, times as fast as nlohmann/json",
                    ratio(f"map/{NLOHMANN}/10000", f"map/{SDK}/10000"), 6, True),
                aim("10,000 records, times simdjson DOM's", ratio(f"map/{SDK}/10000", f"map/{DOM}/10000"), 1.5),
                aim("20 records, times as fast as nlohmann/json", ratio(f"map/{NLOHMANN}/20", f"map/{SDK}/20"), 4.5, True),
                aim("a record among a million, times one among a thousand", max(growth) / growth[0], 1.15),
                aim("peak memory above 6 MB of text, MiB", first[SDK, 10_000][1], 24),
                ["keys in random order, times the same in order",
                 f"{ratio(f'shuffled keys/{SDK}/10000', f'map/{SDK}/10000'):.2f}",
                 f"simdjson DOM {ratio(f'shuffled keys/{DOM}/10000', f'map/{DOM}/10000'):.2f}"]]))


def sizes(build):
    size = {name: stripped_size(build / f"ios-sdk/{name}/lib{name}.so") for name in ("ZembraPlatform", "ZembraCoreSDK")}
    total = sum(size.values())
    return table(["shared library, stripped", "bytes", "aim"], [
        *([f"lib{name}.so", f"{bytes_:,}", ""] for name, bytes_ in size.items()),
        ["both", f"{total:,}", f"at most {SIZE_LIMIT:,}: {'met' if total <= SIZE_LIMIT else '**missed**'}"]])


def machine():
    model = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
    compiler, curl = (subprocess.run([program, "--version"], check=True, text=True, capture_output=True).stdout.splitlines()[0]
                      for program in ("c++", "curl-config"))
    return (f"{datetime.date.today()}, {model[1] if model else platform.machine()}, {os.cpu_count()} cores, "
            f"{platform.freedesktop_os_release()['PRETTY_NAME']}, {compiler}, {curl}; "
            f"load average {os.getloadavg()[2]:.1f}.\n\n")


def main(results, build, document):
    figures = best_figures(results)
    text = machine() + exchanges(figures, first_exchanges(build)) + mapping(figures, first_mappings(build)) + sizes(build)
    before, _, rest = document.read_text().partition(MARKS[0])
    _, _, after = rest.partition(MARKS[1])
    document.write_text(before + MARKS[0] + text + MARKS[1] + after)
    print(text, end="")


if __name__ == "__main__":
    main(*map(pathlib.Path, sys.argv[1:4]))
