#!/usr/bin/env python3
"""What is made of the declarations in the public headers: each exported name stands there, and nowhere else by hand.

usage: interface.py --write [SOURCE]    makes these files anew
       interface.py --check [SOURCE]    fails where one of them is not what the headers say

  common/libkesta.map              what the library exports, and under which version
  tests/abi/exported_symbols.txt   what it is held against
  debian/libkesta1.symbols         the same for packages that use it, with the release that brought it
  docs/man/libkesta.3              the manual page
"""
import glob
import os
import re
import sys

sys.dont_write_bytecode = True  # the checkout stays as it is
import reference  # noqa: E402

# The functions of the first version, and what came to them: a name stays in its node for the life of the SONAME.
NODES = (("KESTA_1", re.compile(r"kestal_|g_")), ("KESTA_1.1", re.compile(r"kesta_")))


def node_of(name):
    return next(node for node, pattern in NODES if pattern.match(name))


def exported(headers):
    """(header, its names) in the headers' order."""
    result = []
    for header in headers:
        names = [reference.name_of(declaration) for declarations, _ in reference.documented(header)
                 for declaration in declarations]
        if names:
            result.append((header, names))
    return result


def export_map(interface):
    lines = ["/* Made by scripts/interface.py of the public headers. */"]
    before = None
    for node, _ in NODES:
        lines += [f"{node} {{", "    global:"]
        for header, names in interface:
            chosen = [name for name in names if node_of(name) == node]
            if chosen:
                lines.append(f"        /* {os.path.basename(header)} */")
                lines += [f"        {name};" for name in chosen]
        if before is None:
            lines += ["    local:", "        *;"]
        lines += [f"}}{' ' + before if before else ''};", ""]
        before = node
    return "\n".join(lines[:-1]) + "\n"


def symbol_list(interface):
    lines = ["# The binary interface: every symbol of libkesta.so.1. What is there stays for the life of the SONAME.",
             "# Made by scripts/interface.py of the public headers."]
    return "\n".join(lines + sorted(name for _, names in interface for name in names)) + "\n"


def debian_symbols(interface, source):
    with open(os.path.join(source, "CMakeLists.txt"), encoding="utf-8") as file:
        release = re.search(r"project\(kesta VERSION (\S+)", file.read()).group(1)
    known = {}  # which release brought a name
    path = os.path.join(source, "debian/libkesta1.symbols")
    if os.path.exists(path):
        with open(path, encoding="utf-8") as file:
            known = dict(line.split() for line in file if line.startswith(" "))
    lines = ["libkesta.so.1 libkesta1 #MINVER#"]
    wanted = [f"{node}@{node}" for node, _ in NODES]
    wanted += sorted(f"{name}@{node_of(name)}" for _, names in interface for name in names)
    return "\n".join(lines + [f" {name} {known.get(name, release)}" for name in wanted]) + "\n"


def main():
    if len(sys.argv) not in (2, 3) or sys.argv[1] not in ("--write", "--check"):
        sys.exit(__doc__)
    source = sys.argv[2] if len(sys.argv) == 3 else os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
    headers = sorted(glob.glob(os.path.join(source, "include/kesta/*.h")))
    interface = exported(headers)
    made = {
        "common/libkesta.map": export_map(interface),
        "tests/abi/exported_symbols.txt": symbol_list(interface),
        "debian/libkesta1.symbols": debian_symbols(interface, source),
        "docs/man/libkesta.3": reference.man(os.path.join(source, "docs/man/libkesta.3.in"), headers),
    }
    stale = []
    for name, text in made.items():
        path = os.path.join(source, name)
        with open(path, encoding="utf-8") as file:
            if file.read() != text:
                stale.append(name)
        if sys.argv[1] == "--write" and name in stale:
            with open(path, "w", encoding="utf-8") as file:
                file.write(text)
    if sys.argv[1] == "--check" and stale:
        sys.exit(f"not what the headers say: {', '.join(stale)}; run scripts/interface.py --write")


if __name__ == "__main__":
    main()
