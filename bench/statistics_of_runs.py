"""What the sections of scripts/bench share: their arguments, and rows of figures over several runs."""

import argparse
import json
import pathlib
import statistics


def arguments(description):
    """build: the folder of the build; output: the file for the section, or None; quick: few and short runs."""
    parser = argparse.ArgumentParser(description=description)
    parser.add_argument("--build", type=lambda name: pathlib.Path(name).absolute(), required=True)
    parser.add_argument("--output", type=lambda name: pathlib.Path(name).absolute())
    parser.add_argument("--quick", action="store_true")
    return parser


def spread(values):
    return {"median": statistics.median(values), "min": min(values), "max": max(values)}


def paired_ratios(values, rivals):
    """Each value by that of the rival's run beside it, so that what slows the machine down for a while slows both.
    None where a rival is 0."""
    if len(values) != len(rivals):
        raise ValueError(f"{len(values)} runs against {len(rivals)} of the rival")
    return [value / rival for value, rival in zip(values, rivals)] if all(rivals) else None


def row(name, setting, figure, unit, values, rival=None, rival_values=None, at_least=None, at_most=None,
        exact=False):
    """One line of a table. A goal is for the ratio's median, or, without a rival, for the value's. Exact figures do not
    depend on the machine: to miss their goal is a failure."""
    ratios = paired_ratios(values, rival_values) if rival else None
    goal = {limit: bound for limit, bound in (("at_least", at_least), ("at_most", at_most)) if bound is not None}
    return {"name": name, "setting": setting, "figure": figure, "unit": unit, "value": spread(values),
            "rival": rival, "rival_value": spread(rival_values) if rival else None,
            "ratio": spread(ratios) if ratios else None, "goal": goal or None, "exact": exact}


def write_section(options, title, rows, notes=()):
    """The section as report.py reads it, to standard output without a file. Only the exact figures of a quick run are
    judged. Notes are sentences that stand below the table."""
    if options.quick:
        rows = [row if row["exact"] else {**row, "goal": None} for row in rows]
    text = json.dumps({"section": title, "rows": rows, "notes": list(notes)}, indent=1) + "\n"
    if options.output:
        options.output.write_text(text)
    else:
        print(text, end="")
