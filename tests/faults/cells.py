"""The cells of the fault matrix. What a cell expects is written down once, as data: the test compares it with what
happens, and docs/reliability.md shows it (see table.py)."""

import re
from dataclasses import dataclass

import pytest

from support.exchanges import ID_REPLY
from support.log import Line
from support.service import RETRY
from support.waiting import DEADLINE_SECONDS

READY = "ready"  # the certificate id is given
STARTING = "not ready yet"  # requests are refused, and no attempt has failed
RETRYING = "tries again"  # requests are refused, and the log announces the next attempt
ENDED = "ended"  # the process is gone

NOTHING = "none"  # no file there before, none after
UNCHANGED = "unchanged"  # what was there is still there, byte for byte
WRITTEN = "written"  # there are new or other files


@dataclass(frozen=True)
class Cell:
    fault: str  # names the test too
    log: tuple = ()  # of Line, in this order, perhaps with others between; a text may hold {names} of values
    reply: str = None  # what the local client gets, with {names} too; None: there is no client
    state: str = READY
    files: str = NOTHING  # in the folder that the fault is about: the backup's, or the log's
    status: int = 0  # of the exit: after a stop signal, unless the state is ENDED
    script: object = None  # whatever the test needs to bring the fault about; not shown

    @property
    def name(self):
        return self.fault.replace(" ", "-")


TABLES = {}  # title -> the cells, in the order in which they were declared


def matrix(title, *rows):
    """Runs the test once for each cell, under its name, and puts the cells into the table of this title."""
    table = TABLES.setdefault(title, [])
    taken = {cell.fault for cell in table}
    for cell in rows:
        assert cell.fault not in taken, f"{title}: two cells {cell.fault}"
        taken.add(cell.fault)
        table.append(cell)
    return pytest.mark.parametrize("cell", [pytest.param(row, id=row.name) for row in rows])


class Judge:
    """Compares what is seen with what one cell says. A test has to give it every column."""

    def __init__(self, cell):
        self._cell = cell
        self._open = {"log", "reply", "state", "files", "status"}

    def log(self, service, since=0, patience=DEADLINE_SECONDS, **values):
        """Waits for the lines, one after the other, and returns their entries."""
        found = []
        for line in self._cell.log:
            pattern = re.compile(_filled(line.text, values), re.S)
            entry = service.log.wait_for(line.source, pattern, since, patience)
            since = service.log.entries().index(entry, since) + 1
            found.append(entry)
        self._done("log")
        return found

    def reply(self, reply, **values):
        """The reply is bytes or, when there is no client, None."""
        if self._cell.reply is None:
            assert reply is None
        else:
            pattern = re.compile(_filled(self._cell.reply, values), re.S)
            assert pattern.fullmatch(reply.decode(errors="surrogateescape")), f"{reply} does not match {pattern}"
        self._done("reply")

    def state(self, service):
        state = self._cell.state
        if state == ENDED:
            service.wait_exit()
        elif state == READY:
            assert service.api.exchange(b'{"request":"certificate_id"}') == ID_REPLY, service.evidence()
        else:
            failed = any(RETRY.fullmatch(entry.text) for entry in service.log.entries())
            assert state == (RETRYING if failed else STARTING), service.evidence()
            refused = service.api.request("certificate_id")["message"]
            assert refused.startswith("Cloud discovery failed. System is not initialized"), refused
        self._done("state")

    def files(self, before, after):
        """Both are what files_in gave."""
        expected = {NOTHING: before == after == {}, UNCHANGED: before == after != {}, WRITTEN: before != after}
        assert expected[self._cell.files], (before.keys(), after.keys())
        self._done("files")

    def status(self, service):
        """Ends the service, unless it has ended by itself."""
        if self._cell.state != ENDED:
            service.send_signal()
        service.expect_exit(self._cell.status)
        self._done("status")

    def finish(self):
        assert not self._open, f"the test left out: {', '.join(sorted(self._open))}"

    def _done(self, column):
        self._open.discard(column)


def files_in(folder):
    """What lies in a folder, by name; empty when there is no such folder."""
    return {path.name: path.read_bytes() for path in folder.iterdir()} if folder.is_dir() else {}


def shown(line: Line):
    return f"{line.level}: {line.text}"


def _filled(text, values):
    """A pattern in which every {name} stands for the value: a text, or a compiled pattern."""
    def value(match):
        given = values[match.group(1)]
        return given.pattern if isinstance(given, re.Pattern) else re.escape(str(given))
    parts = re.split(r"\{([a-z_]+)\}", text)
    return "".join(re.escape(part) if index % 2 == 0 else value(re.match("(.*)", part))
                   for index, part in enumerate(parts))
