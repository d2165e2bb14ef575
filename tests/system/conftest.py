"""The fixtures are shared with the fault matrix."""

pytest_plugins = ["support.fixtures"]
