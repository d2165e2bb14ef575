"""The process is killed (SIGKILL) at random instants, and the next start has no network."""

import random
import re
import time
from collections import Counter
from types import SimpleNamespace

from cells import WRITTEN, Cell, files_in, matrix
from machine import judge_all

from support.exchanges import ID_REPLY, ID_REQUEST, expect_answered
from support.http_server import Reply
from support.log import info
from support.texts import BOTH_FAILED, DISCOVERY, READY

KILLS = 30  # of each cell
PADDING = b" " * 1500000  # makes the reply so long that some kills come while the backup file is written
STORED = info(DISCOVERY, "Cloud config data was successfully stored in {backup}")
LOADED = "Cloud config data successfully retrieved from {}"
CLEAR_FAILURE = re.compile("Couldn't retrieve configuration from the backup file: "
                           "(Couldn't open cloud discover backup config file .*| is empty"
                           "|Error processing JSON returned by Discovery Request.Input is not a valid object)")


def in_the_start(gate, _, choose):
    gate.release()
    time.sleep(choose.uniform(0, 0.1))


def after_the_reply(gate, _, choose):
    gate.wait_arrived()
    gate.release()
    time.sleep(choose.uniform(0, 0.03))


def in_the_writing(gate, backup, choose):
    """As soon as the file changes, or a moment later."""
    gate.wait_arrived()
    before = size(backup)
    gate.release()
    end = time.monotonic() + 5
    while size(backup) == before and time.monotonic() < end:
        pass
    time.sleep(choose.choice([0, 0.0002, 0.0005]))


def size(path):
    return path.stat().st_size if path.exists() else None


def killed(fault, instant, keeps=False):
    return Cell(fault, log=(STORED, READY), reply=ID_REPLY.decode(), files=WRITTEN,
                script=SimpleNamespace(instant=instant, keeps=keeps))


@matrix(
    "Killed at random instants, each time started again without the cloud, and at last with it",
    killed("killed in the start", in_the_start, keeps=True),
    killed("killed after the cloud's reply", after_the_reply),
    killed("killed while the first backup is written", in_the_writing),
    killed("killed while the backup is replaced", in_the_writing, keeps=True))
def test_killed_at_random_instants(cell, judge, world, cloud):
    seed = random.randrange(2 ** 32)
    print(f"seed {seed}")
    choose = random.Random(seed)
    folder = world.new_folder("cache")
    backup = folder / "device-0001.cfg"
    document = world.document(cloud.discovery_url, cache_folder=folder)
    found = Counter()
    for _ in range(KILLS):
        if cell.script.keeps:
            backup.write_bytes(cloud.discovery_body())
        else:
            backup.unlink(missing_ok=True)
        kill(world.start, cloud, document, lambda gate: cell.script.instant(gate, backup, choose))
        found[start_without_network(world.start, cloud, document, backup)] += 1
    print(f"what the kills left: {dict(found)}")
    before = files_in(folder)
    cloud.unscript()
    service = world.start(document).wait_ready()
    judge_all(judge, service, service.api.exchange(ID_REQUEST), files=(before, files_in(folder)), backup=backup)


def kill(start, cloud, document, wait_for_instant):
    gate = cloud.hold(cloud.discovery_path, Reply(200, cloud.discovery_body()[:-1] + PADDING + b"}"))
    service = start(document)
    wait_for_instant(gate)
    service.process.kill()
    service.wait_exit()


def start_without_network(start, cloud, document, backup):
    """A whole backup file makes a ready service; anything else is told, and the service tries again."""
    left = backup.read_bytes() if backup.exists() else b""
    cloud.script(cloud.discovery_path, Reply(503))
    service = start(document)
    if left.endswith(b"}"):
        service.wait_ready()
        assert service.log.count(DISCOVERY, LOADED.format(backup)) == 1
        expect_answered(service)
    else:
        assert service.wait_failed() == BOTH_FAILED
        assert service.log.count(DISCOVERY, CLEAR_FAILURE) == 1, service.evidence()
    service.stop()
    return "a whole file" if left.endswith(b"}") else "a cut file" if left else "none or an empty file"
