#!/usr/bin/env python3
"""Reads the sources with clang-tidy, each one that has changed since it was found clean.

usage: tidy.py BUILD [--jobs N] [--write]

BUILD is a folder built by clang, whose compile commands and dependencies are asked. A source is clean as it stands if
scripts/tidy_clean.txt has its name with the digest of all that clang-tidy looks at: the source, the headers of
the project that it includes, its compile command, the checks and clang-tidy's version. Everything else is
read now. With --write the list is written anew, once all are clean: read what you have changed with it before you commit.
"""

import argparse
import concurrent.futures
import hashlib
import json
import os
import re
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))
LIST = os.path.join(ROOT, "scripts", "tidy_clean.txt")
FOLDERS = ("common", "platform", "operator", "tools", "lab")


def inside(path):
    """The path from the project's root, or None for what is made or belongs to the system."""
    path = os.path.relpath(path, ROOT)
    return None if path.startswith(("..", "build" + os.sep)) else path


def dependencies(build):
    """The project's files that each object was made of."""
    found, current = {}, None
    text = subprocess.run(["ninja", "-C", build, "-t", "deps"], check=True, capture_output=True, text=True).stdout
    for line in text.splitlines():
        if line.startswith("    "):
            path = inside(os.path.join(build, line.strip()))
            if path:
                current.add(path)
        elif ": #deps" in line:
            current = found.setdefault(line.split(": #deps")[0], set())
    return found


def digest(parts):
    total = hashlib.sha256()
    for part in parts:
        total.update(part.encode() + b"\0")
    return total.hexdigest()[:32]


def sources(build):
    """Each source in FOLDERS, with its digest."""
    with open(os.path.join(build, "compile_commands.json"), encoding="utf-8") as file:
        commands = json.load(file)
    made_of = dependencies(build)
    version = subprocess.run(["clang-tidy", "--version"], check=True, capture_output=True, text=True).stdout
    with open(os.path.join(ROOT, ".clang-tidy"), encoding="utf-8") as file:
        common = [re.search(r"version \S+", version).group(), file.read()]
    contents, found = {}, {}
    for entry in commands:
        name = inside(entry["file"])
        if name is None or name.split(os.sep)[0] not in FOLDERS or not name.endswith(".cpp"):
            continue
        built = re.search(r" -o (\S+)", entry["command"]).group(1)
        if built not in made_of:
            sys.exit(f"{name} is not built: build {build} first")
        # Without the compiler's name, which may have a launcher before it.
        options = entry["command"][entry["command"].index(" -"):]
        parts = [options.replace(build, "BUILD").replace(ROOT, "ROOT")]
        for path in sorted(made_of[built] | {name}):
            if path not in contents:
                with open(os.path.join(ROOT, path), encoding="utf-8") as file:
                    contents[path] = digest([file.read()])
            parts += [path, contents[path]]
        found.setdefault(name, []).append(digest(parts))
    # A source of two targets has two commands, and clang-tidy reads it with both.
    return {name: digest(common + sorted(digests)) for name, digests in found.items()}


def known_clean():
    if not os.path.exists(LIST):
        return {}
    with open(LIST, encoding="utf-8") as file:
        return {line.split()[1]: line.split()[0] for line in file}


def read(build, name):
    result = subprocess.run(["clang-tidy", "-quiet", "-p", build, os.path.join(ROOT, name)], capture_output=True, text=True)
    return name, result.returncode == 0, result.stdout + result.stderr


def main():
    options = argparse.ArgumentParser()
    options.add_argument("build")
    options.add_argument("--jobs", type=int, default=os.cpu_count())
    options.add_argument("--write", action="store_true")
    options = options.parse_args()
    build = os.path.realpath(options.build)

    all_sources = sources(build)
    clean = known_clean()
    unknown = [name for name, key in sorted(all_sources.items()) if clean.get(name) != key]
    print(f"clang-tidy: {len(all_sources)} sources, {len(unknown)} of them not known to be clean", flush=True)
    failed = []
    with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
        for name, passed, text in pool.map(lambda name: read(build, name), unknown):
            if not passed:
                failed.append(name)
                print(text)
    if options.write:
        with open(LIST, "w", encoding="utf-8") as file:
            file.writelines(f"{key} {name}\n" for name, key in sorted(all_sources.items()) if name not in failed)
    if failed:
        sys.exit("clang-tidy: not clean: " + ", ".join(failed))


if __name__ == "__main__":
    main()
