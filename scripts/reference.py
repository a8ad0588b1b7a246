#!/usr/bin/env python3
"""The reference of the library, made from the comments of its headers.

usage: reference.py filter HEADER    the header as Doxygen reads it, on stdout

Fails where a function has no comment. interface.py makes the manual page.
"""
import os
import re
import sys


def comment_text(lines):
    """The lines of a comment, without its marks."""
    text = "\n".join(lines)
    text = re.sub(r"^/\*\s?", "", text)
    text = re.sub(r"\s*\*/\s*$", "", text)
    cleaned = [re.sub(r"^ \* ?", "", line).rstrip() for line in text.split("\n")]
    while cleaned and not cleaned[0]:
        cleaned.pop(0)
    while cleaned and cleaned[-1] in ("", " *"):
        cleaned.pop()
    return cleaned


def pieces(path):
    """A header as ('comment', lines), ('function', lines), ('blank', ['']) and ('other', line)."""
    with open(path, encoding="utf-8") as file:
        lines = file.read().split("\n")
    at = 0
    while at < len(lines):
        first = at
        if lines[at].startswith("/*"):
            while "*/" not in lines[at]:
                at += 1
            kind = "comment"
        elif lines[at].startswith("KESTA_API"):
            while ";" not in lines[at]:
                at += 1
            kind = "function" if "(" in "".join(lines[first : at + 1]) else "variable"
        else:
            kind = "blank" if not lines[at].strip() else "other"
        yield kind, lines[first : at + 1]
        at += 1


def name_of(declaration):
    found = re.search(r"\b((?:kestal?|g)_\w+)\s*(?:\(|;|\[)", " ".join(declaration))
    return found.group(1) if found else "?"


def documented(path):
    """(declarations, comment) of all that the header exports; declarations in a row share a comment."""
    result = []
    comment = None
    previous = None
    for kind, lines in pieces(path):
        if kind == "comment":
            comment = comment_text(lines)
        elif kind in ("function", "variable"):
            if previous in ("function", "variable"):
                result[-1][0].append(lines)
            elif comment is None:
                sys.exit(f"{path}: {name_of(lines)} has no comment")
            else:
                result.append(([lines], comment))
            comment = None
        else:
            comment = None
        previous = kind
    return result


# ------------------------------------------------------------------------------------- manual page


def roff(line):
    line = line.replace("\\", "\\e").replace("-", "\\-")
    return "\\&" + line if line[:1] in (".", "'") else line


def preformatted(lines):
    return [".nf"] + [roff(line) for line in lines] + [".fi"]


def man(template, headers):
    """The manual page."""
    page = []
    for header in headers:
        entries = documented(header)
        if not entries:
            continue
        title = comment_text(next(lines for kind, lines in pieces(header) if kind == "comment"))
        page += [f'.SS "<kesta/{os.path.basename(header)}>"', *preformatted(title)]
        for declarations, comment in entries:
            page.append(".PP")
            page.append(".nf")
            for declaration in declarations:
                for number, line in enumerate(declaration):
                    text = line.replace("KESTA_API ", "") if number == 0 else "    " + line.strip()
                    page.append(".B " + '"' + roff(text).replace('"', '""') + '"')
            page += [".fi", ".RS 4", *preformatted(comment), ".RE"]
    with open(template, encoding="utf-8") as file:
        text = file.read()
    return text.replace('.\\" The functions\n', "\n".join(page) + "\n")


# ----------------------------------------------------------------------------------------- Doxygen


def plain(text):
    """What Doxygen would take for commands is text."""
    text = re.sub(r"([\\@<>#%&])", r"\\\1", text).replace("*", "&#42;")
    return "\\" + text if text.startswith(".") else text


def doxygen_comment(text, command=""):
    """The first paragraph runs on, the rest keeps its lines."""
    end = text.index("") if "" in text else len(text)
    out = ["/**" + (f" {command}" if command else "")]
    out += [f" * {plain(line)}" for line in text[:end]]
    if text[end + 1 :]:
        out += [" * @verbatim", *text[end + 1 :], "@endverbatim"]
    return out + [" */"]


def with_trailing(line):
    return re.sub(r"(\S)\s+/\*\s+(.*?)\s*\*/$",
                  lambda found: f"{found.group(1)} /**< {plain(found.group(2))} */", line)


def doxygen(path):
    parts = list(pieces(path))
    out = []
    is_first = True
    previous = None
    last_function = None
    for number, (kind, lines) in enumerate(parts):
        following = parts[number + 1][0] if number + 1 < len(parts) else "blank"
        if kind == "comment" and is_first:
            out += doxygen_comment(comment_text(lines), f"@file {os.path.basename(path)}\n *")
            is_first = False
        elif kind == "comment" and following in ("function", "variable", "other"):
            out += doxygen_comment(comment_text(lines))
        elif kind == "function":
            if previous == "function":
                out.append(f"/** See {last_function}(): the two share their comment. */")
            last_function = name_of(lines)
            out += lines
        else:
            out += [with_trailing(line) for line in lines]
        previous = kind
    documented(path)
    sys.stdout.write("\n".join(out))


if __name__ == "__main__":
    if len(sys.argv) != 3 or sys.argv[1] != "filter":
        sys.exit(__doc__)
    doxygen(sys.argv[2])
