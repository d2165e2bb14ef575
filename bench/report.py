"""Prints the tables of sections, says which goals are met, and writes it all to one file. Fails when an exact figure
misses its goal.

    report.py SECTION... --output FILE"""

import argparse
import json
import os
import pathlib
import platform
import re
import sys


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("sections", nargs="+", type=pathlib.Path)
    parser.add_argument("--output", required=True, type=pathlib.Path)
    options = parser.parse_args()
    sections = [json.loads(path.read_text()) for path in options.sections]
    for section in sections:
        for row in section["rows"]:
            row["met"] = is_met(row)
        print_section(section)
    judged = [row for section in sections for row in section["rows"] if row["met"] is not None]
    if judged:
        print(f"\n{sum(row['met'] for row in judged)} of {len(judged)} goals met")
    options.output.write_text(json.dumps({"machine": machine(), "sections": sections}, indent=1) + "\n")
    return 1 if any(row["exact"] and row["met"] is False for section in sections for row in section["rows"]) else 0


def is_met(row):
    """None without a goal."""
    goal = row["goal"]
    if not goal:
        return None
    median = (row["ratio"] or row["value"])["median"]
    return goal.get("at_least", median) <= median <= goal.get("at_most", median)


def machine():
    model = re.search(r"^model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text(), re.M)
    return {"processor": model.group(1) if model else platform.machine(), "processors": len(os.sched_getaffinity(0)),
            "kernel": platform.release()}


def print_section(section):
    print(f"\n== {section['section']}\n")
    table = [["", "setting", "figure", "median [min..max]", "rival", "ratio [min..max]", "goal"]]
    table += [cells(row) for row in section["rows"]]
    for line, above in reversed(list(zip(table[1:], table))):  # what is as above is not repeated
        if line[:1] == above[:1]:
            line[:2] = ["", "" if line[1] == above[1] else line[1]]
    widths = [max(map(len, column)) for column in zip(*table)]
    for line in table:
        print("  ".join(cell.ljust(width) for cell, width in zip(line, widths)).rstrip())
    for note in section.get("notes", []):
        print(note)


def cells(row):
    value, rival, ratio = row["value"], row["rival_value"], row["ratio"]
    figure = f"{row['figure']}, {row['unit']}" if row["unit"] else row["figure"]
    goal = "".join(f"{limit.replace('_', ' ')} {bound:g}: {'met' if row['met'] else 'MISSED'}"
                   for limit, bound in (row["goal"] or {}).items())
    return [row["name"], row["setting"], figure, shown(value), f"{row['rival']} {number(rival['median'])}" if rival
            else "", shown(ratio) if ratio else "", goal]


def shown(spread):
    text = number(spread["median"])
    return text if spread["min"] == spread["max"] else (
        f"{text} [{number(spread['min'])}..{number(spread['max'])}]")


def number(value):
    """Three digits, or all those of a whole number."""
    whole = abs(value) >= 100 or float(value).is_integer()
    return f"{value:,.0f}" if whole else f"{value:#.3g}".rstrip(".")


if __name__ == "__main__":
    sys.exit(main())
