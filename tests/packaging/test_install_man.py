"""The manual pages of the service, as they are before their paths are set."""

import re
from pathlib import Path

import pytest

from support.client_command import Outcome, run

PROJECT = Path(__file__).resolve().parents[2]
PAGES = PROJECT / "packaging/man"
SERVICE = PAGES / "sso-discovery-service.8"
CONFIGURATION = PAGES / "sso-discovery-service.json.5"


@pytest.fixture(params=[SERVICE, CONFIGURATION], ids=lambda path: path.name)
def page(request):
    return request.param


def formatter(page):
    return run(["groff", "-mandoc", "-Tutf8", "-ww", "-z", page])


def lint(page):
    return run(["mandoc", "-Tlint", "-W", "warning", page])


def test_formatters_have_nothing_to_say(page):
    assert formatter(page) == Outcome(0, "", "")
    assert lint(page) == Outcome(0, "", "")


def test_formatters_would_tell(page, tmp_path):
    broken = tmp_path / page.name
    broken.write_text(page.read_text().replace(".Sh SEE ALSO", ".Nosuch macro\n.Sh SEE ALSO\n.Bl -tag"))
    assert "Nosuch" in formatter(broken).stderr
    assert "Nosuch" in lint(broken).stdout


def test_every_key_has_its_paragraph():
    documented = re.findall(r"^\| \[?`(sso\.[\w.\[\]]+)`", (PROJECT / "docs/configuration.md").read_text(), re.M)
    tags = re.findall(r"^\.It Va (sso\.\S+)$", CONFIGURATION.read_text(), re.M)
    sections = {"sso", "sso.cloud_config", "sso.certificate_provider"}
    assert len(documented) > 15
    assert sorted(tags) == sorted(set(documented) - sections)


def test_levels_and_types_are_the_documented_ones():
    text = (PROJECT / "docs/configuration.md").read_text()
    levels = re.search(r"\| `log_level` \| written \|\n(.*?)\n\| any other", text, re.S).group(1)
    types = re.search(r"\| `type` \| key and certificate come from \|\n(.*?)\n\n", text, re.S).group(1)
    tags = re.findall(r"^\.It Cm (\S+)$", CONFIGURATION.read_text(), re.M)
    assert tags == re.findall(r'^\| `"(.*?)"`', levels + "\n" + types, re.M)


def test_messages_are_those_of_the_service():
    sources = "".join(path.read_text() for path in (PROJECT / "src").rglob("*.cpp"))
    messages = re.findall(r'^\.It "(.*)"$', SERVICE.read_text(), re.M)
    assert len(messages) == 7
    for message in messages:
        assert message.replace("REASON", "%s").replace(" N ", " %g ") in sources
