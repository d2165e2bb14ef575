"""The fault matrix drives the same executable (SSO_SERVICE) with the same support as the system tests beside it."""

import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "system"))
pytest_plugins = ["support.fixtures"]
pytest.register_assert_rewrite("cells")


@pytest.fixture
def judge(cell):
    from cells import Judge  # only now is the path to its imports there
    result = Judge(cell)
    yield result
    result.finish()
