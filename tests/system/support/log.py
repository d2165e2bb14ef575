"""The service's log: reading it line by line, and the lines that a test expects."""

import re
from collections import namedtuple
from datetime import datetime

from .waiting import DEADLINE_SECONDS, MARGIN_SECONDS, wait_until

LEVELS = ("error", "warning", "info", "debug", "verbose")

Line = namedtuple("Line", "level source text")  # a line that is expected, and the level from which it is shown
Entry = namedtuple("Entry", "stamp source text")  # a line that was written

_ENTRY = re.compile(r"(?:(\d\d:\d\d:\d\d\.\d{3}) )?\[([^\[\]:\s]+):\d+\] (.*)", re.S)


def error(source, text):
    return Line("error", source, text)


def warning(source, text):
    return Line("warning", source, text)


def info(source, text):
    return Line("info", source, text)


def debug(source, text):
    return Line("debug", source, text)


def verbose(source, text):
    return Line("verbose", source, text)


def shown(lines, level):
    """(source, text) of the expected lines that a log of this level shows."""
    return [(line.source, line.text) for line in lines if LEVELS.index(line.level) <= LEVELS.index(level)]


class Log:
    """Follows the file that the service writes; texts keep every byte (as surrogates where they are not UTF-8)."""

    def __init__(self, path):
        self.path = path
        self._read = 0
        self._pending = b""
        self._entries = []
        self.preamble = []  # what stands before the first entry

    def entries(self, since=0):
        if self.path.exists():
            with open(self.path, "rb") as file:
                file.seek(self._read)
                data = file.read()
            self._read += len(data)
            *complete, self._pending = (self._pending + data).split(b"\n")
            for line in complete:
                self._take(line.decode(errors="surrogateescape"))
        return self._entries[since:]

    def pairs(self, since=0, only=None, without=None):
        """(source, text) of the entries, of one source only or of all but one."""
        return [(entry.source, entry.text) for entry in self.entries(since)
                if only in (None, entry.source) and entry.source != without]

    def mark(self):
        return len(self.entries())

    def raw(self):
        return self.path.read_bytes()

    def wait_for(self, source, text, since=0, seconds=DEADLINE_SECONDS):
        """Wait for an entry whose whole text matches; the text is a string or a compiled pattern."""
        def found():
            return next((entry for entry in self.entries(since) if entry.source == source and _matches(text, entry)),
                        None)
        return wait_until(found, lambda: f"[{source}] {text}; the log ends in {self.entries()[-5:]}", seconds)

    def count(self, source, text, since=0):
        return sum(entry.source == source and _matches(text, entry) for entry in self.entries(since))

    def _take(self, line):
        match = _ENTRY.fullmatch(line)
        if match:
            self._entries.append(Entry(*match.groups()))
        elif self._entries:  # the message goes on: its text held a line end
            last = self._entries[-1]
            self._entries[-1] = last._replace(text=last.text + "\n" + line)
        else:
            self.preamble.append(line)


def seconds_between(earlier, later):
    """Between two entries, midnight or not."""
    first, second = (datetime.strptime(entry.stamp, "%H:%M:%S.%f") for entry in (earlier, later))
    return (second - first).total_seconds() % 86400


def expect_waited(seconds, earlier, later, margin=MARGIN_SECONDS):
    """This time passed between two entries."""
    waited = seconds_between(earlier, later)
    assert seconds - 0.5 < waited < seconds + margin, f"{waited} s from {earlier} to {later}"


def _matches(text, entry):
    return bool(text.fullmatch(entry.text)) if isinstance(text, re.Pattern) else text == entry.text
