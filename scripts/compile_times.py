#!/usr/bin/env python3
"""What each file costs to compile: the processor's seconds, so that others on the machine don't count.

usage: compile_times.py BUILD [--runs N] [--header NAME]... [PATH]...

BUILD: a configured build tree (its compile_commands.json). PATH: files or folders; operator and tools/kestactl if none
is given. --runs: the least of so many compilations of a file, 1 if not given. --header: what including it alone costs,
with the options of the first file, for instance --header nlohmann/json.hpp.

Nothing is written into the build tree, and nothing is taken from a cache. Sorted by seconds, the dearest first.
"""
import argparse
import json
import os
import shlex
import sys
import tempfile


def seconds_of(words, folder):
    """The processor's seconds of a command and its children, and whether it succeeded."""
    child = os.fork()
    if child == 0:
        os.chdir(folder)
        os.environ["CCACHE_DISABLE"] = "1"
        os.execvp(words[0], words)
    _, status, usage = os.wait4(child, 0)
    return usage.ru_utime + usage.ru_stime, status == 0


def compiler_words(entry, source, made):
    """The command without launchers and without what it writes beside the object."""
    words = shlex.split(entry["command"])
    while len(words) > 1 and os.path.basename(words[0]) in ("ccache", "sccache", "distcc"):
        words.pop(0)
    kept = []
    left = iter(words)
    for word in left:
        if word in ("-o", "-MF", "-MT", "-MQ"):
            next(left)
        elif word not in ("-MD", "-MMD", entry["file"]):
            kept.append(word)
    return kept + ["-o", made, source]


def least_seconds(entry, source, made, runs):
    words = compiler_words(entry, source, made)
    least = None
    for _ in range(runs):
        seconds, succeeded = seconds_of(words, entry["directory"])
        if not succeeded:
            sys.exit(f"{source} does not compile")
        least = seconds if least is None else min(least, seconds)
    return least


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("build")
    parser.add_argument("paths", nargs="*")
    parser.add_argument("--runs", type=int, default=1)
    parser.add_argument("--header", action="append", default=[])
    given = parser.parse_intermixed_args()
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    paths = [os.path.abspath(path) for path in given.paths]
    paths = paths or [os.path.join(root, folder) for folder in ("operator", "tools/kestactl")]
    with open(os.path.join(given.build, "compile_commands.json"), encoding="utf-8") as file:
        entries = {}
        for entry in json.load(file):
            path = entry["file"]
            if any(path == one or path.startswith(one + "/") for one in paths):
                entries.setdefault(path, entry)
    if not entries:
        sys.exit("no file of these is compiled there")
    measured = []
    with tempfile.TemporaryDirectory() as folder:
        made = os.path.join(folder, "made.o")
        for name in given.header:
            source = os.path.join(folder, "header.cpp")
            with open(source, "w", encoding="utf-8") as file:
                file.write(f"#include <{name}>\n")
            seconds = least_seconds(next(iter(entries.values())), source, made, given.runs)
            print(f"{seconds:6.2f} <{name}>", flush=True)
        for path in sorted(entries):
            seconds = least_seconds(entries[path], path, made, given.runs)
            measured.append((seconds, os.path.relpath(path, root)))
    for seconds, path in sorted(measured, reverse=True):
        print(f"{seconds:6.2f} {path}")
    print(f"{sum(seconds for seconds, _ in measured):6.2f} in all, {len(measured)} files")


if __name__ == "__main__":
    main()
