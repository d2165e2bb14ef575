"""Log calls: what a line that the level drops costs, what one that is written costs, and what they take of the heap.

    log_calls.py --build FOLDER --output FILE [--quick]"""

import google_benchmark
from statistics_of_runs import arguments, row, write_section

# How often a line may take heap memory.
ALLOCATIONS = {"dropped line two arguments": 0, "written line short to a file": 1, "written line 4 KiB to a file": 1}
NOTES = (
    "Empty function: a call with as many arguments of a function in another file that does nothing.",
    "write: one system call with the bytes of the line.",
)


def main():
    options = arguments(__doc__).parse_args()
    repetitions, seconds = (1, 0.001) if options.quick else (9, 0.02)
    groups = list(google_benchmark.groups(options.build / "bench/log_benchmark", repetitions, seconds))
    rows = [time_row(group) for group in groups]
    counted = {f"{group.operation} {group.setting}": group for group in groups}
    rows += [allocation_row(counted[line], at_most) for line, at_most in ALLOCATIONS.items()]
    write_section(options, "Log calls", rows, NOTES)


def time_row(group):
    who, rival = group.runs
    values, rivals = ([run["cpu_time"] / run["calls"] for run in group.runs[name]] for name in (who, rival))
    return row(group.operation, group.setting, "time a call", "ns", values, rival, rivals,
               at_most=3.0 if rival == "empty function" else None)


def allocation_row(group, at_most):
    who = next(iter(group.runs))
    return row(group.operation, group.setting, "allocations a line", "", group.values(who, "allocations"),
               at_most=at_most, exact=True)


if __name__ == "__main__":
    main()
