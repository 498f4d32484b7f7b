#!/usr/bin/env python3
"""Draws what a full hit costs, by contender and number of entries, and what else a cache
costs: an insertion, a hit during insertions, memory.

usage: bench/draw.py REPORT.json... >docs/hit.svg

One row for each report of scripts/bench, such as build/bench/i386.json.
"""
import json
import sys
from html import escape
from pathlib import Path

WIDTH, ROW = 900, 610
LEFT, BARS, GROWTH = 120, 260, 250  # widths: names, the longest bar, the plot
GROWTH_AT = 530
TOP, HEIGHT = 62, 220
BELOW = 288  # from the upper panels to the lower ones
PANEL, NARROW_LEFT, NARROW_BARS = 290, 100, 110  # the lower ones: apart, names, the longest bar
ENGINE, PEER, FLOOR, TEXT, RULE = "#0b6bcb", "#aab4be", "#dfe4e8", "#24292f", "#d0d7de"
TITLES = {"i386": "32-bit x86", "x86_64": "x86-64"}
LINES = ["engine", "absl", "textbook", "floor-lock"]


def colour(contender):
    return ENGINE if contender == "engine" else FLOOR if contender.startswith("floor") else PEER


def text(x, y, words, anchor="start", size=12, weight="normal", fill=TEXT):
    return (f'<text x="{x:.0f}" y="{y:.0f}" text-anchor="{anchor}" font-size="{size}" '
            f'font-weight="{weight}" fill="{fill}">{escape(words)}</text>')


def medians(times, scenario, case=""):
    return {who: time["median"] for who, time in times[scenario][case].items()}


def draw_bars(values, left, top, longest):
    """One bar for each contender, the best first."""
    rows = sorted((value, who) for who, value in values.items())
    step = HEIGHT / len(rows)
    for place, (value, who) in enumerate(rows):
        y = top + place * step
        length = longest * value / rows[-1][0]
        weight = "bold" if who == "engine" else "normal"
        yield text(left - 8, y + step * 0.66, who, "end", weight=weight)
        yield (f'<rect x="{left}" y="{y + step * 0.14:.1f}" width="{length:.1f}" '
               f'height="{step * 0.72:.1f}" rx="2" fill="{colour(who)}"/>')
        yield text(left + length + 6, y + step * 0.66, f"{value:,.0f}", weight=weight)


def draw_costs(report, top):
    """What a cache costs besides the time of a hit."""
    during = report["times"]["f-hit-during-insert"][""]
    memory = {who: told["memory"]["bytes"] for who, told in report["counts"].items()
              if "memory" in told}
    panels = [("an insertion, ns", medians(report["times"], "d-insert")),
              ("a hit during insertions, p99, ns",
               {who: time["counters"]["p99"] for who, time in during.items()}),
              ("memory of an entry, bytes", memory)]
    for place, (title, values) in enumerate(panels):
        left = NARROW_LEFT + place * PANEL
        yield text(left, top - 12, title)
        yield from draw_bars(values, left, top, NARROW_BARS)


def spread(labels, apart):
    """Moves labels (y, words), sorted by y, downwards until they no longer overlap."""
    placed = []
    for y, words in sorted(labels):
        placed.append((max(y, placed[-1][0] + apart) if placed else y, words))
    return placed


def draw_growth(times, top):
    """A line for each contender over the number of entries, in steps of four times."""
    growth = times["e-growth"]
    sizes = sorted(growth, key=int)
    lines = {who: [growth[size][who]["median"] for size in sizes]
             for who in LINES if who in growth[sizes[0]]}
    most = max(max(line) for line in lines.values())
    tick = next(t for t in (10, 20, 25, 50, 100, 200, 250, 500, 1000, 2000, 5000) if most / t <= 5)
    height = HEIGHT - 22

    def x(place):
        return GROWTH_AT + GROWTH * place / (len(sizes) - 1)

    def y(ns):
        return top + height * (1 - ns / most)

    for ns in range(0, int(most) + 1, tick):
        yield (f'<line x1="{GROWTH_AT}" x2="{GROWTH_AT + GROWTH}" y1="{y(ns):.1f}" '
               f'y2="{y(ns):.1f}" stroke="{RULE}"/>')
        yield text(GROWTH_AT - 8, y(ns) + 4, str(ns), "end", 11)
    for place, size in enumerate(sizes):
        yield text(x(place), top + height + 18, size, "middle", 11)
    labels = []
    for who, line in reversed(lines.items()):
        points = " ".join(f"{x(place):.1f},{y(ns):.1f}" for place, ns in enumerate(line))
        dashes = ' stroke-dasharray="4 3"' if who == "textbook" else ""
        stroke = RULE if who.startswith("floor") else colour(who)
        yield (f'<polyline points="{points}" fill="none" stroke="{stroke}" '
               f'stroke-width="{3 if who == "engine" else 2}"{dashes}/>')
        labels.append((y(line[-1]) + 4, who))
    for at, who in spread(labels, 14):
        yield text(GROWTH_AT + GROWTH + 8, at, who, weight="bold" if who == "engine" else "normal")


def print_picture(height, label, parts):
    print(f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height}" '
          f'width="{WIDTH}" height="{height}" font-family="system-ui, sans-serif" role="img" '
          f'aria-label="{label}">')
    # White background, so that it is readable on a dark page too.
    print(f'<rect width="{WIDTH}" height="{height}" fill="#ffffff"/>')
    print("\n".join(parts))
    print("</svg>")


def main(reports):
    parts = []
    for row, report in enumerate(json.loads(Path(name).read_text()) for name in reports):
        top = row * ROW
        title = TITLES.get(report["target"], report["target"])
        machine = report["machine"]
        parts += [text(20, top + 26, title, size=16, weight="bold"),
                  text(WIDTH - 20, top + 26, f"{machine['cpu']}, {machine['processors']} processors, "
                       f"{machine['date']}", "end", 11),
                  text(LEFT, top + 50, "a full hit among 4,096 files, ns"),
                  text(GROWTH_AT, top + 50, "by the number of entries, ns"),
                  *draw_bars(medians(report["times"], "a-hit-uniform", "4096"), LEFT, top + TOP, BARS),
                  *draw_growth(report["times"], top + TOP),
                  *draw_costs(report, top + TOP + BELOW)]
    print_picture(len(reports) * ROW, "What a full hit, an insertion, a hit during insertions and "
                  "an entry's memory cost, by cache", parts)


if __name__ == "__main__":
    if len(sys.argv) < 2 or sys.argv[1].startswith("-"):
        sys.exit(__doc__)
    main(sys.argv[1:])
