"""packaging/systemd/restart-pause with a clock and a sleep of the test's own: it finds them as `cat` and `sleep`."""

import os
import signal
import subprocess
from pathlib import Path

import pytest

from support.waiting import DEADLINE_SECONDS, wait_until

HELPER = Path(__file__).resolve().parents[2] / "packaging/systemd/restart-pause"
# Seconds since boot at the start of a process are the field 22 of its stat file, in hundredths.
CAT = """#!/bin/sh
[ "$1" = /proc/self/stat ] || exec /bin/cat "$@"
[ -n "$NOW" ] || exit 1
echo "7 (cat) R 6 7 7 0 -1 4194304 84 0 0 0 0 0 0 0 20 0 1 0 ${NOW}42 2650112 200"
"""
SLEEP = """#!/bin/sh
echo "$1" >>"$SLEPT"
"""


class Unit:
    """Calls the helper as systemd does, in the same runtime folder."""

    def __init__(self, folder):
        self.runtime = folder / "runtime"
        self.runtime.mkdir()
        self.slept = folder / "slept"
        self.programs = folder / "programs"
        self.programs.mkdir()
        for name, text in (("cat", CAT), ("sleep", SLEEP)):
            (self.programs / name).write_text(text)
            (self.programs / name).chmod(0o755)
        self.now = 1000
        self.command = [HELPER]

    def call(self, action, **environment):
        self.slept.write_text("")
        return subprocess.run(
            [*self.command, action], timeout=DEADLINE_SECONDS, capture_output=True, text=True, check=False, env={
                "PATH": f"{self.programs}:{os.environ['PATH']}", "RUNTIME_DIRECTORY": str(self.runtime),
                "SLEPT": str(self.slept), "NOW": str(self.now), **environment})

    def start(self, **environment):
        """Starts the service; the seconds that were waited before."""
        result = self.call("wait", **environment)
        slept = [int(line) for line in self.slept.read_text().split()]
        assert (result.returncode, result.stderr) == (0, "")
        assert result.stdout == "".join(f"The service failed, and is started again in {n} s\n" for n in slept)
        assert len(slept) < 2
        return slept[0] if slept else 0

    def end(self, result="exit-code", after=0, **environment):
        if after:
            self.now += after
        ended = self.call("record", SERVICE_RESULT=result, **environment)
        assert (ended.returncode, ended.stdout, ended.stderr) == (0, "", "")


@pytest.fixture
def unit(tmp_path):
    return Unit(tmp_path)


def pauses(unit, count):
    result = []
    for _ in range(count):
        result.append(unit.start())
        unit.end()
    return result


def test_first_start_is_at_once(unit):
    assert unit.start() == 0


def test_pause_doubles_up_to_five_minutes(unit):
    assert pauses(unit, 13) == [0, 1, 2, 4, 8, 16, 32, 64, 128, 256, 300, 300, 300]


@pytest.mark.parametrize("failure", ["exit-code", "signal", "core-dump", "oom-kill", "timeout", "resources"])
def test_every_failure_counts(unit, failure):
    pauses(unit, 2)
    unit.end(failure)
    assert unit.start() == 4


def test_success_starts_a_new_row(unit):
    pauses(unit, 4)
    unit.end("success")
    assert pauses(unit, 3) == [0, 1, 2]


@pytest.mark.parametrize("run, pause", [(599, 16), (600, 1), (100000, 1)])
def test_run_of_ten_minutes_starts_a_new_row(unit, run, pause):
    pauses(unit, 4)
    unit.start()
    unit.end(after=run)
    assert unit.start() == pause


def test_the_pause_itself_is_no_run(unit):
    """The service was never started: it was stopped from outside while the helper waited."""
    pauses(unit, 3)
    (unit.programs / "sleep").write_text("#!/bin/sh\nkill -KILL $PPID\n")
    unit.call("wait")
    unit.end(after=1000)
    (unit.programs / "sleep").write_text(SLEEP)
    assert unit.start() == 8


def test_uptime_of_years(unit):
    """Beyond what 32 bits hold of hundredths."""
    unit.now = 10 ** 8
    assert pauses(unit, 3) == [0, 1, 2]
    unit.start()
    unit.end(after=600)
    assert unit.start() == 1


def test_without_a_clock_every_failure_belongs_to_the_row(unit):
    unit.now = ""
    assert pauses(unit, 4) == [0, 1, 2, 4]


@pytest.mark.parametrize("content", ["", "x", "-1", "08", "1 2", "9999999999", "99999999999999999999", "$(touch x)"])
def test_damaged_record_is_overlooked(unit, content):
    (unit.runtime / "failures").write_text(content)
    assert unit.start() == 0
    (unit.runtime / "started").write_text(content)
    unit.end()
    assert unit.start() == 1
    assert sorted(os.listdir(unit.runtime)) == ["failures", "started"]


@pytest.mark.parametrize("runtime", ["/nonexistent/folder", "/proc", "", "/dev/full"])
def test_folder_that_cannot_be_used_is_no_failure(unit, runtime):
    for _ in range(3):
        assert unit.start(RUNTIME_DIRECTORY=runtime) == 0
        unit.end(RUNTIME_DIRECTORY=runtime)


@pytest.mark.parametrize("name", ["failures", "started"])
@pytest.mark.parametrize("make", [os.mkfifo, os.mkdir, lambda path: os.symlink("/dev/zero", path)],
                         ids=["pipe", "folder", "endless device"])
def test_record_that_is_no_file_holds_nothing_up(unit, name, make):
    pauses(unit, 2)
    (unit.runtime / name).unlink(missing_ok=True)
    make(unit.runtime / name)
    assert unit.start() == (0 if name == "failures" else 2)
    unit.end()
    assert unit.start() <= 4


def test_full_folder_is_no_failure(unit):
    """Nothing can be written; what was on record is lost."""
    pauses(unit, 3)
    script = 'ulimit -f 0; trap "" XFSZ; exec "$@"'
    unit.command = ["sh", "-c", script, "sh", HELPER]
    unit.end()
    assert (unit.runtime / "failures").read_text() == ""
    assert pauses(unit, 2) == [0, 0]


def test_stop_ends_the_pause(unit):
    """systemd sends the signal to all processes of the unit."""
    pauses(unit, 3)
    (unit.programs / "sleep").write_text('#!/bin/sh\necho >>"$SLEPT"\nexec /bin/sleep 100\n')
    unit.slept.write_text("")
    process = subprocess.Popen([HELPER, "wait"], start_new_session=True, stdout=subprocess.DEVNULL, env={
        "PATH": f"{unit.programs}:{os.environ['PATH']}", "RUNTIME_DIRECTORY": str(unit.runtime),
        "SLEPT": str(unit.slept), "NOW": str(unit.now)})
    try:
        wait_until(unit.slept.read_text, "the pause")
        os.killpg(process.pid, signal.SIGTERM)
        assert process.wait(DEADLINE_SECONDS) == 0
    finally:
        if process.poll() is None:
            os.killpg(process.pid, signal.SIGKILL)
            process.wait()


def test_clock_of_this_machine(unit):
    """The real one: the seconds that the kernel says."""
    (unit.programs / "cat").unlink()
    before = float(Path("/proc/uptime").read_text().split()[0])
    unit.start()
    after = float(Path("/proc/uptime").read_text().split()[0])
    assert int(before) - 1 <= int((unit.runtime / "started").read_text()) <= after
