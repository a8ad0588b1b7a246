#!/usr/bin/env python3
"""Writes the table of ratios from the results of the benchmarks.

Arguments: the report to write, then the JSON results of the benchmark programs. The medians over
all repetitions are compared; a row says what was measured, against what, and what we aim at.
"""
import json
import os
import platform
import re
import statistics
import sys
from datetime import datetime, timezone

# name, raw name, what, against what, "times", "times as fast" or the unit of a difference, aim
ROWS = [
    ("library_transfer/read", "raw_transfer/read", "block read, NV memory alone, traces filtered",
     "the bare platform call", "ns more", 80),
    ("library_transfer/write", "raw_transfer/write", "block write, the same",
     "the bare platform call", "ns more", 80),
    ("library_take_and_release", "raw_database_update",
     "inner lock taken and released, nobody else", "one SQLite WAL update, synchronous=off",
     "times", 1.5),
    ("library_take_and_release", "raw_transfers", "inner lock taken and released, nobody else",
     "its four bare NV transfers", "times", None),
    ("library_command_lock", "raw_command_lock_sections", "a command lock taken and released",
     "the six transfers and inner locks that it needs", "times", 1.2),
    ("library_command_lock", "raw_command_lock_transfers", "a command lock taken and released",
     "its six bare NV transfers", "times", None),
    ("library_command_lock", "raw_lockf_pair", "a command lock taken and released",
     "one lockf and unlock", "times", None),
    ("library_version_by_mode", "raw_version_by_mode", "a version read from the mirror",
     "the inner lock and the reading of the file", "times", 1.2),
    ("library_version_memory_first", "raw_version_memory_first", "a version read from NV memory",
     "the inner lock and the transfer", "times", 1.2),
    ("library_read_definition", "raw_parse_definition",
     "a definition of 64 files with 8 links each read", "xmlParseFile and xmlFreeDoc of it",
     "times", 1.2),
    ("library_apply", "raw_apply", "64 files with one link each put in order",
     "the same commands and calls made bare", "times", 1.05),
    ("library_filtered", "raw_empty_call", "a filtered trace",
     "an empty variadic call into a shared object", "ns more", 4),
    ("library_written", "raw_line", "a written trace", "time stamp, snprintf, one write",
     "times", 1.2),
    ("library_system", "raw_posix_spawn",
     "`kestal_system` of `true`, 1 GiB touched, without the poll's wait", "posix_spawn of the same",
     "times", 1.15),
    ("library_repair", "raw_repair", "the twelve mirrored items repaired, one after the other",
     "their bare transfers", "times", 1.2),
    ("slow_threaded_repair", "slow_sequential_repair",
     "the same by twelve threads, 50 ms for each call of the area", "one after the other",
     "times as fast", 6),
    ("library_dump", "tool_dump/xxd", "a dump of 1 MiB to /dev/null", "`xxd` of the same",
     "times as fast", 8),
    ("library_dump", "tool_dump/hexdump", "a dump of 1 MiB to /dev/null", "`hexdump -C` of the same",
     "times as fast", 8),
    ("raw_fork", "raw_posix_spawn", "(for comparison: fork of the same)",
     "posix_spawn of the same", "times", None),
]

FLOWS = [
    ("backup2tmp_check", "`kestal_backup2tmp`, mode 0", "cp + fsync"),
    ("backup2tmp", "`kestal_backup2tmp`, mode 1", "cp + fsync, and the unpacking"),
    ("cntbackup2tmp", "`kestal_cntbackup2tmp`", "cp + fsync"),
    ("cntbackup2backup", "`kestal_cntbackup2backup`", "cp + fsync"),
    ("merge_file2accept", "`kestal_merge_file2accept`", "cp + fsync"),
    ("backup2copy", "`kestal_backup2copy`, InitConf", "cp, the unpacking, cp + fsync, the script"),
    ("sysback2current", "`kestal_sysback2current`, switch only", "cp + fsync"),
]
FLOW_AIM = 1.15
MEMORY_SPARE_MIB = 16

