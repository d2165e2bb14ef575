"""A clock of one process's own (libfaketime), which can be set while the process runs. Only the time of day is faked:
the monotonic clock, by which waits and time limits go, stays real."""

import glob
import os
import time


class FakedClock:
    def __init__(self, folder, seconds):
        libraries = glob.glob("/usr/lib/*/faketime/libfaketime.so.1")
        assert libraries, "libfaketime is not installed"
        self._file = folder / "clock"
        self.set(seconds)
        self.environment = {
            "LD_PRELOAD": libraries[0], "FAKETIME_TIMESTAMP_FILE": str(self._file), "FAKETIME_NO_CACHE": "1",
            "FAKETIME_DONT_FAKE_MONOTONIC": "1", "DONT_FAKE_MONOTONIC": "1",
            "ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0"}

    def set(self, seconds):
        """From now on it is so many seconds since the epoch, and the clock goes on from there."""
        self._offset = int(seconds) - int(time.time())
        new = self._file.with_suffix(".new")
        new.write_text(f"{self._offset:+d}\n")
        new.replace(self._file)  # in one step: the process reads the file whenever it asks for the time

    def now(self):
        return time.time() + self._offset
