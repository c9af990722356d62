#!/usr/bin/python3
"""Draws what a run has measured: cost against sessions, entries and threads.

    figure.py FOLDER FILE.svg     with one Google Benchmark JSON file for each program
"""

import json
import os
import sys

import matplotlib

matplotlib.use("svg")
from matplotlib import pyplot  # noqa: E402

# panel: title of the x axis, [(family, what its line is called, what its floor's is called)]
PANELS = [
    ("sessions", [("authorize in process", "authorize", "look-up in the hash table"),
                  ("refresh", "refresh", None),
                  ("cancel", "cancel", None)]),
    ("entries in the client's cache",
     [("hit, Authorize", "hit", "map look-up, mutex, clock"),
      ("client cache miss", "miss", "bare insertion")]),
    ("threads of one client", [("client cache hit by threads", "hit", "nothing shared")]),
]
COLOURS = ["#1f5f8b", "#b5541c", "#3d7a3d"]


def series(folder):
    """{family: [(size, cost in ns, floor in ns)]}"""
    found = {}
    for file in sorted(os.listdir(folder)):
        if not file.endswith(".json"):
            continue
        with open(os.path.join(folder, file), encoding="utf-8") as stream:
            for entry in json.load(stream)["benchmarks"]:
                family, bar, _ = entry["name"].partition("|")
                if bar and "ratio" in entry:
                    found.setdefault(family, []).append(
                        (entry["size"], entry["cost_ns"], entry["floor_ns"]))
    return {family: sorted(points) for family, points in found.items()}


def draw(axes, label, lines, found):
    for colour, (family, name, floor) in zip(COLOURS, lines):
        sizes, costs, floors = zip(*found[family])
        axes.plot(sizes, costs, color=colour, marker="o", markersize=3, label=name)
        if floor is not None:
            axes.plot(sizes, floors, color=colour, linestyle=":", label=floor)
    axes.set_xscale("log", base=2 if max(sizes) < 100 else 10)
    if max(sizes) < 100:
        axes.set_xticks(sizes, [f"{size:g}" for size in sizes])
    axes.set_yscale("log")
    axes.set_xlabel(label)
    axes.grid(color="#dddddd", linewidth=0.5)
    axes.spines[["top", "right"]].set_visible(False)
    axes.legend(frameon=False, fontsize=7)


def main():
    folder, file = sys.argv[1:]
    # The same results make the same file.
    pyplot.rcParams.update({"svg.hashsalt": "vigila", "svg.fonttype": "none", "font.size": 8,
                            "font.family": "sans-serif"})
    found = series(folder)
    figure, panels = pyplot.subplots(1, len(PANELS), figsize=(10, 3.2), sharey=True)
    for axes, (label, lines) in zip(panels, PANELS):
        draw(axes, label, lines, found)
    panels[0].set_ylabel("nanoseconds for one")
    figure.tight_layout()
    figure.savefig(file, metadata={"Date": None, "Creator": None})


main()
