#!/usr/bin/env python3
"""Holds the lines that no test runs against those that docs/testing.md gives a reason for.

usage: coverage_left.py GCOVR_JSON PAGE
"""
import json
import re
import sys

report, page = sys.argv[1:]
rows = []  # (file, text of a line), and whether it is still needed
with open(page, encoding="utf-8") as file:
    for line in file:
        found = re.match(r"\| `([\w.]+)` \| `(.+?)` \|", line)
        if found:
            rows.append([found.group(1), found.group(2), False])

unexplained = []
lines = left = 0
with open(report, encoding="utf-8") as file:
    data = json.load(file)
for entry in data["files"]:
    name = entry["file"].rsplit("/", 1)[-1]
    with open(entry["file"], encoding="utf-8") as file:
        source = file.read().split("\n")
    counted = [line for line in entry["lines"] if not line.get("gcovr/noncode")]
    numbers = sorted(line["line_number"] for line in counted)
    missed = sorted(line["line_number"] for line in counted if line["count"] == 0)
    lines += len(numbers)
    left += len(missed)
    # Neighbours among the lines that count belong together.
    blocks = []
    for number in missed:
        if blocks and not [n for n in numbers if blocks[-1][-1] < n < number]:
            blocks[-1].append(number)
        else:
            blocks.append([number])
    for block in blocks:
        text = "\n".join(source[block[0] - 2 : block[-1]])
        reasons = [row for row in rows if row[0] == name and row[1] in text]
        for row in reasons:
            row[2] = True
        if not reasons:
            unexplained.append(f"{entry['file']}:{block[0]}: {source[block[0] - 1].strip()}")

print(f"{lines - left} of {lines} lines of common/ are run; {left} are left, with a reason in {page}")
for text in unexplained:
    print(f"no test runs it, and {page} has no reason: {text}", file=sys.stderr)
for name, text, needed in rows:
    if not needed:
        print(f"note: {name} '{text}' is run, or gone: its row can go", file=sys.stderr)
sys.exit(1 if unexplained else 0)
