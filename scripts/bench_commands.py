#!/usr/bin/env python3
"""Measures what whole commands of kestactl cost, beside tar and bzip2, and how long processes wait for locks.

Arguments: the build folder, the folder of a lab, the JSON file to write, and "full" for all of the sizes.
"""
import hashlib
import json
import os
import random
import shutil
import subprocess
import sys

GROUP = "bench"
DATA = "opt/bench-data"


class Lab:
    def __init__(self, build, folder):
        self.build, self.folder = build, folder
        self.controller = os.path.join(folder, "cnt0")

    def arguments(self, controller, command):
        return [f"{self.build}/bin/kesta-lab", "--dir", self.folder, "exec", f"CNT{controller}", "--bind", self.build,
                "--", *command]

    def run(self, *command, controller=0):
        done = subprocess.run(self.arguments(controller, command), capture_output=True, text=True, check=False)
        if done.returncode != 0:
            sys.exit(f"{' '.join(command)}: {done.stdout}{done.stderr}")
        return done.stdout

    def measure(self, times, command, before=None):
        program = [f"{self.build}/bench/measured_run", str(times)]
        return json.loads(self.run(*program, *(["--before", before] if before else []), "--", "sh", "-c",
                                   f"exec {command} > /dev/null"))

    def compare(self, times, command, raw, before=None, raw_before=None):
        """Both alternately: whatever else the machine does meets both."""
        found = {"run": {}, "raw": {}}
        for _ in range(times):
            for which, one, first in (("run", command, before), ("raw", raw, raw_before)):
                for key, value in self.measure(1, one, first).items():
                    found[which][key] = found[which].get(key, []) + value if isinstance(value, list) else value
        return found

    def define(self):
        folder = os.path.join(self.controller, "etc/kesta_sys", GROUP)
        os.makedirs(folder, exist_ok=True)
        with open(f"{folder}/define.xml", "w", encoding="utf-8") as file:
            file.write(f'<?xml version="1.0"?>\n<group id="{GROUP}" operation="update" type="files"><setinfo>'
                       f'<file path="/{DATA}"/></setinfo><script><backup reboot="0"></backup>'
                       '<restore reboot="0"></restore></script></group>\n')

    def fill(self, megabytes, files, text):
        root = os.path.join(self.controller, DATA)
        shutil.rmtree(root, ignore_errors=True)
        source = random.Random(1)
        words = ["".join(source.choices("etaoinshrdlcumwfgypbvk", k=source.randint(2, 9))) for _ in range(5000)]
        size = megabytes * 1000000 // files
        for number in range(files):
            folder = f"{root}/{number % 50}"
            os.makedirs(folder, exist_ok=True)
            with open(f"{folder}/{number}", "wb") as file:
                file.write(" ".join(source.choices(words, k=size // 5))[:size].encode() if text
                           else source.randbytes(size))


def start_up(lab):
    for what, command in (("`kestactl --version`", "kestactl --version"), ("`kestactl nv list`", "kestactl nv list")):
        yield {"what": what, "against": "`true`: an empty program's start", **lab.compare(15, command, "/bin/true")}


def commands(lab, megabytes, files):
    lab.fill(megabytes, files, True)
    size = f"{megabytes} MB in {files} files"
    unpack = "bunzip2 -c /tmp/raw.tar.bz2"
    one = "one `bunzip2 -c`, which writes nothing"
    spoil = f"rm -rf /{DATA}"
    yield {"what": f"`save`, {size}", "against": "`tar -cjf`, which reads nothing back, keeps nothing and flushes nothing",
           **lab.compare(3, f"kestactl save {GROUP}", f"tar -C / -cjf /tmp/raw.tar.bz2 {DATA}")}
    yield {"what": "`accept`", "against": one, **lab.compare(3, "kestactl accept", unpack)}
    with open(os.path.join(lab.controller, DATA, "0/0"), "ab") as file:
        file.write(b"another one")
    lab.run("kestactl", "save", GROUP)
    yield {"what": "`verify` of two archives in four places", "against": one + ", of one archive",
           **lab.compare(3, "kestactl verify", unpack)}
    yield {"what": "`restore` that changes nothing", "against": one, **lab.compare(3, f"kestactl restore {GROUP}", unpack)}
    yield {"what": "`restore`, one file changed", "against": one,
           **lab.compare(3, f"kestactl restore {GROUP}", unpack, f"echo spoiled > /{DATA}/7/7")}
    yield {"what": "`restore`, all files new", "against": "`tar -xjf`, which tests nothing first and flushes nothing",
           **lab.compare(3, f"kestactl restore {GROUP}", "tar -C / -xjf /tmp/raw.tar.bz2", spoil, spoil)}


def compared_files(lab, files):
    """Small files, as a configuration has them: what is measured is the comparison of each."""
    lab.fill(files * 500 // 1000000 or 1, files, True)
    lab.run("sh", "-c", f"tar -C / -cjf /tmp/raw.tar.bz2 {DATA}; kestactl save {GROUP}")
    yield {"what": f"`diff` of {files} files", "against": "`tar -dj`, which compares no folder for what is new in it",
           **lab.compare(5, f"kestactl diff {GROUP}", "tar -C / -djf /tmp/raw.tar.bz2")}
    yield {"what": "`save`, which keeps the one before", "against": "`save --keep 0`",
           **lab.compare(5, f"kestactl save {GROUP}", f"kestactl save {GROUP} --keep 0", *[f"echo $$ > /{DATA}/7/7"] * 2)}


def small_answers(lab, generations):
    folder = os.path.join(lab.controller, "opt/kesta_sys/bakup/generations")
    lab.run("kestactl", "metrics")
    yield {"what": "`metrics`", "aim": 20, **lab.measure(15, "kestactl metrics")}
    change = {"time": 1763800000, "controller": 0, "user": "root", "verb": "save", "comment": "nightly", "change": 0}
    for number in range(1, generations + 1):
        name = hashlib.sha256(str(number).encode()).hexdigest()
        with open(f"{folder}/{name}.tar.Z", "w", encoding="utf-8") as file:
            file.write(str(number))
        with open(f"{folder}/{name}.json", "w", encoding="utf-8") as file:
            json.dump({"format": 1, "sha256": name, "bytes": 9, "order": 1000 + number, "number": 1000 + number,
                       "version": number, "version_recorded": True, "group": GROUP, "places": ["slot:kesta_backup0"],
                       "kept": change, "saved": change}, file)
    yield {"what": f"`history` of {generations} generations", "aim": 50,
           **lab.measure(15, "kestactl history --oneline")}


def memory(lab, megabytes):
    lab.fill(megabytes, 20, False)
    lab.run("kestactl", "save", GROUP)
    archive = os.path.getsize(os.path.join(lab.controller, "opt/kesta_sys/bakup/backup.tar.Z")) / 2**20
    for command in (f"save {GROUP}", "accept", "verify", f"restore {GROUP}"):
        peak = max(lab.measure(1, f"kestactl {command}")["peak_kib"]) / 1024
        yield {"what": f"`{command.split()[0]}`", "archive": archive, "peak": peak}


def contention(lab, seconds):
    bench = f"{lab.build}/bench/contention_bench"
    for processes in (2, 16, 64):
        for kind in ("inner", "lockf", "sqlite"):
            yield {"where": f"{processes} processes of one controller",
                   **json.loads(lab.run(bench, kind, str(processes), str(seconds)))}
    together = [subprocess.Popen(lab.arguments(number, [bench, "inner", "1", str(seconds)]), stdout=subprocess.PIPE, text=True)
                for number in range(4)]
    for number, process in enumerate(together):
        yield {"where": f"four controllers, one process each: CNT{number}", **json.loads(process.communicate()[0])}


def main(build, folder, target, full=""):
    lab = Lab(os.path.abspath(build), folder)
    lab.define()
    lab.run("kestactl", "slot", "switch", "--backup", "kesta_backup0", "--accept", "kesta_backup1")
    is_full = full == "full"
    result = {"start": list(start_up(lab)),
              "commands": list(commands(lab, *((100, 20000) if is_full else (20, 2000)))),
              "compared": list(compared_files(lab, 20000 if is_full else 4000)),
              "memory": list(memory(lab, 200 if is_full else 30)),
              "small": list(small_answers(lab, 1000)),
              "contention": list(contention(lab, 8 if is_full else 2))}
    with open(target, "w", encoding="utf-8") as file:
        json.dump(result, file)


if __name__ == "__main__":
    main(*sys.argv[1:])
