#!/usr/bin/python3
"""Prints the results of one run in 80 columns, and exits with 1 when a budget is missed.

    table.py FOLDER     with one Google Benchmark JSON file for each program

What a row is called, what it is compared with and its budget are said where it is measured.
"""

import json
import os
import platform
import sys

NAME = 32  # columns


def load(folder):
    """All rows in the order of their measurement; ends the program when one was not measured."""
    rows = []
    for file in sorted(os.listdir(folder)):
        if not file.endswith(".json"):
            continue
        with open(os.path.join(folder, file), encoding="utf-8") as stream:
            entries = json.load(stream)["benchmarks"]
        if not entries:
            sys.exit(f"{file}: nothing was measured")
        for entry in entries:
            if entry.get("error_occurred"):
                print(f"{file}: {entry['name']}: {entry['error_message']}", file=sys.stderr)
                sys.exit(2)
            entry["name"] = entry["name"].split("/iterations:")[0]
            entry["family"] = entry["name"].split("|")[0]
            rows.append(entry)
    return rows


def text(nanoseconds):
    for limit, unit in ((1e3, "ns"), (1e6, "µs"), (1e9, "ms")):
        if nanoseconds < limit * 0.9995:
            return f"{nanoseconds / (limit / 1e3):.3g} {unit}"
    return f"{nanoseconds / 1e9:.3g} s"


class Table:
    def __init__(self):
        self.misses = []

    def verdict(self, name, value, budget):
        if budget is None:
            return ""
        if value <= budget * 1.0001:
            return "ok"
        self.misses.append(name)
        return "OVER"

    def line(self, name, columns):
        name = "  " + name.replace("|", ", ")
        if len(name) > NAME:
            print(name)
            name = ""
        print(f"{name:<{NAME}}{columns}".rstrip())

    def pairs(self, rows):
        """Rows beside their floors, one paragraph for each kind of floor."""
        for floor in dict.fromkeys(row["label"] for row in rows):
            print(f"\nagainst {floor}")
            self.line("", f"{'cost':>8}{'floor':>9}{'ratio':>8}{'quartiles':>12}{'budget':>7}")
            for row in (row for row in rows if row["label"] == floor):
                budget = row.get("budget")
                flag = "!" if row["floor_ns"] > 0.95 * row["cost_ns"] else " "
                spread = f"{row['lower']:.2f}-{row['upper']:.2f}"
                bound = "" if budget is None else f"{budget:.2f}"
                verdict = self.verdict(row["name"], row["ratio"], budget)
                self.line(row["name"],
                          f"{text(row['cost_ns']):>8}{text(row['floor_ns']):>9}"
                          f"{row['ratio']:>7.2f}{flag}{spread:>12}{bound:>6} {verdict}")
        if any(row["floor_ns"] > 0.95 * row["cost_ns"] for row in rows):
            print("\n! the floor is above 0.95 of what stands on it")

    def growth(self, rows):
        """How much faster a cost grows from the smallest size to the largest than its floor does."""
        print("\ngrowth, divided by that of the floor")
        for family in dict.fromkeys(row["family"] for row in rows):
            sizes = sorted((row for row in rows if row["family"] == family),
                           key=lambda row: row["size"])
            small, large = sizes[0], sizes[-1]
            growth = large["ratio"] / small["ratio"]
            budget = large["growth_budget"]
            name = f"{family}, to {large['size']:,.0f}"
            verdict = self.verdict(name + " (growth)", growth, budget)
            self.line(name, f"{growth:>23.2f}{budget:>19.2f} {verdict}")

    def figures(self, rows):
        print("\nfigures that are no ratios")
        for row in rows:
            budget = row.get("budget")
            bound = "" if budget is None else f"{budget:.4g}"
            verdict = self.verdict(row["name"], row["value"], budget)
            value = f"{row['value']:.3g}" if row["value"] < 1000 else f"{row['value']:.0f}"
            self.line(row["name"],
                      f"{value:>8} {row.get('label', ''):<15}{bound:>18} {verdict}")


def main():
    rows = load(sys.argv[1])
    pairs = [row for row in rows if "ratio" in row]
    print(f"{platform.system()} {platform.machine()}, {os.cpu_count()} cores, load average "
          f"{os.getloadavg()[0]:.1f} at the end.")
    print("Medians of pairs: operation and floor in turn, in one loop; the quartiles are\n"
          "the ratio's. What names no place runs on one core.")
    table = Table()
    table.pairs(pairs)
    table.growth([row for row in pairs if "growth_budget" in row])
    table.figures([row for row in rows if "value" in row])
    budgets = sum(("budget" in row) for row in rows)
    budgets += len({row["family"] for row in pairs if "growth_budget" in row})
    print(f"\n{budgets} budgets, {len(table.misses)} missed" + (":" if table.misses else "."))
    for name in table.misses:
        print("  " + name.replace("|", ", "))
    sys.exit(1 if table.misses else 0)


main()
