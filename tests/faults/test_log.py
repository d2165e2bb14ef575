"""The place of the log goes away, fills up, or cannot be written."""

import fcntl
import os
import re
import shutil
import threading
import time

from cells import ENDED, WRITTEN, Cell, files_in, matrix
from machine import judge_all

from support.api_client import hammer
from support.exchanges import ID_REPLY, ID_REQUEST, ID_SENT
from support.log import Log
from support.small_disk import SmallDisk
from support.texts import READY
from support.waiting import DEADLINE_SECONDS, wait_until

BIG_REQUEST = b'{"request":"%s"}' % (b"x" * 20000)


def fill(folder):
    """Leaves no room on the disk."""
    with open(folder / "filler", "wb", buffering=0) as file:
        try:
            while True:
                file.write(b"x" * 512)
        except OSError:
            pass


@matrix(
    "The log's folder",
    Cell("log folder removed while running", log=(ID_SENT,), reply=ID_REPLY.decode()))
def test_log_folder_is_removed_while_running(cell, judge, world, cloud):
    folder = world.new_folder("logs")
    service = world.start(world.document(cloud.discovery_url, log_path=folder / "sso"))
    file = wait_until(lambda: next(folder.glob("sso-*.log"), None), "a log file")
    service.log = Log(file)
    service.wait_ready()
    shutil.rmtree(folder)
    service.log = Log(opened_as(service, file))
    since = service.log.mark()
    judge_all(judge, service, service.api.exchange(ID_REQUEST), since, ({}, files_in(folder)))


def opened_as(service, file):
    """The file, which has no name any more, as one of the descriptors of the process."""
    names = [f"/proc/{service.process.pid}/fd/{number}" for number in service.open_descriptors()]
    return type(file)(next(name for name in names if os.readlink(name) == f"{file} (deleted)"))


@matrix(
    "The log's folder at the start",
    Cell("log folder missing at the start", log=(READY, ID_SENT), reply=ID_REPLY.decode()),
    Cell("log folder read-only at the start", log=(READY, ID_SENT), reply=ID_REPLY.decode(), script=os.strerror(30)))
def test_log_goes_to_standard_output_when_its_file_cannot_be_made(cell, judge, world, cloud):
    disk = SmallDisk(world.new_folder("disk"), read_only=True)
    folder, reason = (disk.folder, cell.script) if cell.script else (world.folder / "missing", os.strerror(2))
    service = world.start(world.document(cloud.discovery_url, log_path=folder / "sso"), wrapper=disk.wrapper)
    service.expected_stderr = re.compile(
        rf"Attempted to create log {folder}/sso-[-0-9]+\.log\n Cannot open log file, using stdout instead : {reason}\n")
    service.wait_ready()
    judge_all(judge, service, service.api.exchange(ID_REQUEST), files=({}, files_in(folder)))


@matrix(
    "The log's disk",
    Cell("log disk full for a while", log=(ID_SENT,), reply=ID_REPLY.decode(), files=WRITTEN))
def test_log_loses_lines_while_its_disk_is_full(cell, judge, world, cloud):
    disk = SmallDisk(world.new_folder("disk"))
    service = world.start(world.document(cloud.discovery_url, log_path=disk.folder / "sso"), wrapper=disk.wrapper)
    service.wait_listening()
    folder = disk.seen_through(service)
    service.log = Log(next(folder.glob("sso-*.log")))
    service.wait_ready()
    fill(folder)
    service.api.exchange(BIG_REQUEST)  # the rest of the last page
    before = files_in(folder)
    for _ in range(50):
        assert service.api.exchange(ID_REQUEST) == ID_REPLY
    assert files_in(folder) == before, "the lines are lost, and nothing else"
    (folder / "filler").unlink()
    since = service.log.mark()
    service.api.exchange(ID_REQUEST)  # its first line ends the one that was cut off
    reply = service.api.exchange(ID_REQUEST)
    judge_all(judge, service, reply, since, (before, files_in(folder)))


@matrix(
    "Standard output",
    *(Cell(fault, reply=ID_REPLY.decode(), script=script) for fault, script in (
        ("standard output is a full device", 'exec "$@" >/dev/full'),
        ("standard output is closed", 'exec "$@" >&-'),
        ("standard output is a pipe that nobody reads any more", 'exec "$@" > >(:)'))))
