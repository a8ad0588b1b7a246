#!/usr/bin/env python3
"""Counts the instructions of kestactl's commands and of what stands beside them, where the machine counts none.

Arguments: the build folder, the folder of a lab. valgrind counts them, each process of a command with its children,
outside the kernel only; programs find a processor without the newest instructions there (a SHA-256 takes some ten
times as many). It takes some ten minutes.
"""
import glob
import os
import re
import sys

from bench_commands import GROUP, Lab, commands

LOGS = "tmp/instructions"


class CountingLab(Lab):
    def measure(self, times, command, before=None):
        logs = os.path.join(self.controller, LOGS)
        os.makedirs(logs, exist_ok=True)
        if before:
            self.run("sh", "-c", before)
        self.run("valgrind", "--tool=callgrind", "--trace-children=yes", "--callgrind-out-file=/dev/null",
                 f"--log-file=/{LOGS}/%p", "sh", "-c", f"exec {command} > /dev/null")
        counted = 0
        for name in glob.glob(f"{logs}/*"):
            with open(name, encoding="utf-8", errors="replace") as file:
                counted += sum(int(number) for number in re.findall(r"Collected : (\d+)", file.read()))
            os.remove(name)
        return {"instructions": counted}

    def compare(self, times, command, raw, before=None, raw_before=None):
        return {"run": self.measure(1, command, before), "raw": self.measure(1, raw, raw_before)}


def main(build, folder):
    lab = CountingLab(os.path.abspath(build), folder)
    lab.define()
    lab.run("kestactl", "slot", "switch", "--backup", "kesta_backup0", "--accept", "kesta_backup1")
    lab.fill(1, 10, True)
    lab.run("kestactl", "save", GROUP)
    for row in commands(lab, 20, 2000):
        run, raw = row["run"]["instructions"] / 1e6, row["raw"]["instructions"] / 1e6
        print(f"{row['what']}: {run:.0f} million instructions, {run / raw:.2f} times {row['against']} ({raw:.0f} million)",
              flush=True)


if __name__ == "__main__":
    main(*sys.argv[1:])
