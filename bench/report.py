#!/usr/bin/env python3
"""Sums up one run of scripts/bench on one target.

usage: bench/report.py TARGET DIR ENGINE_COUNTS PEER_COUNTS

Reads TARGET-times.json, TARGET-startup and TARGET-stripped from DIR and runs the two
programs, orvex-counts and orvex-peer-counts. Prints tables of medians and of the ratio
engine / contender (below 1: the engine is faster) and writes DIR/TARGET.json with all of
it.
"""
import json
import re
import statistics
import sys
from pathlib import Path

sys.dont_write_bytecode = True  # the tree stays as it was
sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "tests" / "counts"))
import counts  # noqa: E402 (found by the path above)

TITLES = {
    "a-hit-uniform": "a  full hits, uniform over a full cache",
    "b-hit-zipf": "b  full hits, Zipf 0.99 over a full cache",
    "c-hit-threads": "c  full hits from several threads (elapsed time over the queries of all)",
    "d-insert": "d  ever-new files: miss, callback that returns at once, keep, evict",
    "e-growth": "e  full hits, uniform, by the number of entries",
    "f-hit-during-insert": "f  full hits while another thread inserts: mean and percentiles of a hit, "
                           "and what an insertion took",
    "g-cold-path": "g  eight threads, one cold path, a callback of 5 ms",
}
ENGINE = "engine"
# What a benchmark reports apart from its time, and its name in the tables.
COUNTERS = {"calls": "calls", "p50": "p50", "p99": "p99", "p99.9": "p99.9",
            "insertionNs": "insertion", "misses": "misses per hit"}

# As in the tables: caches, then the floors.
ORDER = [ENGINE, "textbook", "absl", "boost", "leveldb", "rocksdb-lru-1", "rocksdb-lru-16",
         "rocksdb-clock", "tbb", "floor-lock", "floor"]


def natural(case):
    """Sorts 64 before 256."""
    return [int(word) if word.isdigit() else 0 for word in case.split()]


def read_machine(context):
    """Returns the machine and the date, as text."""
    cpu = re.search(r"^model name\s*: (.*)$", Path("/proc/cpuinfo").read_text(), re.M)
    return {"cpu": cpu[1] if cpu else "unknown processor", "processors": context["num_cpus"],
            "date": context["date"][:10]}


def say_where(context):
    hits, insertions = context["processor_of_hits"], context["processor_of_insertions"]
    if hits == insertions:
        return f"f: both threads share processor {hits}, the only one: what it says is of little use"
    return f"f: hits on processor {hits}, insertions on processor {insertions}"


def read_times(benchmarks):
    """Returns {(scenario, contender, case): {"median": ns, "counters": {...}, ...}}."""
    runs = {}
    for run in benchmarks:
        if run["run_type"] != "iteration":
            continue
        if run.get("error_occurred"):
            sys.exit(f"{run['name']}: {run['error_message']}")
        scenario, contender, *arguments = run["run_name"].split("/")
        # CPU time where one thread does the work: less sensitive to other load.
        wall = "real_time" in arguments or "manual_time" in arguments
        case = " ".join(a for a in arguments
                        if a not in ("real_time", "manual_time") and not a.startswith("iterations"))
        if scenario == "c-hit-threads":
            case = case.split()[-1].replace("threads:", "") + " threads"
        runs.setdefault((scenario, contender, case), []).append(
            (run["real_time" if wall else "cpu_time"], run))
    times = {}
    for key, taken in runs.items():
        values = sorted(value for value, _ in taken)
        times[key] = {"median": statistics.median(values), "least": values[0], "most": values[-1],
                      "counters": {name: statistics.median(run[name] for _, run in taken)
                                   for name in COUNTERS
                                   if name in taken[0][1]}}
    return dict(sorted(times.items(), key=lambda item: (
        item[0][0], ORDER.index(item[0][1]), natural(item[0][2]))))


def print_table(title, header, rows):
    widths = [max(len(row[column]) for row in [header] + rows) for column in range(len(header))]
    print(f"\n{title}")
    for row in [header] + rows:
        print("  " + row[0].ljust(widths[0]) +
              "".join("  " + cell.rjust(width) for cell, width in zip(row[1:], widths[1:])))


