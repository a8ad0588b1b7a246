#!/usr/bin/env python3
"""Writes the table of ratios from the results of the benchmarks.

Arguments: the report to write, then the JSON results of the benchmark programs, and of bench_commands.py. The
medians over all repetitions are compared; a row says what was measured, against what, how far the middle half of the
repetitions lies apart, how busy the machine was, and what we aim at.
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
    ("library_read_definition/64/8", "raw_parse_definition/64/8",
     "a definition of 64 files with 8 links each read", "xmlParseFile and xmlFreeDoc of it",
     "times", 1.2),
    ("library_read_definition/1/0", "raw_parse_definition/1/0",
     "a definition of one file read", "xmlParseFile and xmlFreeDoc of it", "times", None),
    ("library_apply", "raw_apply", "64 files with one link each put in order",
     "the same calls, and `system` of `rm` and `ln`", "times", 1.05),
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
    ("backup2tmp_check", "`kestal_backup2tmp`, mode 0", "a shell with cp, and fsync"),
    ("backup2tmp", "`kestal_backup2tmp`, mode 1", "a shell with cp, fsync, and the unpacking"),
    ("cntbackup2tmp", "`kestal_cntbackup2tmp`", "a shell with cp, and fsync"),
    ("cntbackup2backup", "`kestal_cntbackup2backup`", "a shell with cp, and fsync"),
    ("merge_file2accept", "`kestal_merge_file2accept`", "a shell with cp, and fsync"),
    ("backup2copy", "`kestal_backup2copy`, InitConf", "shells with cp, the unpacking, cp, the script, and fsync"),
    ("sysback2current", "`kestal_sysback2current`, switch only", "a shell with cp, and fsync"),
]
FLOW_AIM = 1.15
MEMORY_SPARE_MIB = 16

FASTER = "times as fast"
NANOSECONDS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}


def plain(name):
    """The name without what the framework adds: iterations, real time, repeats."""
    return re.sub(r"/(iterations:\d+|real_time|repeats:\d+)", "", name)


def read_results(paths):
    """Median time in ns, the spread, the load and the highest counters of every benchmark; the commands, and the etcd
    platform."""
    times, counters, loads, commands, etcd = {}, {}, {}, None, None
    for path in paths:
        with open(path, encoding="utf-8") as file:
            result = json.load(file)
        if "etcd" in result:
            etcd = result
            continue
        if "benchmarks" not in result:
            commands = result
            continue
        load = (result["context"].get("load_avg") or [0])[0]
        for run in result["benchmarks"]:
            if run.get("error_occurred"):
                sys.exit(f'{run["name"]}: {run["error_message"]}')
            if run["run_type"] != "iteration":
                continue
            name = plain(run["name"])
            time = run["real_time"] * NANOSECONDS[run["time_unit"]]
            times.setdefault(name, []).append(time)
            loads[name] = load
            kept = counters.setdefault(name, {})
            for key in ("peak_MiB", "archive_MiB"):
                if key in run:
                    kept[key] = max(run[key], kept.get(key, 0))
    return ({name: Measured(values, loads[name]) for name, values in times.items()}, counters, commands, etcd)


class Measured:
    """The repetitions of one benchmark."""

    def __init__(self, values, load=0.0, instructions=None):
        self.median = statistics.median(values)
        self.spread = spread_of(values)
        self.load = load
        self.instructions = instructions


def spread_of(values):
    """How far the middle half lies apart, in parts of the median."""
    if len(values) < 2 or statistics.median(values) == 0:
        return 0.0
    quarters = statistics.quantiles(values, n=4, method="inclusive")
    return (quarters[2] - quarters[0]) / statistics.median(values)


def counted(measured, raw):
    """Instructions of program and kernel, where the machine counts them."""
    if measured.instructions is None or raw.instructions is None:
        return "not counted here"
    return f"{measured.instructions / 1e6:.3g} M, {raw.instructions / 1e6:.3g} M"


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
    one, other = times
    measured, raw = one.median, other.median
    if unit == FASTER:
        value = raw / measured
    else:
        value = measured / raw if unit == "times" else measured - raw
    shown = f"{value:.2f} {unit}" if unit == "times" else f"{value:.1f} {unit}"
    target = "-" if aim is None else f'at {"least" if unit == FASTER else "most"} {aim} {unit}'
    return (f"| {what} | {against} | {human(measured)} ± {one.spread / 2:.0%} | {human(raw)} ± {other.spread / 2:.0%} | "
            f"{shown} | {counted(one, other)} | {one.load:.1f} | {target} | {verdict(value, aim, unit)} |")


HEAD = ("| measured | against | time | raw time | difference | instructions, raw ones | load | aim | |\n"
        "| --- | --- | --- | --- | --- | --- | --- | --- | --- |")

# By the beginning of what bench_commands.py calls it.
COMMAND_AIMS = {"`save`, which keeps": 1.1, "`diff`": 1.0, "`save`": 1.35, "`accept`": 1.1, "`verify`": 2.1, "`restore` that changes nothing": 1.3}


def measured_command(run):
    """By processor time: what others do meanwhile is not the command's."""
    instructions = [count for count in run["instructions"] if count is not None]
    return Measured([seconds * 1e9 for seconds in run["processor_seconds"]], run["load"],
                    statistics.median(instructions) if instructions else None)


