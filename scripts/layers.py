#!/usr/bin/env python3
"""Who uses whom: holds the includes, the symbols and the link lines against the table of CONTRIBUTING.md.

usage: layers.py SOURCE [BUILD]    BUILD: a build tree, whose objects are read too

The table gives each folder of code those that it may use; what these may use it may use as well. It fails on an arrow
that the table does not allow, and on a cycle between files or between folders:
  - an include of a header that stands in another folder
  - a symbol of an object that an object of another folder defines (a declaration needs no include)
  - a folder in target_link_libraries that the table does not give, and the other way round
It fails too on a path that a program states anew: each stands once, in include/kesta/paths.h; and on a header that
takes long to compile where it is not to be: those of the option parser and of JSON are included by one file each.
"""
import collections
import os
import re
import subprocess
import sys

PLAN = "CONTRIBUTING.md"
HEADING = "| folder | may use | what lives there |"
CODE = (".h", ".c", ".cpp")

# What is declared in a header for everybody is used through it, wherever it is defined.
DECLARED_IN = (("include/kesta/", re.compile(r"^(?:kestal?_\w+|g_version_file_sync)$")),)
CONTRACT = "platform/contract/"

PATHS = "include/kesta/paths.h"
PATH_USERS = ("common/", "operator/", "tools/")

# Headers of the system and who may include them. What a header includes, all who include it compile: seconds each.
PARSERS = (("nlohmann/", ("operator/json_value.cpp",)), ("CLI/", ("tools/options/options.cpp",)))
DEAR_IN_HEADERS = ("filesystem", "fstream", "iostream", "regex", "sstream")
DEAR_USERS = ("operator/", "tools/")


def read_table(source):
    """Each folder of the table with those that its row names."""
    rows = {}
    with open(os.path.join(source, PLAN), encoding="utf-8") as file:
        lines = iter(file.read().split("\n"))
    for line in lines:
        if line.startswith(HEADING):
            break
    for line in lines:
        if not line.startswith("|"):
            break
        cells = [cell.strip() for cell in line.strip("|").split("|")]
        uses = re.findall(r"`([\w/]+/)`", cells[1])
        for folder in re.findall(r"`([\w/]+/)`", cells[0]):
            if uses or cells[1] in ("nothing", "---"):
                rows[folder] = uses
    return rows


def reached(rows, folder):
    """All that a folder may use."""
    seen = set()
    left = list(rows[folder])
    while left:
        at = left.pop()
        if at not in seen:
            seen.add(at)
            left += rows.get(at, [])
    return seen


def folder_of(rows, path):
    """The longest folder of the table that a path stands in; None for what the table leaves free."""
    found = [folder for folder in rows if path.startswith(folder)]
    return max(found, key=len) if found else None


def files_of(source, rows):
    for top in sorted({folder.split("/")[0] for folder in rows}):
        for at, folders, names in os.walk(os.path.join(source, top)):
            folders.sort()
            for name in sorted(names):
                path = os.path.relpath(os.path.join(at, name), source)
                if name.endswith(CODE) and folder_of(rows, path):
                    yield path


def find_header(path, name, by_end):
    """The file that an include means: beside the one that includes it, or the one that is called so."""
    beside = os.path.normpath(os.path.join(os.path.dirname(path), name))
    candidates = by_end.get(os.path.basename(name), [])
    if beside in candidates:
        return beside
    fitting = [one for one in candidates if one.endswith("/" + name)]
    if len(fitting) > 1:
        # Folders that a file may not use are not in its path, nor are their headers meant.
        return fitting
    return fitting[0] if fitting else None


def cycles_in(edges):
    """The nodes of a graph that lie on cycles, in groups that reach one another."""
    order, lowest, path, groups = {}, {}, [], []

    def visit(node):
        order[node] = lowest[node] = len(order)
        path.append(node)
        for used in sorted(edges.get(node, ())):
            if used not in order:
                visit(used)
            if used in path:
                lowest[node] = min(lowest[node], lowest[used])
        if lowest[node] == order[node]:
            group = path[path.index(node):]
            del path[path.index(node):]
            if len(group) > 1:
                groups.append(sorted(group))

    sys.setrecursionlimit(100000)
    for node in sorted(edges):
        if node not in order:
            visit(node)
    return groups


