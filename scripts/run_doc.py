#!/usr/bin/env python3
"""Runs a page's commands as they are written, and holds what they print against the page.

  run_doc.py PAGE [BIN_FOLDER]

In blocks marked "console", a line "$ COMMAND" is run; the lines behind it are what it has to print, on
both channels. "..." in a line stands for anything in that line, a line "..." for any lines. "(exit N)" at
the end is the exit code; without it that has to be 0. A line "> TEXT" continues the command. All commands
of a page run in one shell, in a new folder.
"""
import os
import re
import shutil
import subprocess
import sys
import tempfile

MARK = "--- end of command ---"


def commands_of(page):
    """(line number, command, expected lines) of every command."""
    found, inside = [], False
    with open(page, encoding="utf-8") as file:
        for number, line in enumerate(file, 1):
            line = line.rstrip("\n")
            if line.startswith("```"):
                inside = line == "```console" and not inside
            elif inside and line.startswith("$ "):
                found.append((number, line[2:], []))
            elif inside and found and line.startswith("> ") and not found[-1][2]:
                number, command, lines = found[-1]
                found[-1] = (number, command + "\n" + line[2:], lines)
            elif inside and found:
                found[-1][2].append(line)
    return found


def pattern_of(lines):
    parts = []
    for line in lines:
        if line.strip() == "...":
            parts.append(r"(?:.*\n)*?")
        else:
            parts.append(".*".join(re.escape(piece) for piece in line.split("...")) + r"\n")
    return "".join(parts)


def run(commands, folder, bin_folder):
    """The output and exit code of every command."""
    script = "".join(f"{{ {command}\n}} < /dev/null 2>&1\nprintf '\\n{MARK} %s\\n' $?\n"
                     for _, command, _ in commands)
    environment = dict(os.environ, HOME=folder)
    if bin_folder:
        environment["PATH"] = bin_folder + ":" + environment["PATH"]
    done = subprocess.run(["bash", "-c", script], cwd=folder, env=environment, text=True,
                          stdout=subprocess.PIPE, check=False)
    ends = list(re.finditer(rf"\n{MARK} (\d+)\n", done.stdout))
    starts = [0] + [end.end() for end in ends]
    return [(done.stdout[start:end.start()], int(end.group(1))) for start, end in zip(starts, ends)]


def check(command, outcome):
    """Whether the command did what the page says; tells if it didn't."""
    number, text, lines = command
    output, code = outcome
    expected_code = 0
    if lines and (ending := re.fullmatch(r"\(exit (\d+)\)", lines[-1].strip())):
        expected_code = int(ending.group(1))
        lines = lines[:-1]
    if output and not output.endswith("\n"):
        output += "\n"
    if code == expected_code and (not lines or re.fullmatch(pattern_of(lines), output)):
        return True
    print(f"line {number}: {text}\n  exit code {code}, expected {expected_code}")
    print("  printed:\n" + output)
    if lines:
        print("  the page says:\n" + "\n".join(lines))
    return False


def main(page, bin_folder=None):
    commands = commands_of(page)
    if not commands:
        sys.exit(f"{page}: no commands")
    memory = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
    folder = tempfile.mkdtemp(prefix="kesta-doc-", dir=memory)
    try:
        outcomes = run(commands, folder, bin_folder)
        good = [check(*pair) for pair in zip(commands, outcomes)]
    finally:
        # A lab that the page leaves behind.
        subprocess.run("for lab in */lab.conf; do [ ! -e \"$lab\" ] || "
                       f"PATH=\"{bin_folder or ''}:$PATH\" kesta-lab destroy \"${{lab%/*}}\"; done",
                       shell=True, cwd=folder, check=False)
        shutil.rmtree(folder, ignore_errors=True)
    if len(outcomes) != len(commands) or not all(good):
        sys.exit(f"{page}: {sum(good)} of {len(commands)} commands do what the page says")
    print(f"{page}: all {len(commands)} commands do what the page says")


if __name__ == "__main__":
    main(*sys.argv[1:])