def test_log_has_no_place(cell, judge, world, cloud):
    service = world.start(world.document(cloud.discovery_url), wrapper=["bash", "-c", cell.script, "bash"])
    service.wait_listening()
    wait_until(lambda: service.api.request("certificate_id")["status"] == "ok", service.evidence)
    for _ in range(50):
        assert service.api.exchange(ID_REQUEST) == ID_REPLY
    judge_all(judge, service, service.api.exchange(ID_REQUEST))
    assert service.stdout_path.read_bytes() == b""


def emptied(pipe):
    """What is in the pipe now."""
    pieces = []
    try:
        while piece := os.read(pipe, 65536):
            pieces.append(piece)
    except BlockingIOError:
        pass  # that was all
    return b"".join(pieces)


@matrix(
    "Standard output",
    Cell("standard output is a full pipe that nobody empties", reply=ID_REPLY.decode()))
def test_log_pipe_is_full(cell, judge, world, cloud):
    path = world.new_folder("pipe") / "stdout"
    os.mkfifo(path)
    pipe = os.open(path, os.O_RDONLY | os.O_NONBLOCK)
    try:
        service = world.start(world.document(cloud.discovery_url),
                              wrapper=["bash", "-c", f'exec "$@" >{path}', "bash"])
        service.wait_listening()
        wait_until(lambda: service.api.request("certificate_id")["status"] == "ok", service.evidence)
        for _ in range(3):  # 60 kB of log each, so that one of them meets a full pipe
            service.api.exchange(BIG_REQUEST)
        begin = time.monotonic()
        for _ in range(50):
            assert service.api.exchange(ID_REQUEST) == ID_REPLY
        assert time.monotonic() - begin < 5, "only one line is waited for, five seconds, and that is over"
        emptied(pipe)
        service.api.exchange(ID_REQUEST)
        assert re.search(rb"^LOG LOST \d+ lines$", emptied(pipe), re.M)
        judge_all(judge, service, service.api.exchange(ID_REQUEST))
    finally:
        os.close(pipe)


def read(pipe, slowly, over):
    """Everything; slowly: just fast enough for each line to be written in the end."""
    while os.read(pipe, 4096) and not over.wait(4 if slowly.is_set() else 0):
        pass


@matrix(
    "Standard output",
    Cell("standard output is a pipe with a slow reader, and the service is to stop", state=ENDED))
def test_stop_with_a_slow_reader_of_the_log(cell, judge, world, cloud):
    path = world.new_folder("pipe") / "stdout"
    os.mkfifo(path)
    document = world.document(cloud.discovery_url, ports=[world.new_port() for _ in range(8)])
    service = world.start(document, wrapper=["bash", "-c", f'exec "$@" >{path}', "bash"])
    pipe = os.open(path, os.O_RDONLY)
    fcntl.fcntl(pipe, fcntl.F_SETPIPE_SZ, 4096)
    slowly, over = threading.Event(), threading.Event()
    threads = [threading.Thread(target=hammer, args=(each["port"], ["x" * 4000], over))
               for each in service.section["api_providers"]]
    threads.append(threading.Thread(target=read, args=(pipe, slowly, over)))
    for thread in threads:
        thread.start()
    try:
        service.wait_listening()
        wait_until(lambda: service.api.request("certificate_id")["status"] == "ok", service.evidence)
        slowly.set()
        time.sleep(1)  # until all of them wait for the reader
        service.send_signal()
        service.wait_exit(DEADLINE_SECONDS)
    finally:
        over.set()
        for thread in threads:
            thread.join()
        os.close(pipe)
    judge_all(judge, service)


@matrix(
    "The log's size limit",
    Cell("log file at the size limit of the process", log=(READY,), reply=ID_REPLY.decode(), files=WRITTEN))
def test_log_reaches_the_size_limit(cell, judge, world, cloud):
    limit = 20000
    service = world.start(world.document(cloud.discovery_url), wrapper=["prlimit", f"--fsize={limit}"]).wait_ready()
    service.api.exchange(BIG_REQUEST)
    for _ in range(50):
        assert service.api.exchange(ID_REQUEST) == ID_REPLY
    written = service.log.raw()
    assert len(written) == limit
    judge_all(judge, service, service.api.exchange(ID_REQUEST), files=({}, {"log": written}))
