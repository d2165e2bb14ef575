"""What surrounds sso-client in a shell: the completion of its command line in bash, and its manual page."""

import os
import pty
import re
import select
import subprocess
import time

import pytest

from support.client_command import Outcome, client_environment, run
from support.client_package import CLIENT, must
from support.fake_service import FakeService
from support.framing import frame
from support.http_server import Raw
from support.waiting import DEADLINE_SECONDS

COMPLETION = CLIENT / "completion" / "sso-client"
PAGE = CLIENT / "man" / "sso-client.1"

REQUESTS = ["certificate-id", "data", "ping", "reset", "token"]
OPTIONS = ["--config", "--help", "--json", "--port", "--timeout", "--version"]

# What bash does on a tab: it calls the function that is registered, with the words in COMP_WORDS.
ON_TAB = r"""
cd "$1" && source "$2" || exit
[[ $(complete -p sso-client) =~ ^complete\ -F\ ([^ ]+)\ sso-client$ ]] || exit
COMP_WORDS=("${@:3}") COMP_CWORD=$(($# - 3)) COMP_LINE="${*:3}" COMP_POINT=${#COMP_LINE}
"${BASH_REMATCH[1]}" sso-client "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}" || exit
[ ${#COMPREPLY[@]} -eq 0 ] || printf '%s\n' "${COMPREPLY[@]}"
"""


@pytest.fixture
def folder(tmp_path):
    """With files that a completion may offer."""
    for name in ("alpha.json", "alphabet.json", "two words.json", "token"):
        (tmp_path / name).write_text("")
    (tmp_path / "etc").mkdir()
    return tmp_path


FILES = ["alpha.json", "alphabet.json", "etc", "token", "two words.json"]


@pytest.mark.parametrize("words, offered", [
    ([""], REQUESTS), (["t"], ["token"]), (["re"], ["reset"]), (["token"], ["token"]), (["x"], []), (["Token"], []),
    (["certificate-"], ["certificate-id"]), (["alpha"], []),
    (["-"], OPTIONS), (["--"], OPTIONS), (["--p"], ["--port"]), (["--json"], ["--json"]), (["--x"], []),
    (["--config", ""], FILES), (["--config", "al"], FILES[:2]), (["--config", "two"], FILES[4:]),
    (["--config", "e"], ["etc"]), (["--config", "x"], []), (["--config", "-"], []),
    (["data", "--config", "al"], FILES[:2]),
    (["--config", "=", ""], FILES), (["--config", "="], FILES), (["--config", "=", "al"], FILES[:2]),
    (["--port", ""], []), (["--port", "t"], []), (["--port", "=", ""], []), (["--port", "-"], []),
    (["--timeout", ""], []), (["--timeout", "="], []), (["token", "--timeout", "t"], []),
    (["--port", "5055", ""], REQUESTS), (["--port", "=", "5055", "p"], ["ping"]), (["--json", "d"], ["data"]),
    (["--config", "alpha.json", ""], REQUESTS), (["--config", "token", ""], REQUESTS),
    (["--config", "--json", "t"], ["token"]),
    (["token", ""], []), (["token", "t"], []), (["token", "a", ""], []), (["token", "a", "r"], []),
    (["data", ""], []), (["data", "t"], []), (["--port", "5055", "reset", ""], []),
    (["token", "--"], OPTIONS), (["data", "--j"], ["--json"]), (["token", "a", "--t"], ["--timeout"]),
], ids=lambda value: " ".join(value) + "|")
def test_completion(folder, words, offered):
    outcome = run(["bash", "--norc", "--noprofile", "-c", ON_TAB, "bash", folder, COMPLETION, "sso-client", *words])
    assert (outcome.status, outcome.stderr) == (0, "")
    assert sorted(outcome.stdout.splitlines()) == offered


def test_completion_offers_what_the_command_takes(client):
    text = client.run("--help").stdout
    assert sorted(re.findall(r"^  (--[a-z]+)", text, re.M)) == OPTIONS
    assert sorted(re.findall(r"^  ([a-z-]+) ", text.partition("options:")[0], re.M)) == REQUESTS


