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
    return Judge(cell)


@pytest.hookimpl(hookwrapper=True)
def pytest_pyfunc_call(pyfuncitem):
    outcome = yield
    outcome.get_result()  # a test that has failed has left out something anyway
    if "judge" in pyfuncitem.funcargs:
        pyfuncitem.funcargs["judge"].finish()


def pytest_collection_modifyitems(items):
    """Those that wait for half a minute first, so that several processes share them out and never wait for one."""
    items.sort(key=lambda item: item.get_closest_marker("slow") is None)