FASTER = "times as fast"
NANOSECONDS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}


def plain(name):
    """The name without what the framework adds: iterations, real time, repeats."""
    return re.sub(r"/(iterations:\d+|real_time|repeats:\d+)", "", name)


def read_results(paths):
    """Median time in ns and the highest counters of every benchmark."""
    times, counters = {}, {}
    for path in paths:
        with open(path, encoding="utf-8") as file:
            for run in json.load(file)["benchmarks"]:
                if run.get("error_occurred"):
                    sys.exit(f'{run["name"]}: {run["error_message"]}')
                if run["run_type"] != "iteration":
                    continue
                name = plain(run["name"])
                time = run["real_time"] * NANOSECONDS[run["time_unit"]]
                times.setdefault(name, []).append(time)
                kept = counters.setdefault(name, {})
                for key in ("peak_MiB", "archive_MiB"):
                    if key in run:
                        kept[key] = max(run[key], kept.get(key, 0))
    return {name: statistics.median(values) for name, values in times.items()}, counters


def human(time):
    for unit, size in (("s", 1e9), ("ms", 1e6), ("µs", 1e3)):
        if time >= size:
            return f"{time / size:.3g} {unit}"
    return f"{time:.3g} ns"


def verdict(value, aim, unit=None):
    if aim is None:
        return "-"
    good = value >= aim if unit == FASTER else value <= aim
    return "met" if good else "**missed**"


def row(what, against, times, unit, aim):
    measured, raw = times
    if unit == FASTER:
        value = raw / measured
    else:
        value = measured / raw if unit == "times" else measured - raw
    shown = f"{value:.2f} {unit}" if unit == "times" else f"{value:.1f} {unit}"
    target = "-" if aim is None else f'at {"least" if unit == FASTER else "most"} {aim} {unit}'
    return (f"| {what} | {against} | {human(measured)} | {human(raw)} | {shown} | {target} | "
            f"{verdict(value, aim, unit)} |")


def processor():
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        for line in file:
            if line.startswith("model name"):
                return line.split(":", 1)[1].strip()
    return platform.machine()


def report(times, counters):
    head = ("| measured | against | time | raw time | difference | aim | |\n"
            "| --- | --- | --- | --- | --- | --- | --- |")
    yield "# What the library costs"
    yield ""
    yield ("Written by `make bench`: each figure beside the raw cost, measured in the same process,"
           " alternately, as the median of all repetitions. Locks, transfers and traces ran on a"
           " tmpfs, the copies on a disk.")
    yield ""
    yield f"- Date: {datetime.now(timezone.utc):%Y-%m-%d}"
    yield f"- Machine: {processor()}, {os.cpu_count()} cores, Linux {platform.release()}"
    yield ""
    yield head
    for name, raw, what, against, unit, aim in ROWS:
        yield row(what, against, (times[name], times[raw]), unit, aim)
    yield ""
    yield "## Copy flows"
    yield ""
    yield head
    for size in (1, 100):
        for name, what, against in FLOWS:
            yield row(f"{what}, {size} MB", against,
                      (times[f"flow_{name}/{size}"], times[f"raw_{name}/{size}"]),
                      "times", FLOW_AIM)
    yield ""
    yield "| memory at most | archive | peak of the process | aim | |"
    yield "| --- | --- | --- | --- | --- |"
    for name, what, _ in FLOWS:
        seen = counters[f"flow_{name}/100"]
        aim = seen["archive_MiB"] + MEMORY_SPARE_MIB
        yield (f'| {what} | {seen["archive_MiB"]:.1f} MiB | {seen["peak_MiB"]:.1f} MiB | '
               f'at most {aim:.1f} MiB | {verdict(seen["peak_MiB"], aim)} |')


def main(target, *paths):
    lines = list(report(*read_results(paths)))
    with open(target, "w", encoding="utf-8") as file:
        file.write("\n".join(lines) + "\n")
    print("\n".join(lines))


if __name__ == "__main__":
    main(*sys.argv[1:])
