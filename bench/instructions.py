"""Instructions of the main paths, in user space: they repeat exactly, so that a later change that costs shows.

    instructions.py --build FOLDER --output FILE [--quick]
    instructions.py --build FOLDER --record    compares with nothing: writes the counts to instructions.json

main_paths.cpp runs the paths, and a plugin of QEMU counts (count_instructions.c). The processor is QEMU's own, so the
counts do not depend on the machine's."""

import json
import pathlib
import platform
import struct
import subprocess
import tempfile

import footprint
from statistics_of_runs import arguments, row, write_section

from support.device import Device
from support.world import World

RECORDED = pathlib.Path(__file__).with_name("instructions.json")
MOST = 1.02  # times what is recorded
FEW, MANY = 20, 2020  # how often a path is run: what is the same for both is not the path's
EMULATOR = f"qemu-{platform.machine()}"


def main():
    parser = arguments(__doc__)
    parser.add_argument("--record", action="store_true")
    options = parser.parse_args()
    tools, counts = count_all(options.build)
    if options.record:
        RECORDED.write_text(json.dumps({"tools": tools, "instructions": counts}, indent=1) + "\n")
        return
    recorded = json.loads(RECORDED.read_text())
    comparable = recorded["tools"] == tools
    notes = [] if comparable else [f"Recorded with {recorded['tools']}.", f"Counted with {tools}: not judged."]
    rows = [row(name, "", "instructions", "", [count], *against(recorded["instructions"].get(name)),
                at_most=MOST if comparable and name in recorded["instructions"] else None)
            for name, count in counts.items()]
    write_section(options, "Instructions", rows, notes)


def against(recorded):
    """The rival's part of a row; a path that is new has none."""
    return () if recorded is None else ("recorded", [recorded])


def count_all(build):
    """What the counts depend on besides the sources, and the counts by name."""
    plugin, program = build / "bench/count_instructions.so", build / "bench/main_paths"
    made_of, *paths = output(program).splitlines()
    emulator_version = output(EMULATOR, "--version").splitlines()[0]
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        counts = {path: of_path(program, plugin, path, folder / "count") for path in paths}
        counts.update(of_requests(build / "sso-discovery-service", plugin, folder))
    return f"{made_of}, {emulator_version}", counts


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def of_path(program, plugin, path, counter):
    def count(repetitions):
        counter.unlink(missing_ok=True)
        output(EMULATOR, "-plugin", f"{plugin},count={counter}", program, path, str(repetitions))
        return struct.unpack("Q", counter.read_bytes())[0]

    def least(repetitions):
        """Without what the log does once a second."""
        return min(count(repetitions) for _ in range(3))
    return (least(MANY) - least(FEW)) / (MANY - FEW)


def of_requests(service, plugin, folder):
    """The whole service, from a connection to waiting for the next one."""
    world = World(service, Device(folder / "device"), folder)
    try:
        return {f"cached token, level {level}{place}": footprint.instructions(world, folder, plugin, [EMULATOR], level)
                for level, place in (("error", ""), ("info", ", to a file"))}
    finally:
        world.close()


if __name__ == "__main__":
    main()
