"""The backup file is damaged, or its disk is full, read-only or not there; with the cloud and without it."""

from types import SimpleNamespace

from cells import NOTHING, RETRYING, UNCHANGED, WRITTEN, Cell, matrix
from machine import judge_all

from support.exchanges import ID_REPLY, ID_REQUEST
from support.http_server import Reply
from support.log import error, info
from support.small_disk import SmallDisk
from support.texts import BOTH_FAILED, DISCOVERY, READY, discovery_status, retrying

NAME = "device-0001.cfg"
STORED = info(DISCOVERY, "Cloud config data was successfully stored in {backup}")
LOADED = info(DISCOVERY, "Cloud config data successfully retrieved from {backup}")
NO_FILE = "Couldn't open cloud discover backup config file {backup}"
EMPTY = " is empty"
NOT_JSON = "Error processing JSON returned by Discovery Request.Input is not a valid object"
NOT_DECRYPTED = "Decrypting Discovery data: RSA_private_decrypt() FAILED"
DIRECTORY = object()


def good(body):
    return body


def damaged(body):
    """One character of the ciphertext is another one."""
    middle = len(body) // 2
    return body[:middle] + (b"B" if body[middle:middle + 1] == b"A" else b"A") + body[middle + 1:]


def cut_off(body):
    return body[:200]


def longer(body):
    """Longer than what is to replace it."""
    return body + b" " * 30000


def empty(_):
    return b""


def missing(_):
    return None


def directory(_):
    return DIRECTORY


def stored(fault, backup, files, place="usual"):
    """The cloud answers. Whether the file could be written is not looked at."""
    return Cell(fault, log=(STORED, READY), reply=ID_REPLY.decode(), files=files,
                script=SimpleNamespace(backup=backup, place=place, cloud=True))


def used(fault, place="usual"):
    return Cell(fault, log=(*discovery_status(503), LOADED, READY), reply=ID_REPLY.decode(), files=UNCHANGED,
                script=SimpleNamespace(backup=good, place=place, cloud=False))


def no_help(fault, backup, reason, files=UNCHANGED, place="usual"):
    refused = f'{{"status":"error","message":"Cloud discovery failed. System is not initialized{BOTH_FAILED}"}}'
    return Cell(fault, state=RETRYING, reply=refused, files=files,
                log=(*discovery_status(503),
                     error(DISCOVERY, f"Couldn't retrieve configuration from the backup file: {reason}"),
                     retrying(BOTH_FAILED)),
                script=SimpleNamespace(backup=backup, place=place, cloud=False))


@matrix(
    "The backup file",
    used("cloud fails, backup good"),
    no_help("cloud fails, backup missing", missing, NO_FILE, NOTHING),
    no_help("cloud fails, backup empty", empty, EMPTY),
    no_help("cloud fails, backup cut off", cut_off, NOT_JSON),
    no_help("cloud fails, backup damaged", damaged, NOT_DECRYPTED),
    no_help("cloud fails, backup is a directory", directory, EMPTY),
    stored("backup empty", empty, WRITTEN),
    stored("backup cut off", cut_off, WRITTEN),
    stored("backup damaged", damaged, WRITTEN),
    stored("backup longer than the reply", longer, WRITTEN),
    stored("backup is a directory", directory, UNCHANGED),
    stored("disk full, no backup yet: an empty file is left", missing, WRITTEN, "full"),
    stored("disk full, backup shorter than the reply: a cut file is left", good, WRITTEN, "full"),
    used("cloud fails, disk full", "full"),
    stored("cache folder read-only", good, UNCHANGED, "read-only"),
    used("cloud fails, cache folder read-only", "read-only"),
    no_help("cloud fails, cache folder read-only and empty", missing, NO_FILE, NOTHING, "read-only"),
    stored("cache folder missing", missing, NOTHING, "missing"),
    no_help("cloud fails, cache folder missing", missing, NO_FILE, NOTHING, "missing"))
def test_backup_file(cell, judge, world, cloud):
    given = cell.script
    reply = cloud.discovery_body()[:-1] + b" " * 10000 + b"}"
    cloud.script(cloud.discovery_path, Reply(200, reply) if given.cloud else Reply(503))
    earlier = world.new_folder("earlier")
    put(earlier / NAME, given.backup(cloud.discovery_body()))
    before = contents(earlier)
    folder = earlier if given.place == "usual" else world.folder / "missing"
    disk = None
    if given.place in ("full", "read-only"):
        folder = world.new_folder("cache")
        disk = SmallDisk(folder, copied=earlier, full=given.place == "full", read_only=given.place == "read-only")

    service = world.start(world.document(cloud.discovery_url, cache_folder=folder),
                          wrapper=disk.wrapper if disk else ())
    if cell.state == RETRYING:
        assert service.wait_failed() == BOTH_FAILED
        service.wait_listening()
    else:
        service.wait_ready()
    answer = service.api.exchange(ID_REQUEST)
    after = contents(disk.seen_through(service) if disk else folder)
    if given.place == "full" and given.cloud:
        assert reply.startswith(after[NAME]) and len(after[NAME]) < len(reply)
    elif cell.files == WRITTEN:
        assert after == {NAME: reply}
    judge_all(judge, service, answer, files=(before, after), backup=folder / NAME)


def put(path, data):
    if data is DIRECTORY:
        path.mkdir()
    elif data is not None:
        path.write_bytes(data)


def contents(folder):
    """As files_in gives them, but a folder may be among them, and what fills the disk is not."""
    paths = folder.iterdir() if folder.is_dir() else []
    return {path.name: path.is_dir() or path.read_bytes() for path in paths if path.name != "filler"}