class InteractiveBash:
    """A bash on a terminal, typed into."""

    def __init__(self, folder):
        self._terminal, inner = pty.openpty()
        environment = client_environment(TERM="dumb", INPUTRC="/dev/null", PS1="", HISTFILE="/dev/null")
        self._process = subprocess.Popen(["bash", "--norc", "--noprofile", "-i"], cwd=folder, env=environment,
                                         stdin=inner, stdout=inner, stderr=inner, start_new_session=True)
        os.close(inner)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._process.kill()
        self._process.wait()
        os.close(self._terminal)

    def type(self, text, until):
        """Type, and read until the pattern shows."""
        os.write(self._terminal, text.encode())
        shown, end = "", time.monotonic() + DEADLINE_SECONDS
        while not (found := re.search(until, shown)):
            assert select.select([self._terminal], [], [], max(0, end - time.monotonic()))[0], f"in vain: {shown!r}"
            shown += os.read(self._terminal, 4096).decode(errors="replace")
        return found


@pytest.mark.parametrize("typed, words", [
    ("cert\t", "<certificate-id>"), ("--j\tpi\t", "<--json><ping>"),
    ("--config two\tda\t", "<--config><two words.json><data>"),
    ("--config=alphab\tping --ti\t1", "<--config=alphabet.json><ping><--timeout><1>"),
    ("--config e\t", "<--config><etc/>"), ("token \ttel", "<token><tel>"),
], ids=repr)
def test_completion_on_a_terminal(folder, typed, words):
    with InteractiveBash(folder) as bash:
        bash.type("sso-client() { printf '[%d]' $#; printf '<%s>' \"$@\"; }\n", "")
        bash.type(f"source {COMPLETION} && echo rea''dy\n", "ready")
        assert bash.type(f"sso-client {typed}\n", r"\[\d\](<.*>)").group(1) == words


# --- the manual page

@pytest.fixture(scope="module")
def page():
    """The page as text, with its line breaks undone."""
    text = must("groff", "-mandoc", "-Tascii", "-ww", "-rHY=0", "-rLL=200n", "-P-cbou", PAGE)
    return re.sub(r"\s+", " ", text)


def test_page_has_no_faults():
    assert run(["groff", "-mandoc", "-Tutf8", "-ww", "-z", PAGE]) == Outcome(0, "", "")


def test_page_fault_would_show(tmp_path):
    broken = tmp_path / "broken.1"
    broken.write_text(PAGE.read_text() + ".Nosuch macro\n")
    assert "Nosuch" in run(["groff", "-mandoc", "-Tutf8", "-ww", "-z", broken]).stderr


@pytest.mark.parametrize("item, names", [
    (r"Cm (\S+)(?: Ar \w+)?", REQUESTS), (r"Fl -([a-z]+)(?: Ar \w+)?", OPTIONS), (r"Ev (\S+)", ["SSO_PORT"])])
def test_page_has_an_entry_for_everything(item, names):
    entries = re.findall(rf"^\.It {item}$", PAGE.read_text(), re.M)
    assert sorted(set(entries)) == [name.removeprefix("--") for name in names]


def test_page_explains_every_exit_status(client, page):
    listed = client.run("--help").stdout.partition("exit status:\n")[2]
    statuses = re.findall(r"(?:^|, |,\n)\s*(\d) \w", listed)
    section = page.partition("EXIT STATUS")[2].partition("EXAMPLES")[0]
    assert re.findall(r"(?:^| )(\d) [A-Z]", section) == statuses


def test_page_and_command_agree_about_ranges(client, page):
    for option in ("--port", "--timeout"):
        lowest, highest = re.search(r"\((\S+) to (\S+)\)", client.run(option, "0", "ping").stderr).groups()
        assert f"{lowest} to {highest}" in page
    longest = re.search(r"longer than (\d+) bytes", client.run("token", "a" * 100000).stderr).group(1)
    assert f"1 to {longest} bytes" in page
    default = re.search(r"--timeout SECONDS.*\((\d+)\)", client.run("--help").stdout).group(1)
    assert f"Without it, {default}." in page


@pytest.mark.parametrize("answer", [
    Raw(), Raw(frame(b"")), Raw(ending="hold"), Raw(frame(b'{"status":"error","message":"MESSAGE"}'))],
    ids=["closed", "malformed", "silent", "refused"])
def test_page_has_the_messages_of_the_exchange(client, page, answer):
    with FakeService(answer) as fake:
        for request in ("data", "ping"):
            expect_message(page, client.ask(fake.port, request, "--timeout", "0.3").stderr, fake.port)


def test_page_has_the_message_about_no_connection(client, page, world):
    port = world.new_port()
    expect_message(page, client.ask(port, "ping").stderr, port)


def expect_message(page, stderr, port):
    message = stderr.removeprefix("sso-client: ").strip()
    assert message
    assert message.replace(f"port {port}", "port N").replace("0.3 seconds", "SECONDS seconds").replace(
        "N: Connection refused", "N: REASON") in page