class Arrows:
    """The arrows between files, and what is said against them."""

    def __init__(self, rows):
        self.rows = rows
        self.allowed = {folder: reached(rows, folder) | {folder} for folder in rows}
        self.files = collections.defaultdict(set)
        self.faults = []

    def add(self, user, used, why, counts_for_files=True):
        user_folder = folder_of(self.rows, user)
        used_folder = folder_of(self.rows, used)
        if not user_folder or not used_folder:
            return
        if used_folder not in self.allowed[user_folder]:
            self.faults.append(f"{user} may not use {used_folder}: {why}")
        # A header and the source of its name are one.
        user_unit, used_unit = (os.path.splitext(path)[0] for path in (user, used))
        if counts_for_files and user_unit != used_unit:
            self.files[user_unit].add(used_unit)

    def look_for_cycles(self):
        for group in cycles_in(self.files):
            self.faults.append("a cycle of files: " + ", ".join(group))
        # Where all arrows are those of the table, folders have no cycle that it has not.
        for group in cycles_in(self.rows):
            self.faults.append("a cycle of folders in the table: " + ", ".join(group))


def read_includes(source, rows, arrows):
    paths = list(files_of(source, rows))
    by_end = collections.defaultdict(list)
    for path in paths:
        by_end[os.path.basename(path)].append(path)
    for path in paths:
        with open(os.path.join(source, path), encoding="utf-8") as file:
            for number, line in enumerate(file, 1):
                found = re.match(r'\s*#\s*include\s+"([^"]+)"', line)
                if not found:
                    continue
                header = find_header(path, found.group(1), by_end)
                if isinstance(header, list):
                    usable = [one for one in header if folder_of(rows, one) in arrows.allowed[folder_of(rows, path)]]
                    header = usable[0] if usable else header[0]
                if header:
                    arrows.add(path, header, f"line {number} includes {found.group(1)}")
    return len(paths)


def contract_names(source):
    """What the platform's libraries are called by."""
    names = set()
    folder = os.path.join(source, CONTRACT)
    for name in sorted(os.listdir(folder)) if os.path.isdir(folder) else []:
        with open(os.path.join(folder, name), encoding="utf-8") as file:
            names |= set(re.findall(r"\b(\w+)\s*\(", file.read()))
    return names


def symbols_of(path):
    """What an object wants, and what it alone defines."""
    wants, defines = set(), set()
    shown = subprocess.run(["nm", path], capture_output=True, text=True, check=True).stdout
    for line in shown.split("\n"):
        fields = line.split()
        if len(fields) == 2 and fields[0] == "U":
            wants.add(fields[1])
        elif len(fields) == 3 and fields[1] in "TDBR":  # what templates leave in every object is weak
            defines.add(fields[2])
    return wants, defines


def source_of(source, build, path):
    """The source that an object was made of: .../CMakeFiles/TARGET.dir/FILE.o stands for FILE."""
    found = re.match(r"(.*?)/?CMakeFiles/[^/]+\.dir/(.+)\.o$", os.path.relpath(path, build))
    if not found:
        return None
    made_of = os.path.normpath(os.path.join(found.group(1), found.group(2)))
    return made_of if os.path.exists(os.path.join(source, made_of)) else None


def read_symbols(source, build, rows, arrows):
    objects = {}
    for at, _, names in os.walk(build):
        for name in names:
            path = os.path.join(at, name)
            made_of = source_of(source, build, path) if name.endswith(".o") else None
            if made_of and folder_of(rows, made_of):
                objects[made_of] = symbols_of(path)
    contract = contract_names(source)
    # A benchmark stands in for calls of the system (it counts them), kestactl for the platform's trace log: nobody else
    # is linked with what they define so.
    defined_in = {symbol: made_of for made_of, (_, defines) in sorted(objects.items()) for symbol in defines
                  if not made_of.startswith("bench/") and (made_of.startswith("platform/") or symbol not in contract)}
    for made_of, (wants, _) in sorted(objects.items()):
        for symbol in sorted(wants):
            used = defined_in.get(symbol)
            if not used or used == made_of:
                continue
            here, there = (path.split("/")[0] for path in (made_of, used))
            if here != there and symbol in contract:
                arrows.add(made_of, CONTRACT, f"it calls {symbol}", False)
                continue
            public = [folder for folder, names in DECLARED_IN if names.match(symbol)]
            if here != there and public:
                arrows.add(made_of, public[0], f"it calls {symbol}", False)
            else:
                arrows.add(made_of, used, f"it calls {symbol} of {used}")
    return len(objects)