def print_scenario(times, scenario, title):
    cases = list(dict.fromkeys(case for of, _, case in times if of == scenario))
    contenders = list(dict.fromkeys(who for of, who, _ in times if of == scenario))
    unit, ns = ("ms", 1e6) if scenario == "g-cold-path" else ("ns", 1)
    header = ["contender"]
    for case in cases:
        header += [f"{case}: {unit}" if len(cases) > 1 else unit, "engine/"]
    counters = list(times[scenario, ENGINE, cases[0]]["counters"])
    header += [COUNTERS[name] for name in counters]
    # Waiting for one insertion is the best a lock allows.
    insertion = "d-insert" if "p99" in counters else None
    if insertion:
        header.append("p99 / d")
    rows = []
    for who in contenders:
        row = [who]
        for case in cases:
            median = times[scenario, who, case]["median"]
            ratio = times[scenario, ENGINE, case]["median"] / median
            row += [f"{median / ns:.0f}" if median >= 100 * ns else f"{median / ns:.1f}",
                    f"{ratio:.2f}"]
        told = times[scenario, who, cases[0]]["counters"]
        row += [f"{told[name]:.0f}" if told[name] >= 100 else f"{told[name]:.3g}" for name in counters]
        if insertion:
            row.append(f"{told['p99'] / times[insertion, who, '']['median']:.2f}")
        rows.append(row)
    print_table(title, header, rows)


def print_counts(counted):
    contenders = list(dict.fromkeys(who for who, _ in counted))
    rows = []
    for who in contenders:
        row = [who]
        for what in ("hit", "insert"):
            for name in ("instructions", "allocations"):
                value = counted.get((who, what), {}).get(name)
                row.append("-" if value is None else f"{value:.0f}")
            if what == "hit":
                row.append(f"{counted[ENGINE, 'hit']['instructions'] / counted[who, 'hit']['instructions']:.2f}")
        held = counted.get((who, "memory"), {}).get("bytes")
        rows.append(row + ["-" if held is None else str(held)])
    print_table("Counts of one operation; these repeat exactly",
                ["contender", "hit: instr.", "alloc.", "engine/", "insert: instr.", "alloc.",
                 "bytes an entry"], rows)


def main(target, directory, engine_counts, peer_counts):
    directory = Path(directory)
    timed = json.loads((directory / f"{target}-times.json").read_text())
    times = read_times(timed["benchmarks"])
    machine = read_machine(timed["context"])
    counted = {**counts.count(engine_counts), **counts.count(peer_counts)}
    started = [int(line) for line in (directory / f"{target}-startup").read_text().split()]
    size = (directory / f"{target}-stripped").stat().st_size

    print(f"\n== {target}: medians, and engine / contender")
    print(f"{machine['cpu']}, {machine['processors']} processors, {machine['date']}")
    print(say_where(timed["context"]))
    for scenario, title in TITLES.items():
        print_scenario(times, scenario, title)
    rows = []
    for (scenario, _, _), time in times.items():
        if scenario not in TITLES:
            what = scenario[2:]
            row = counted.get((ENGINE, what), {})
            rows.append([f"{scenario[0]}  {what}", f"{time['median']:.0f}"] +
                        [f"{row[name]:.0f}" if name in row else "-"
                         for name in ("instructions", "allocations")])
    print_table("h, i, k  the engine's other queries, over full caches",
                ["query", "ns", "instructions", "allocations"], rows)
    print_counts(counted)
    print_table("j  start-up and size", ["load the library, start, first query",
                                             f"{statistics.median(started) / 1000:.0f} us"], [
        ["the stripped library", f"{size} bytes"],
        ["an entry of a full hash cache", f"{counted[ENGINE, 'memory']['bytes']} bytes"]])

    nested = {}
    for (scenario, who, case), time in times.items():
        nested.setdefault(scenario, {}).setdefault(case, {})[who] = dict(
            time, ratio=times[scenario, ENGINE, case]["median"] / time["median"])
    operations = {}
    for (who, what), row in counted.items():
        operations.setdefault(who, {})[what] = row
    result = directory / f"{target}.json"
    result.write_text(json.dumps({
        "target": target, "machine": machine, "times": nested, "counts": operations,
        "startupNs": {"median": statistics.median(started), "least": min(started)},
        "strippedBytes": size}, indent=1) + "\n")
    print(f"\nAll of it: {result}")


if __name__ == "__main__":
    if len(sys.argv) != 5:
        sys.exit(__doc__)
    main(*sys.argv[1:])
