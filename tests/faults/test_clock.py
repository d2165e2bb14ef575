"""The device's clock is set while tokens are cached, while the cloud is asked, and while an attempt is waited for."""

import time

import pytest
from cells import Cell, matrix
from machine import judge_all

from support.exchanges import ID_REPLY, ID_REQUEST, token_request
from support.fake_cloud import TOKEN_PATH
from support.faked_clock import FakedClock
from support.framing import frame
from support.http_server import Reply
from support.texts import MANAGER, asking_token, expires, retrying, token_answer, token_sent, without_cache
from support.waiting import MARGIN_SECONDS

HOURS = 3600
NOW = int(time.time())
IN_1970 = 1000
PAST_2038 = 2 ** 31 + 365 * 24 * HOURS
END_OF_32_BITS = 2 ** 31

FIRST, SECOND = (r'{"status":"ok","token":"access\/%d"}' % number for number in (1, 2))
SECOND_ANSWER = '{"access_token": "access/2", "token_type": "Bearer", "expires_in": 3600}'


def kept(fault, before, after):
    """The token that was got before is given again: by the clock, as 32 bits show it, it has not expired."""
    return Cell(fault, log=(token_sent(FIRST),), reply=FIRST, script=(before, after))


def renewed(fault, before, after):
    return Cell(fault, log=(*asking_token("device"), *token_answer(200, SECOND_ANSWER), expires(3600),
                            token_sent(SECOND)), reply=SECOND, script=(before, after))


@matrix(
    "Clock set while a token for an hour is cached",
    kept("set back by three hours", NOW, NOW - 3 * HOURS),
    kept("set forward by half an hour", NOW, NOW + HOURS // 2),
    renewed("set forward to the token's last ten seconds", NOW, NOW + HOURS - 10),
    renewed("set forward by three hours", NOW, NOW + 3 * HOURS),
    kept("set back to 1970", NOW, IN_1970),
    renewed("set forward past 2038", NOW, PAST_2038),
    kept("set from past 2038 to today", PAST_2038, NOW),
    renewed("set from 1970 to today", IN_1970, NOW),
    kept("running into 2038, the end of 32 bits", END_OF_32_BITS - 60, END_OF_32_BITS + 60),
    # More than 68 years are, in 32 bits, less than 68 years in the other direction.
    kept("set from 1970 past 2038", IN_1970, PAST_2038),
    renewed("set from past 2038 to 1970", PAST_2038, IN_1970))
def test_clock_is_set_while_a_token_is_cached(cell, judge, world, cloud):
    before, after = cell.script
    clock = FakedClock(world.folder, before)
    cloud.now = clock.now
    service = world.start_ready(cloud, environment=clock.environment)
    assert service.api.token_text() == "access/1"
    assert service.api.token_text() == "access/1"
    clock.set(after)
    since = service.log.mark()
    reply = service.api.exchange(token_request())
    assert service.api.exchange(token_request()) == reply, "by the new clock, the token lasts"
    judge_all(judge, service, reply, since)


@matrix(
    "Clock set while the token endpoint is asked",
    Cell("set forward in the transfer", log=(token_sent(FIRST),), reply=FIRST, script=3 * HOURS),
    Cell("set back in the transfer", log=(token_sent(FIRST),), reply=FIRST, script=-3 * HOURS))
def test_clock_is_set_while_a_token_is_requested(cell, judge, world, cloud):
    """The limit of the transfer goes by another clock, and the token lasts by the new time."""
    clock = FakedClock(world.folder, NOW)
    cloud.now = clock.now
    service = world.start_ready(cloud, environment=clock.environment)
    gate = cloud.hold(TOKEN_PATH)
    with service.api.connect() as connection:
        connection.send(frame(token_request().encode()))
        gate.wait_arrived()
        clock.set(NOW + cell.script)
        gate.release()
        reply = connection.receive_frame()
    assert service.api.token_text() == "access/1"
    judge_all(judge, service, reply)


@pytest.mark.slow
@matrix(
    "Clock set while the next attempt is waited for",
    *(Cell(fault, log=(retrying("{reason}"),), reply=ID_REPLY.decode(), script=change)
      for fault, change in (("set forward in the wait", 3 * HOURS), ("set back in the wait", -3 * HOURS))))
def test_clock_is_set_in_the_wait_for_the_next_attempt(cell, judge, world, cloud):
    cloud.script(cloud.discovery_path, Reply(503), None)
    clock = FakedClock(world.folder, NOW)
    cloud.now = clock.now
    service = world.start(world.document(cloud.discovery_url), environment=clock.environment)
    service.wait_failed()
    failed = time.monotonic()
    clock.set(NOW + cell.script)
    service.log.wait_for(MANAGER, "Cloud config successfully retrieved. Creating SsoClient", seconds=45)
    assert 29 < time.monotonic() - failed < 30 + MARGIN_SECONDS
    reason = without_cache(f"Couldn't retrieve discovery data from {cloud.discovery_url}. Curl returned: 503")
    judge_all(judge, service, service.api.exchange(ID_REQUEST), reason=reason)
