#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Runs what the documents print: run.py DOCUMENT, where a shell finds what DOCUMENT says.

In a block that is marked "console" a line "$ COMMAND" is typed into one shell for the whole document,
and what comes until the next one is compared with what is printed there; "..." stands for any text, or
alone on its line for any lines. A block marked with a file's name ("c hello.c") is put into that file.
"""

import re
import subprocess
import sys

MARK = "== the next command =="
FENCE = re.compile(r"^```(.*)\n((?:.*\n)*?)```$", re.M)
STEP = re.compile(r"^\$ ((?:.*\\\n)*.*\n)((?:(?!\$ ).*\n)*)", re.M)  # a command goes on after a backslash

shell = subprocess.Popen(
    ["bash"], text=True, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT
)


def run(command):
    """What the command says, and what was started in the background said meanwhile."""
    shell.stdin.write(f"{command}\necho '{MARK}'\n")
    shell.stdin.flush()
    output = ""
    for line in shell.stdout:
        if line.endswith(MARK + "\n"):
            return output + line[: -len(MARK) - 1]
        output += line
    return output + "(the shell ended)\n"


def pattern(output):
    """What is printed, as an expression."""
    lines = [".*".join(map(re.escape, line.split("..."))) + "\n" for line in output.splitlines()]
    return re.compile("".join("(?:.*\n)*" if line == ".*\n" else line for line in lines))


with open(sys.argv[1], encoding="utf-8") as file:
    document = file.read()
run("cd ~/src")
count = 0
for fence in FENCE.finditer(document):
    info, text = fence.groups()
    if re.fullmatch(r"\w+ [\w.]+", info):
        run(f"cat >{info.split()[1]} <<'END OF THE BLOCK'\n{text}END OF THE BLOCK")
    for command, expected in STEP.findall(text) if info == "console" else ():
        count += 1
        said = run(command)
        if not pattern(expected).fullmatch(said):
            line = document.count("\n", 0, fence.start()) + 1
            sys.exit(f"{sys.argv[1]}:{line}: $ {command}is printed with\n{expected}and said\n{said}")
if count == 0:
    sys.exit(f"{sys.argv[1]}: no command in it")