def report_commands(commands):
    yield ""
    yield "## Commands of kestactl"
    yield ""
    yield ("By processor time, of all processes of a command. The aims are of instructions; where these are not counted, time"
           " stands for them, and unpacking waits for memory more than packing does.")
    yield ""
    yield HEAD
    for part in commands["start"] + commands["commands"] + commands.get("compared", []):
        aim = next((aim for begin, aim in COMMAND_AIMS.items() if part["what"].startswith(begin)), None)
        yield row(part["what"], part["against"], (measured_command(part["run"]), measured_command(part["raw"])), "times", aim)
    yield ""
    yield "| answers, by processor time | half take at most | aim | |"
    yield "| --- | --- | --- | --- |"
    for part in commands.get("small", []):
        taken = statistics.median(part["processor_seconds"]) * 1000
        yield f'| {part["what"]} | {taken:.1f} ms | at most {part["aim"]} ms | {verdict(taken, part["aim"])} |'
    yield ""
    yield "| memory at most | archive | peak of the largest process | aim | |"
    yield "| --- | --- | --- | --- | --- |"
    for part in commands["memory"]:
        aim = part["archive"] + MEMORY_SPARE_MIB
        yield (f'| {part["what"]} | {part["archive"]:.1f} MiB | {part["peak"]:.1f} MiB | at most {aim:.1f} MiB | '
               f'{verdict(part["peak"], aim)} |')
    yield ""
    yield "## Waiting for a lock"
    yield ""
    yield ("Each process takes a lock, gives it back, and does something else for a millisecond. `lockf` wakes whoever waits;"
           " the inner lock can't, since NV memory has nothing to wait on ([locks.md](locks.md#how-fair-it-is)).")
    yield ""
    yield "| who | what | turns | of one process | half wait at most | 90 % | 99 % | longest |"
    yield "| --- | --- | --- | --- | --- | --- | --- | --- |"
    names = {"inner": "inner lock", "lockf": "`lockf`", "sqlite": "SQLite WAL update, synchronous=off"}
    for part in commands["contention"]:
        waits = " | ".join(human(part[key] * 1e6) for key in ("p50", "p90", "p99", "longest"))
        yield (f'| {part["where"]} | {names[part["kind"]]} | {part["turns"]} | {part["fewest"]} to {part["most"]} | {waits} |')


def report_etcd(etcd):
    yield ""
    yield "## The etcd platform"
    yield ""
    yield ("By the clock, on a cluster of three members on the same machine, in memory; what is measured and what it is held"
           " against take turns ([hosts.md](hosts.md#what-it-costs)).")
    yield ""
    yield HEAD
    for part in etcd["etcd"]:
        yield row(part["what"], part["against"], (Measured(part["times"], part["load"]), Measured(part["raw"])), "times",
                  part["aim"])
    if "members" in etcd:
        yield ""
        yield "| archives of 100 MB written | memory of the largest member |"
        yield "| --- | --- |"
        for number, mebibytes in etcd["members"]:
            yield f"| {number} | {mebibytes} MiB |"


def processor():
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        for line in file:
            if line.startswith("model name"):
                return line.split(":", 1)[1].strip()
    return platform.machine()


def report(times, counters, commands, etcd):
    yield "# What the library costs"
    yield ""
    yield ("Written by `make bench`: each figure beside the raw cost, measured in the same process,"
           " alternately, as the median of all repetitions. Locks, transfers and traces ran on a"
           " tmpfs, the copies on a disk. Behind ± is half of what the middle half of them lies apart.")
    yield ""
    yield f"- Date: {datetime.now(timezone.utc):%Y-%m-%d}"
    yield f"- Machine: {processor()}, {os.cpu_count()} cores, Linux {platform.release()}"
    yield ""
    yield HEAD
    for name, raw, what, against, unit, aim in ROWS:
        yield row(what, against, (times[name], times[raw]), unit, aim)
    yield ""
    yield "## Copy flows"
    yield ""
    yield HEAD
    for size in (1, 100, 1000):
        for name, what, against in FLOWS:
            if f"flow_{name}/{size}" not in times:
                continue  # the large ones are measured on demand
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
    if etcd:
        yield from report_etcd(etcd)
    if commands:
        yield from report_commands(commands)


def parts_of(times, counters, commands, etcd):
    """What there is, where the library was left out."""
    if times:
        yield from report(times, counters, commands, etcd)
    elif etcd:
        yield from report_etcd(etcd)
    else:
        yield from report_commands(commands)


def main(target, *paths):
    lines = list(parts_of(*read_results(paths)))
    with open(target, "w", encoding="utf-8") as file:
        file.write("\n".join(lines) + "\n")
    print("\n".join(lines))


if __name__ == "__main__":
    main(*sys.argv[1:])
