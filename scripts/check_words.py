#!/usr/bin/env python3
"""Looks for what must not be in a committed file.

Everywhere: absolute paths that exist on one machine only, CR line ends, a missing last newline.
In text that people write: open notes (to-do marks), tabs, trailing blanks, and in sources lines
of more than 100 columns. Generated files are never committed; data files are only searched for
paths.
"""

import os
import re
import subprocess
import sys

MAX_COLUMNS = 100
SOURCE = re.compile(r"(\.(c|cpp|h|S|l|py|sh|cmake)|CMakeLists\.txt|\.ci/run)$")
# Seeds, golden bytes, tables of data: their lines are what they are.
DATA = re.compile(r"(^|/)(corpus|golden|data)/|\.(bin|txt|tsv|csv|json|def|svg|png)$")
SCRIPT_LISTS = ("CMakeLists.txt",)  # the .txt files that are sources all the same

# The pieces keep this file from finding itself.
OPEN_NOTE = re.compile(r"\b(?:" + "|".join(("TO" "DO", "FIX" "ME", "XX" "X")) + r")\b")
# Not the tail of a path, as in $HOME/work/x or folder + "/home/x".
HOME_PATH = re.compile(r"(?<![\w.$}/-])(?<!\+ \")/(?:home|root|work|Users)/\w")
HERE_DOCUMENT = re.compile(r"(?<!<)<<-?'?(\w+)'?")


def tracked_files(root):
    try:
        listed = subprocess.run(
            ["git", "-C", root, "ls-files", "-z"], check=True, capture_output=True
        )
        return [name for name in listed.stdout.decode().split("\0") if name]
    except (OSError, subprocess.CalledProcessError):
        found = []  # an unpacked release has no git folder
        for folder, folders, names in os.walk(root):
            folders[:] = [f for f in folders if f != "build" and f != ".git"]
            found += [os.path.relpath(os.path.join(folder, name), root) for name in names]
        return sorted(found)


def own_paths(root):
    """Where this checkout lies, and the folder around it, unless that is a general one."""
    real = os.path.realpath(root)
    around = os.path.dirname(real)
    return [path for path in (real, around) if path.count("/") >= 2]


def wide_lines_allowed(name, lines):
    """The numbers of lines that are text inside a script's here-documents."""
    allowed, end = set(), None
    for number, line in enumerate(lines, 1):
        if end is not None:
            allowed.add(number)
            end = None if line.strip() == end else end
        elif name.endswith(".sh"):
            opened = HERE_DOCUMENT.search(line)
            end = opened.group(1) if opened else None
    return allowed


def findings_in_line(line, is_source, is_data, machine_paths):
    if HOME_PATH.search(line) or any(path in line for path in machine_paths):
        yield "a path of one machine"
    if is_data:
        return
    if OPEN_NOTE.search(line):
        yield "an open note"
    if "\t" in line:
        yield "a tab"
    if line.endswith("\r"):
        yield "a CR line end"
    elif line != line.rstrip():
        yield "trailing blanks"
    if is_source and len(line) > MAX_COLUMNS:
        yield f"{len(line)} columns, {MAX_COLUMNS} at most"


def findings_in_file(root, name, machine_paths):
    path = os.path.join(root, name)
    if os.path.islink(path) or not os.path.isfile(path):
        return
    with open(path, "rb") as file:
        content = file.read()
    if b"\0" in content:
        return
    text = content.decode("utf-8", errors="replace")
    is_list = os.path.basename(name) in SCRIPT_LISTS
    is_source = bool(SOURCE.search(name))
    is_data = bool(DATA.search(name)) and not is_list
    lines = text.split("\n")
    wide = wide_lines_allowed(name, lines)
    for number, line in enumerate(lines, 1):
        bounded = is_source and number not in wide
        for finding in findings_in_line(line, bounded, is_data, machine_paths):
            yield number, finding
    if text and not text.endswith("\n") and not is_data:
        yield text.count("\n") + 1, "no newline at the end"


def main():
    root = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
    machine_paths = own_paths(root)
    count = 0
    for name in tracked_files(root):
        for number, finding in findings_in_file(root, name, machine_paths):
            print(f"{name}:{number}: {finding}", file=sys.stderr)
            count += 1
    return 1 if count else 0


if __name__ == "__main__":
    sys.exit(main())
