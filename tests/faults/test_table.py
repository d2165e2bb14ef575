"""The document shows all cells as they are, and every cell has its test."""

import table
from cells import TABLES


def test_document_is_up_to_date():
    document = table.DOCUMENT.read_text()
    current = document == table.updated(document)
    assert current, "run tests/faults/table.py --write"


def test_every_cell_of_the_tables_is_tested_once():
    tested = [id(cell) for cell in table.tested_cells()]
    declared = [id(cell) for cells in TABLES.values() for cell in cells]
    assert len(declared) > 0 and sorted(tested) == sorted(declared)
