#!/usr/bin/env python3
"""Prints the four storage places of an appliance as one table.

Arguments: the output of "kestactl --json status --archives", one file per controller.
"""
import json
import sys


def cell(archive):
    if archive["state"] != "ok":
        return "-" if archive["state"].startswith("none") else archive["state"]
    return f'{archive["size"] / 1e6:.2f} MB {archive["sha256"][:8]}'


def main(paths):
    states = []
    for path in paths:
        with open(path, encoding="utf-8") as file:
            states.append(json.load(file)["result"])

    rows = [("", [f'CNT{state["controller"]}' for state in states])]
    for index, archive in enumerate(states[0]["archives"]):
        rows.append((f'{archive["place"]}: {archive["path"].rsplit("/", 1)[-1]}',
                     [cell(state["archives"][index]) for state in states]))
    rows.append(("NV memory: backup slot", [state["backup_slot"] for state in states]))
    rows.append(("NV memory: accept slot", [state["accept_slot"] for state in states]))

    for title, cells in rows:
        print(f"{title:<34}" + "".join(f"{text:<20}" for text in cells).rstrip())


if __name__ == "__main__":
    main(sys.argv[1:])
