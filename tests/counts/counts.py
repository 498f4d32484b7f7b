#!/usr/bin/env python3
"""Counts instructions and allocations of each operation, which repeat exactly.

usage: tests/counts/counts.py PROGRAM
       tests/counts/counts.py --check  TARGET PROGRAM
       tests/counts/counts.py --update TARGET PROGRAM

PROGRAM is orvex-counts, or orvex-peer-counts of the benchmark, and is run under
callgrind. The first form prints what it counted. --check fails when the engine takes
more instructions than instruction_ceilings.txt allows it on TARGET (i386 or x86_64),
or when a hit through orvexeng.hpp takes a fiftieth more than the same written out;
--update sets those ceilings to what it takes now and a twentieth.
"""
import glob
import os
import re
import subprocess
import sys
import tempfile
from pathlib import Path

CEILINGS = Path(__file__).with_name("instruction_ceilings.txt")
# Room for another libc or compiler of the same series.
ROOM = 1.05
# What the header for C++ may add: a copy less or more of a compiler's choosing.
ROOM_OF_HPP = 1.02


def count(program):
    """Returns {(contender, operation): {"instructions": ..., "allocations": ..., ...}}.

    All per operation; instructions are missing where the operation was not profiled,
    bytes where it says nothing of memory.
    """
    with tempfile.TemporaryDirectory() as directory:
        command = ["valgrind", "--tool=callgrind", "--quiet",
                   f"--callgrind-out-file={directory}/profile", os.path.abspath(program)]
        # An empty environment: its size moves the stack, and with it a few counts.
        run = subprocess.run(command, env={"PATH": os.environ["PATH"]}, text=True,
                             stdout=subprocess.PIPE, check=True)
        counts, done = {}, {}
        for line in run.stdout.splitlines():
            if line.startswith("#"):
                sys.exit(line)
            who, what, times, made, freed, held = line.split()
            done[who, what] = int(times)
            row = counts[who, what] = {"allocations": int(made) / int(times),
                                       "frees": int(freed) / int(times)}
            if held != "-":
                row["bytes"] = int(held)
        for name in glob.glob(f"{directory}/profile.*"):
            text = Path(name).read_text(errors="replace")
            of = re.search(r"^desc: Trigger: Client Request: (\S+)/(\S+)$", text, re.M)
            total = re.search(r"^(?:summary|totals): (\d+)", text, re.M)
            if of:
                counts[of[1], of[2]]["instructions"] = int(total[1]) / done[of[1], of[2]]
        return counts


def engine_instructions(program):
    return {what: row["instructions"] for (_, what), row in count(program).items()
            if "instructions" in row}


def read_ceilings():
    """Returns {(target, operation): instructions}."""
    ceilings = {}
    for line in CEILINGS.read_text().splitlines():
        if line and not line.startswith("#"):
            target, what, most = line.split()
            ceilings[target, what] = int(most)
    return ceilings


def check(target, program):
    ceilings = read_ceilings()
    failures = 0
    counted = engine_instructions(program)
    for what, taken in counted.items():
        most = ceilings.get((target, what))
        verdict = "ok" if most is not None and taken <= most else "TOO MANY"
        failures += verdict != "ok"
        print(f"{target} {what}: {taken:.0f} instructions, {most} allowed: {verdict}")
    share = counted["hpp-hit"] / counted["hand-written-hit"]
    verdict = "ok" if share <= ROOM_OF_HPP else "TOO MANY"
    failures += verdict != "ok"
    print(f"{target} orvexeng.hpp: {share:.3f} of a hit written out: {verdict}")
    return 1 if failures else 0


def update(target, program):
    ceilings = read_ceilings() if CEILINGS.exists() else {}
    for what, taken in engine_instructions(program).items():
        ceilings[target, what] = round(taken * ROOM)
    with CEILINGS.open("w") as file:
        file.write("# The most instructions the engine may take for one operation, on either target:\n"
                   "# what it took, counted by callgrind, and a twentieth. Lower them after an\n"
                   "# improvement with counts.py --update; raise one only with a reason.\n")
        for (of, what), most in sorted(ceilings.items()):
            file.write(f"{of} {what} {most}\n")
    return 0


def main(arguments):
    if len(arguments) == 3 and arguments[0] in ("--check", "--update"):
        return {"--check": check, "--update": update}[arguments[0]](*arguments[1:])
    if len(arguments) != 1 or arguments[0].startswith("-"):
        print(__doc__, file=sys.stderr)
        return 2
    for (who, what), row in count(*arguments).items():
        print(f"{who:15} {what:18}" + "".join(f" {name} {value:.10g}" for name, value in row.items()))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
