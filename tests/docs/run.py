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


def blocks(document):
    """(line, info, text) of each fenced block."""
    fence = re.compile(r"^```(.*)\n((?:.*\n)*?)```$", re.M)
    for match in fence.finditer(document):
        yield document.count("\n", 0, match.start()) + 1, match[1], match[2]


def steps(text):
    """(command, output) of a console block; a command goes on after a backslash."""
    for part in re.split(r"^\$ ", text, flags=re.M)[1:]:
        command, output = re.match(r"((?:.*\\\n)*.*\n)((?:.*\n)*)", part).groups()
        yield command, output


def pattern(output):
    """What is printed, as an expression."""
    lines = [".*".join(map(re.escape, line.split("..."))) + "\n" for line in output.splitlines()]
    return re.compile("".join("(?:.*\n)*" if line == ".*\n" else line for line in lines))


class Shell:
    def __init__(self):
        streams = dict(stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.process = subprocess.Popen(["bash"], text=True, **streams)
        self.run("cd ~/src")

    def run(self, command):
        """What the command says, and what was started in the background said meanwhile."""
        self.process.stdin.write(f"{command}\necho '{MARK}'\n")
        self.process.stdin.flush()
        output = ""
        for line in self.process.stdout:
            if line.endswith(MARK + "\n"):
                return output + line[: -len(MARK) - 1]
            output += line
        return output + "(the shell ended)\n"


def main():
    with open(sys.argv[1], encoding="utf-8") as file:
        document = file.read()
    shell, count = Shell(), 0
    for line, info, text in blocks(document):
        if re.fullmatch(r"\w+ [\w.]+", info):
            shell.run(f"cat >{info.split()[1]} <<'END OF THE BLOCK'\n{text}END OF THE BLOCK")
        for command, expected in steps(text) if info == "console" else ():
            count += 1
            said = shell.run(command)
            if not pattern(expected).fullmatch(said):
                sys.exit(f"{sys.argv[1]}:{line}: $ {command}is printed with\n{expected}and said\n{said}")
    if count == 0:
        sys.exit(f"{sys.argv[1]}: no command in it")


if __name__ == "__main__":
    main()
