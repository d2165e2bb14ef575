"""What the service takes of a device: size, libraries, heap, stacks, instructions. Fails when the program or a stack is
larger than a device may expect.

    footprint.py PROGRAM PLUGIN HEAP_PEAK [EMULATOR...]

PLUGIN is count_instructions.c, built, HEAP_PEAK is heap_peak.c, built for PROGRAM's machine. EMULATOR is what runs PROGRAM, such as `qemu-arm -L ROOT`; without one, PROGRAM
is for this machine, and qemu-x86_64 counts its instructions. The cloud is a stand-in over plain HTTP."""

import os
import pathlib
import re
import resource
import struct
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "tests/system"))

from support.device import Device  # noqa: E402
from support.fake_cloud import TOKEN_PATH  # noqa: E402
from support.http_server import Reply  # noqa: E402
from support.waiting import wait_until  # noqa: E402
from support.world import World  # noqa: E402

LARGEST_PROGRAM = 350 * 1024
THREAD_STACK = 256 * 1024  # as src/util/ThreadStacks.h says
PAGE = os.sysconf("SC_PAGE_SIZE")
CACHED_REQUESTS = 200
TOKEN = "eyJhbGciOiJSUzI1NiJ9." + "x" * 600 + "." + "y" * 342  # as long as a signed JWT with a few claims


def main(program, plugin, heap_peak_library, *emulator):
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        for part in ("device", "world"):
            (folder / part).mkdir()
        world = World(program, Device(folder / "device"), folder / "world")
        try:
            size = stripped_size(program, folder)
            print(f"program, stripped: {size} bytes (at most {LARGEST_PROGRAM})")
            print(f"shared libraries: {', '.join(libraries(program))}")
            print(f"heap peak until ready: {heap_peak(world, heap_peak_library, emulator, 0)} bytes")
            print(f"heap peak with one token request: {heap_peak(world, heap_peak_library, emulator, 1)} bytes")
            (_, main_peak), *others = stacks(world, emulator)
            print(f"stack peak of the main thread: {main_peak} bytes")
            for stack_size, peak in others:
                print(f"stack of another thread: {stack_size} bytes, peak {peak} bytes")
            count = instructions(world, folder, plugin, emulator or ["qemu-x86_64"])
            print(f"instructions per cached request: {count}")
        finally:
            world.close()
    return 0 if size <= LARGEST_PROGRAM and others and all(stack == THREAD_STACK for stack, _ in others) else 1


def stripped_size(program, folder):
    copy = folder / "stripped"
    subprocess.run(["llvm-strip", "-o", copy, program], check=True)
    return copy.stat().st_size


def libraries(program):
    text = subprocess.run(["llvm-readelf", "--dynamic-table", program], check=True, capture_output=True, text=True)
    return re.findall(r"Shared library: \[(.*?)\]", text.stdout)


def new_cloud(world):
    cloud = world.new_cloud()
    cloud.script(TOKEN_PATH, Reply(200, {"access_token": TOKEN, "token_type": "Bearer", "expires_in": 3600}))
    return cloud


def get_token(service):
    assert service.api.request("token", scope="telemetry") == {"status": "ok", "token": TOKEN}


def heap_peak(world, library, emulator, requests):
    """The most that malloc and its kin had given out at one time, from start to end."""
    preload = f"LD_PRELOAD={library}"
    service = world.start_ready(new_cloud(world), "error",
                                wrapper=[*emulator, "-E", preload] if emulator else ["env", preload])
    service.expected_stderr = re.compile(".*", re.S)
    for _ in range(requests):
        get_token(service)
    service.stop()
    return int(re.search(r"heap peak: (\d+)", service.stderr_path.read_text()).group(1))


def stacks(world, emulator):
    """Size and peak, to a page, of each thread's stack after one token request: the main thread's, then the others'.

    A stack is what follows a guard page. The main thread's has a name, or, emulated, the size of its limit. What the
    kernel has put behind a stack may have become one area with it: less than a stack, as a rule."""
    cloud = new_cloud(world)
    # A name instead of an address: libcurl starts a thread to look it up, unless it knows this one itself.
    service = world.start(world.document(cloud.discovery_url.replace("127.0.0.1", "localhost"), level="error"),
                          wrapper=emulator).wait_ready()
    get_token(service)
    found = list(areas(service.process.pid))
    if emulator:  # the emulator's own areas are above the 32-bit program's
        found = [area for area in found if area[1] <= 1 << 32]
    limit = resource.getrlimit(resource.RLIMIT_STACK)[0]
    main_stack = [area for area in found if area[3] == "[stack]"]
    others = []
    for guard, area in zip(found, found[1:]):
        if guard[1] - guard[0] == PAGE and guard[2:] == ("---p", "") and area[2:] == ("rw-p", ""):
            if area[1] - area[0] == limit:
                main_stack.append(area)
            elif area[1] - area[0] >= THREAD_STACK:
                size = (area[1] - area[0]) // THREAD_STACK * THREAD_STACK
                others.append((area[0], area[0] + size))
    return [(end - begin, touched(service.process.pid, begin, end)) for begin, end, *_ in [*main_stack, *others]]


def areas(process):
    """The process's memory: begin, end, access and name of each area, in the order of addresses."""
    with open(f"/proc/{process}/maps") as table:
        for line in table:
            addresses, access, _, _, _, *name = line.split()
            yield (*(int(address, 16) for address in addresses.split("-")), access, "".join(name))


def touched(process, begin, end):
    """The bytes from the lowest page that is there to the end, which is where a stack begins."""
    with open(f"/proc/{process}/pagemap", "rb") as table:
        table.seek(begin // PAGE * 8)
        pages = struct.unpack(f"{(end - begin) // PAGE}Q", table.read((end - begin) // PAGE * 8))
    return next((end - begin - index * PAGE for index, page in enumerate(pages) if page >> 62), 0)


def instructions(world, folder, plugin, emulator, level="error"):
    """Those of one request for a token that is in the cache, waiting for the next one included. At levels that write
    lines, they go to a file."""
    counter = folder / f"count-{level}"
    document = world.document(new_cloud(world).discovery_url, level=level,
                              log_path=None if level == "error" else folder / f"log-{level}")
    service = world.start(document, wrapper=[*emulator, "-plugin", f"{plugin},count={counter}"])
    service.wait_listening()
    wait_until(lambda: service.api.request("certificate_id")["status"] == "ok", "a ready service")

    def count_after(requests):
        for _ in range(requests):
            get_token(service)
        return struct.unpack("Q", counter.read_bytes())[0]

    before = count_after(10)
    return (count_after(CACHED_REQUESTS) - before) // CACHED_REQUESTS


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
