#!/usr/bin/env python3
"""The tables of docs/reliability.md, made from the cells that the tests are made of. Fails when the document is not up
to date; with --write, brings it up to date."""

import importlib
import re
import sys
from pathlib import Path

HERE = Path(__file__).resolve().parent
DOCUMENT = HERE.parent.parent / "docs" / "reliability.md"
BEGIN, END = "<!-- fault matrix: begin -->", "<!-- fault matrix: end -->"
sys.path[:0] = [str(HERE), str(HERE.parent / "system")]

from cells import TABLES, shown  # noqa: E402


def modules():
    """All test modules but the table's own; whoever imports them declares their cells."""
    return [importlib.import_module(path.stem) for path in sorted(HERE.glob("test_*.py"))
            if path.stem != "test_table"]


def tested_cells():
    """The cells that the tests are run for, in the order of the modules and of the tests in them."""
    for module in modules():
        for name, test in vars(module).items():
            for mark in getattr(test, "pytestmark", []) if name.startswith("test_") else []:
                if mark.args[:1] == ("cell",):
                    yield from (parameter.values[0] for parameter in mark.args[1])


def tables():
    places = {id(cell): place for place, cell in enumerate(tested_cells())}
    ordered = sorted(TABLES.items(), key=lambda item: min(places.get(id(cell), 0) for cell in item[1]))
    contents = "\n".join(f"- [{title}](#{anchor(title)}): {len(rows)}" for title, rows in ordered)
    return "\n\n".join([contents, *(f"### {title}\n\n{table(rows)}" for title, rows in ordered)])


def anchor(title):
    return re.sub(r"[^\w -]", "", title.lower()).replace(" ", "-")


def table(rows):
    """Faults of which the same has to come share a row."""
    outcomes = {}
    for cell in rows:
        outcomes.setdefault(outcome(cell), []).append(text(cell.fault))
    head = ["fault", "log", "reply", "state", "files", "exit status"]
    lines = [head, ["---"] * len(head), *(["<br>".join(faults), *columns] for columns, faults in outcomes.items())]
    return "\n".join(f"| {' | '.join(line)} |" for line in lines)


def outcome(cell):
    """The columns behind the fault."""
    log = "<br>".join(code(shown(line)) for line in cell.log) or "nothing"
    return log, code(cell.reply) if cell.reply is not None else "no client", cell.state, cell.files, str(cell.status)


def text(words):
    """Markdown that shows the words as they are."""
    return re.sub(r"([\\`*_{}\[\]<>#|])", r"\\\1", words)


def code(words):
    """The same as code. Within a table only the bar has to be escaped, and a fence is longer than what it encloses."""
    fence = "`" * (1 + max(map(len, re.findall("`+", words)), default=0))
    space = " " if words.startswith("`") or words.endswith("`") or not words.strip() else ""
    return f"{fence}{space}{visible(words).replace('|', chr(92) + '|')}{space}{fence}"


def visible(words):
    """Without line ends and other control characters."""
    return "".join(repr(letter)[1:-1] if ord(letter) < 32 else letter for letter in words)


def updated(document):
    before, begin, rest = document.partition(BEGIN)
    _, end, after = rest.partition(END)
    assert begin and end, f"{DOCUMENT} has no markers"
    return f"{before}{BEGIN}\n\n{tables()}\n\n{END}{after}"


def main():
    document = DOCUMENT.read_text()
    if sys.argv[1:] == ["--write"]:
        DOCUMENT.write_text(updated(document))
    elif document != updated(document):
        sys.exit(f"{DOCUMENT.name} is not up to date: run tests/faults/table.py --write")


if __name__ == "__main__":
    main()
