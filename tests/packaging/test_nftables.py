"""packaging/nftables: who may ask the service. Each test has a network namespace of its own, with the real service in
it, run by a user of its own. Needs root. SSO_SERVICE names the service's executable, with sso-client beside it."""

import os
import shutil
import tempfile
from pathlib import Path

import pytest

from support.client_command import Outcome, failure, run, success
from support.device import Device
from support.fake_service import FakeService
from support.framing import frame
from support.http_server import Raw
from support.network import Etc, Network, as_user
from support.world import World

RULES = Path(__file__).resolve().parents[2] / "packaging/nftables/sso-discovery-service.nft"
TABLE = "ip", "sso_discovery_service"
PORT = 5055  # the example's; nobody else is in the namespace
USERS = {"sso-discovery": 61001, "telemetry": 61002, "updater": 61003, "somebody": 61004}
NUMBERS = {"root": 0, **USERS}
LISTED = ("root", "telemetry", "updater")
OTHERS = ("somebody", "sso-discovery")
REFUSED = failure(3, f"cannot connect to port {PORT}: Connection refused")


@pytest.fixture(scope="module")
def public_folder():
    """What is in it can be read by all users; pytest's own folders are the owner's alone."""
    with tempfile.TemporaryDirectory() as name:
        os.chmod(name, 0o755)
        yield Path(name)


@pytest.fixture(scope="module")
def programs(public_folder):
    service = os.environ.get("SSO_SERVICE")
    if not service:
        pytest.fail("SSO_SERVICE is not set: it has to name the sso-discovery-service executable", pytrace=False)
    return [shutil.copy(Path(service).with_name(name), public_folder) for name in (Path(service).name, "sso-client")]


@pytest.fixture(scope="module")
def etc(tmp_path_factory):
    return Etc(tmp_path_factory.mktemp("machine") / "etc", USERS)


@pytest.fixture
def network():
    with Network() as result:
        yield result


@pytest.fixture
def load(network, etc, tmp_path):
    """Load rules as the file has them, or another text."""
    def load_rules(text=None):
        if text is None:
            return etc.run("nft", "--file", RULES)
        (tmp_path / "rules.nft").write_text(text)
        return etc.run("nft", "--file", tmp_path / "rules.nft")
    return load_rules


@pytest.fixture
def ask(programs):
    """Run sso-client as a user."""
    def ask_as(user, *arguments, port=PORT, before=()):
        return run([*as_user(NUMBERS[user]), *before, programs[1], "--port", port, "--timeout", "20", *arguments])
    return ask_as


@pytest.fixture
def service(network, programs, public_folder):
    """Run by its own user, with a cloud in the same namespace."""
    with tempfile.TemporaryDirectory(dir=public_folder) as name:
        os.chmod(name, 0o755)
        world = World(programs[0], Device(name), Path(name))
        try:
            document = world.document(world.new_cloud().discovery_url, ports=[PORT])
            yield world.start(document, wrapper=as_user(USERS["sso-discovery"])).wait_ready()
        finally:
            world.close()


def rules():
    return run(["nft", "list", "ruleset"])


# --- users

@pytest.mark.parametrize("user", NUMBERS)
def test_without_rules_every_user_gets_a_token(service, ask, user):
    assert ask(user, "token", "device") == success("access/1")


def test_listed_users_get_a_token_and_others_are_refused(service, ask, load):
    assert load() == Outcome(0, "", "")
    for user in LISTED:
        assert ask(user, "token", "device") == success("access/1"), user
    for user in OTHERS:
        assert ask(user, "token", "device") == REFUSED, user


def test_taking_the_table_away_lets_the_others_in_again(service, ask, load):
    load()
    assert ask("somebody", "ping") == REFUSED
    assert run(["nft", "delete", "table", *TABLE]) == Outcome(0, "", "")
    assert ask("somebody", "ping") == success("ready")


def test_root_of_a_user_namespace_is_the_user_that_made_it(service, ask, load):
    become_root = ["unshare", "--user", "--map-root-user"]
    assert ask("somebody", "ping", before=become_root) == success("ready")
    load()
    assert ask("somebody", "ping", before=become_root) == REFUSED
    assert ask("telemetry", "ping", before=become_root) == success("ready")


# --- connections

@pytest.fixture
def connect_as(service):
    """A connection whose socket belongs to the user."""
    def connect(user):
        os.seteuid(NUMBERS[user])
        try:
            return service.api.connect()
        finally:
            os.seteuid(0)
    return connect


def test_open_connections_stay_and_new_ones_are_refused(service, load, connect_as):
    with connect_as("somebody") as connection:
        load()
        connection.send_slowly(frame(b'{"request":"certificate_id"}'))
        assert connection.receive_frame() == b'{"status":"ok","certificate_id":"device-0001"}'
        assert not connection.receive_end()
    with pytest.raises(ConnectionRefusedError):
        connect_as("somebody")


def test_long_exchanges_pass(service, load, connect_as):
    load()
    name = "x" * 1000000
    with connect_as("telemetry") as connection:
        connection.send(frame(b'{"request":"%s"}' % name.encode()))
        assert name.encode() in connection.receive_frame()


# --- who answers

@pytest.mark.parametrize("user, heard", [("somebody", False), ("sso-discovery", True)])
def test_only_the_service_is_heard(network, load, programs, user, heard):
    os.seteuid(NUMBERS[user])
    try:
        listener = FakeService(Raw(frame(b'{"status":"ok","certificate_id":"false-1"}')))
    finally:
        os.seteuid(0)
    command = [programs[1], "--port", listener.port, "--timeout", "2", "certificate-id"]
    with listener:
        assert run(command) == success("false-1")
        assert load(RULES.read_text().replace(str(PORT), str(listener.port))) == Outcome(0, "", "")
        assert run(command) == (success("false-1") if heard else failure(
            4, f"timed out: no reply from port {listener.port} within 2 seconds"))


def test_listed_users_learn_at_once_that_the_service_is_not_running(network, ask, load):
    load()
    assert ask("telemetry", "ping") == REFUSED


# --- namespaces

def test_another_network_namespace_does_not_reach_the_service(service, ask):
    assert ask("root", "ping") == success("ready")
    with Network():
        assert ask("root", "ping") == REFUSED
    assert ask("root", "ping") == success("ready")


# --- the file

def test_loading_again_changes_nothing(network, load):
    assert load("table ip other {\n chain output {\n  tcp dport 9 drop\n }\n}\n") == Outcome(0, "", "")
    load()
    before = rules()
    load()
    assert rules() == before
    assert "tcp dport 9 drop" in before.stdout and before.stdout.count("table ip") == 2


def test_unknown_user_fails_and_leaves_what_was_loaded(network, load):
    load()
    before = rules()
    failed = load(RULES.read_text().replace('"updater"', '"nobody-knows"'))
    assert failed.status == 1 and "User does not exist" in failed.stderr
    assert rules() == before and "sso_discovery_service" in before.stdout