def read_link_lines(source, rows, arrows):
    """The parts of the library: their link lines are the rows."""
    for folder in rows:
        page = os.path.join(source, folder, "CMakeLists.txt")
        if not folder.startswith("common/"):
            continue
        if not os.path.exists(page):
            arrows.faults.append(f"{folder} has no CMakeLists.txt")
            continue
        with open(page, encoding="utf-8") as file:
            found = re.search(r"target_link_libraries\(kesta_\w+ PUBLIC ([^)]*)\)", file.read())
        names = {"interface": "include/kesta/", "platform_contract": CONTRACT}
        linked = set()
        for word in found.group(1).split() if found else []:
            if word.startswith("kesta_"):
                linked.add(names.get(word[len("kesta_"):], f"common/{word[len('kesta_'):]}/"))
        if linked != set(rows[folder]):
            arrows.faults.append(f"{folder}CMakeLists.txt links {sorted(linked)}, the table has {sorted(rows[folder])}")


def find_paths(source, rows, arrows):
    """Literals that begin with a path, or a folder, of the header of paths."""
    header = os.path.join(source, PATHS)
    if not os.path.exists(header):
        arrows.faults.append(f"{PATHS} is missing")
        return
    with open(header, encoding="utf-8") as file:
        paths = re.findall(r'#define \w+ "(/[^"]+)"', file.read())
    stated = re.compile('"(?:%s)' % "|".join(re.escape(path) for path in paths))
    for path in files_of(source, rows):
        if not path.startswith(PATH_USERS):
            continue
        with open(os.path.join(source, path), encoding="utf-8") as file:
            for number, line in enumerate(file, 1):
                found = stated.search(line.split("//")[0])
                if found:
                    arrows.faults.append(f"{path} line {number} states a path of {PATHS}: {found.group(0)[1:]}")


def find_dear_headers(source, rows, arrows):
    """Includes of what takes long to compile, where many would pay for it."""
    for path in files_of(source, rows):
        if not path.startswith(DEAR_USERS):
            continue
        with open(os.path.join(source, path), encoding="utf-8") as file:
            for number, line in enumerate(file, 1):
                found = re.match(r"\s*#\s*include\s+<([^>]+)>", line)
                if not found:
                    continue
                name = found.group(1)
                users = [users for prefix, users in PARSERS if name.startswith(prefix)]
                if (users and path not in users[0]) or (path.endswith(".h") and name in DEAR_IN_HEADERS):
                    arrows.faults.append(f"{path} line {number} includes <{name}>, which takes long to compile")


def main():
    source = sys.argv[1]
    rows = read_table(source)
    arrows = Arrows(rows)
    for folder, uses in rows.items():
        for used in uses:
            if used not in rows:
                arrows.faults.append(f"the table lets {folder} use {used}, which it has no row for")
    if len(rows) < 10 or arrows.faults:
        sys.exit("\n".join(arrows.faults) or f"{PLAN} has no table of folders")
    files = read_includes(source, rows, arrows)
    objects = read_symbols(source, sys.argv[2], rows, arrows) if len(sys.argv) > 2 else 0
    read_link_lines(source, rows, arrows)
    arrows.look_for_cycles()
    find_paths(source, rows, arrows)
    find_dear_headers(source, rows, arrows)
    for fault in arrows.faults:
        print(fault, file=sys.stderr)
    print(f"{len(rows)} folders, {files} files, {objects} objects: {len(arrows.faults)} faults")
    sys.exit(1 if arrows.faults else 0)


if __name__ == "__main__":
    main()
