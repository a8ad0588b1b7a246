#!/usr/bin/env python3
"""Every kestactl command that a page names exists, with its options.

usage: commands_exist.py KESTACTL PAGE...
"""
import re
import subprocess
import sys

script = subprocess.run([sys.argv[1], "completion", "bash"], capture_output=True, text=True, check=True).stdout
# "        ' nv read') words='--help --from'": the words that may stand behind a command.
known = {
    path.strip(): set(words.split())
    for path, words in re.findall(r"^        '((?:(?! --)[^'])*)'\) words='([^']*)'", script, re.MULTILINE)
}
anywhere = known[""]
failed = False
checked = 0
for page in sys.argv[2:]:
    with open(page, encoding="utf-8") as file:
        text = file.read()
    for found in re.finditer(r"(?:^|[`\s('])kestactl ((?:[^`\n'|]|\\\|)+)", text):
        path = ""
        for word in found.group(1).split():
            word = word.rstrip(",.;:)")
            if word.startswith("--"):
                option = word.split("=")[0]
                if option == "--":
                    break
                if option not in known[path] | anywhere and option not in ("--help", "--version"):
                    print(f"{page}: kestactl {path} has no {option}", file=sys.stderr)
                    failed = True
            elif (path + " " + word).strip() in known:
                path = (path + " " + word).strip()
            elif path == "" and re.match(r"[a-z]+$", word):
                break  # a sentence about kestactl
        checked += path != ""
print(f"{checked} commands of the pages are there")
sys.exit(1 if failed or checked < 50 else 0)
