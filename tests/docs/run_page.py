#!/usr/bin/env python3
"""run_page.py PAGE...: does in a fresh folder what a page of the guide tells its reader to do.

A code block whose first line names a file ("```cpp first.cpp") becomes that file. The "```sh" blocks
are run in order, in one shell that stops at the first failure. A "```text prints" block holds what
the shell blocks before it, since the last such block, have printed; "```text excerpt" holds lines of
it, in their order, where any number stands for any other, blanks for blanks and "..." for anything.
"```sh root" is run by the test of the packages.
"""
import re
import subprocess
import sys
import tempfile
from pathlib import Path

FENCE = re.compile(r"^```(\S+)[ ]?(.*)\n((?:.*\n)*?)```$", re.MULTILINE)


def is_excerpt(excerpt, text):
    """Whether all lines of the excerpt are found, in their order; says which one is not."""
    rest = iter(text.splitlines())
    for line in excerpt.splitlines():
        pattern = re.sub(r"\\\.\\\.\\\.", ".*", re.escape(line))
        pattern = re.sub(r"\d+", r"\\d+", re.sub(r"(\\ )+", r" +", pattern))
        if not any(re.search(pattern, printed) for printed in rest):
            print(f"not printed, or not in this place: {line}\nbut:\n{text}")
            return False
    return True


def script_of(text, folder):
    """Writes the page's files into the folder; returns its shell text and how many blocks it has."""
    lines, expected = ["set -euo pipefail", "trap 'kill $(jobs -p) 2>/dev/null || true' EXIT"], 0
    lines.append("exec 3>&1 >printed.out")
    for language, info, body in FENCE.findall(text):
        if language == "sh" and info == "":
            lines.append(body)
        elif language == "text" and info in ("prints", "excerpt"):
            expected += 1
            (folder / f"expected.{expected}").write_text(body)
            itself = f"{sys.executable} {Path(__file__).resolve()}"
            compare = "diff -u" if info == "prints" else f"{itself} --excerpt"
            lines.append(f"{compare} expected.{expected} printed.out >&3")
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
    if sys.argv[1] == "--excerpt":
        sys.exit(0 if is_excerpt(*(Path(name).read_text() for name in sys.argv[2:])) else 1)
    sys.exit(0 if all([run(Path(page)) for page in sys.argv[1:]]) else 1)
