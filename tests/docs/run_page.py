#!/usr/bin/env python3
"""run_page.py PAGE...: does in a fresh folder what a page of the guide tells its reader to do.

A code block whose first line names a file ("```cpp first.cpp") becomes that file. The "```sh" blocks
are run in order, in one shell that stops at the first failure. A "```text prints" block holds what
the shell blocks before it, since the last one of its kind, have printed. "```sh root" and
"```sh network" are for the reader only.
"""
import re
import subprocess
import sys
import tempfile
from pathlib import Path

FENCE = re.compile(r"^```(\S+)[ ]?(.*)\n((?:.*\n)*?)```$", re.MULTILINE)


def script_of(text, folder):
    """Writes the page's files into the folder; returns its shell text and how many blocks it has."""
    lines, expected = ["set -euo pipefail", "exec 3>&1 >printed.out"], 0
    for language, info, body in FENCE.findall(text):
        if language == "sh" and info == "":
            lines.append(body)
        elif (language, info) == ("text", "prints"):
            expected += 1
            (folder / f"expected.{expected}").write_text(body)
            lines.append(f"diff -u expected.{expected} printed.out >&3")
            lines.append("exec >printed.out")
        elif language != "sh" and info:
            (folder / info).write_text(body)
    return "\n".join(lines), expected


def run(page):
    with tempfile.TemporaryDirectory() as name:
        folder = Path(name)
        script, expected = script_of(page.read_text(), folder)
        if expected == 0:
            sys.exit(f"{page}: nothing in it says what it prints")
        status = subprocess.run(["bash", "-c", script], cwd=folder).returncode
        print(f"{page.name}: {expected} outputs compared, status {status}")
        return status == 0


if __name__ == "__main__":
    sys.exit(0 if all([run(Path(page)) for page in sys.argv[1:]]) else 1)
