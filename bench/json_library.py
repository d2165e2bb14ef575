"""The JSON library beside others on the same texts.

    json_library.py --build FOLDER --output FILE [--quick]"""

import google_benchmark
from statistics_of_runs import arguments, row, write_section

REAL_DOCUMENTS = {"sample configuration", "packaged configuration", "request", "token reply 1 KiB", "token reply 8 KiB",
                  "discovery 4 KiB", "discovery 4 KiB indented", "discovery 64 KiB", "discovery 64 KiB indented"}
NEVER_SLOWER_THAN = {"nlohmann-json", "picojson"}
MANY_KEYS = {"ascending keys 50000", "shuffled keys 50000"}
# The time a byte stays within a factor of 2 in each of these.
SERIES = {"length": ["mixed 64 KiB", "mixed 1 MiB", "mixed 4 MiB"],
          "depth of arrays": ["arrays depth 10", "arrays depth 1000", "arrays depth 100000", "arrays depth 1000000"],
          "depth of objects": ["objects depth 10", "objects depth 1000", "objects depth 100000",
                               "objects depth 1000000"]}
UNITS = (("ns", 1), ("us", 1e3), ("ms", 1e6))
NOTES = (
    "jobject::parse: text in, document out, document destroyed. This library checks the whole text and keeps the values"
    " of the outermost container as text. RapidJSON SAX keeps nothing, the others make a tree.",
    "At depth 100,000 and more RapidJSON reads with kParseIterativeFlag, and picojson, which recurses, is left out.",
    "Depth 10: an array of one array of values that are 8 deep, 2 MiB in all.",
    "Memory that a program once had stays with it: no library waits for the system's, or gives it back.",
    "Time a byte: the largest of the series by the smallest.",
)


def main():
    options = arguments(__doc__).parse_args()
    repetitions, seconds = (1, 0.001) if options.quick else (5, 0.03)
    groups = list(google_benchmark.groups(options.build / "bench/json_benchmark", repetitions, seconds))
    rows = [row for group in groups for row in ROWS.get(group.operation, operation_rows)(group)]
    rows += growth_rows({group.setting: group for group in groups if group.operation == "parse"})
    write_section(options, "JSON library", rows, NOTES)


def parse_rows(group):
    rows = []
    for rival in group.runs:
        if rival == "RapidJSON DOM":
            rows.append(time_row(group, "jobject::parse", rival, 1.0 if group.setting in REAL_DOCUMENTS else None))
        elif rival != "jobject::parse":
            rows.append(time_row(group, "jobject::parse", rival, 1.0 if rival in NEVER_SLOWER_THAN else None))
    if group.setting in MANY_KEYS:
        rows.append(time_row(group, "jobject::parse", "nlohmann-json", 1.5))
    return rows


def read_rows(group):
    return [time_row(group, "parse_value", "RapidJSON SAX"), time_row(group, "push", "parse_value", 4.0)]


def operation_rows(group):
    return [time_row(group, "this", rival, name=group.operation) for rival in group.runs if rival != "this"]


ROWS = {"parse": parse_rows, "read": read_rows}


def time_row(group, who, rival, at_most=None, name=None):
    values = group.values(who)
    unit, nanoseconds = next(unit for unit in reversed(UNITS) if min(values) >= unit[1] or unit[1] == 1)
    scaled = [value / nanoseconds for value in values]
    rivals = [value / nanoseconds for value in group.values(rival)]
    setting = group.setting
    if group.operation == "parse" and "picojson" not in group.runs:
        setting += ", no picojson"
    return row(name or who, setting, "time", unit, scaled, rival, rivals, at_most=at_most)


def growth_rows(parsed):
    rows = []
    for grows, settings in SERIES.items():
        times_a_byte = [[run["cpu_time"] / run["bytes"] for run in parsed[setting].runs["jobject::parse"]]
                        for setting in settings]
        factors = [max(times) / min(times) for times in zip(*times_a_byte)]
        rows.append(row("jobject::parse", f"{grows}: {settings[0]} to {settings[-1].split(' ', 1)[1]}", "time a byte",
                        "times", factors, at_most=2.0))
    return rows


if __name__ == "__main__":
    main()
