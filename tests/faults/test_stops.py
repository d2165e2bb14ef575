"""Stop signals at random instants, from the first log line on, with clients that never pause."""

import random
import threading
import time

from cells import ENDED, Cell, matrix
from machine import judge_all

from support.api_client import hammer
from support.fake_cloud import TOKEN_PATH, WELL_KNOWN_PATH
from support.http_server import Reply
from support.texts import MANAGER, STOPPED
from support.waiting import MARGIN_SECONDS

STOPS = 75  # of each cell
REQUESTS = ['{"request":"token","scope":"a"}', '{"request":"data"}', '{"request":"certificate_id"}', "{",
            '{"request":"token","scope":"b"}']


def tokens_from_memory(_):
    return REQUESTS


def tokens_renewed_each_time(cloud):
    cloud.expires_in = 20
    return REQUESTS


def resets(_):
    return [*REQUESTS, '{"request":"reset"}']


def failing_cloud(cloud):
    cloud.script(WELL_KNOWN_PATH, Reply(500), None, Reply(200, b"{"))
    cloud.script(TOKEN_PATH, Reply(401))
    return REQUESTS


@matrix(
    "Stopped at a random instant under load",
    *(Cell(fault, log=(*STOPPED,), state=ENDED, script=load) for fault, load in (
        ("tokens from memory", tokens_from_memory), ("tokens renewed each time", tokens_renewed_each_time),
        ("clients that reset", resets), ("identity provider that fails", failing_cloud))))
def test_stops_at_random_instants(cell, judge, world, cloud):
    seed = random.randrange(2 ** 32)
    print(f"seed {seed}")
    choose = random.Random(seed)
    requests = cell.script(cloud)
    document = world.document(cloud.discovery_url, ports=[world.new_port(), world.new_port()], level="info")
    for _ in range(STOPS):
        service = stopped_under_load(world, document, requests, choose.uniform(0, 0.15))
        service.expect_exit(0)
    judge_all(judge, service)


def stopped_under_load(world, document, requests, seconds):
    service = world.start(document)
    over = threading.Event()
    clients = [threading.Thread(target=hammer, args=(each["port"], requests, over))
               for each in document["sso"]["api_providers"]]
    service.log.wait_for(MANAGER, "CLOUD_ENV: ")  # stop signals are taken from here on
    for client in clients:
        client.start()
    time.sleep(seconds)
    service.send_signal()
    try:
        service.wait_exit(MARGIN_SECONDS)
    finally:
        over.set()
        for client in clients:
            client.join()
    return service
