"""Runs programs made with Google Benchmark whose benchmarks are named OPERATION/SETTING/WHO,
the first two in letters, digits and spaces."""

import dataclasses
import json
import subprocess


@dataclasses.dataclass
class Group:
    """The benchmarks of one operation in one setting, which are rivals."""
    operation: str
    setting: str
    runs: dict  # by WHO, as the program lists them: what is said about each run, in the order of repetitions

    def values(self, who, figure="cpu_time"):
        return [run[figure] for run in self.runs[who]]


def groups(program, repetitions, seconds):
    """Measures every group on its own, its rivals' runs interleaved at random, so that the runs of one repetition are
    close to each other. Times are nanoseconds of processor time, so that they leave out what others do meanwhile."""
    members = {}
    for line in output(program, "--benchmark_list_tests=true").splitlines():
        name, _, who = line.rpartition("/")
        members.setdefault(name, []).append(who)
    for name, rivals in members.items():
        found = json.loads(output(program, f"--benchmark_filter=^{name}/", "--benchmark_format=json",
                                  f"--benchmark_repetitions={repetitions}", f"--benchmark_min_time={seconds}",
                                  "--benchmark_enable_random_interleaving=true"))
        runs = {who: [] for who in rivals}
        for run in sorted(found["benchmarks"], key=lambda run: run.get("repetition_index", -1)):
            if run.get("error_occurred"):
                raise SystemExit(f"{run['name']}: {run['error_message']}")
            if run["run_type"] == "iteration":
                runs[run["name"].rpartition("/")[2]].append(run)
        yield Group(*name.split("/"), runs)


def output(program, *arguments):
    finished = subprocess.run([program, *arguments], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    if finished.returncode != 0:
        raise SystemExit(f"{program} {' '.join(arguments)}: status {finished.returncode}\n{finished.stderr}")
    return finished.stdout
