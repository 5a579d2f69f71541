#!/usr/bin/env python3
"""layouts.py: sizes and alignments of all public classes and their private parts are the same for g++ and clang++, as C++17 and as C++20, at 32 bits. Run from the top of the tree."""
import glob
import re
import subprocess
import sys
import tempfile

FLAGS = "-m32 -msse2 -mfpmath=sse -D_FILE_OFFSET_BITS=64 -I. -Ikiv/include -Isegmem/include -Insjoin/include".split()
OURS = re.compile(r"(Veltro|Kiv|KivVeltro|Mem)::")


def headers():
    """All public headers but the one that needs libevent's."""
    found = glob.glob("Veltro/*.h") + glob.glob("*/include/*/*.h")
    inside = {re.sub(r".*/include/", "", header) for header in found}
    return "".join(f'#include "{header}"\n' for header in sorted(inside - {"Veltro/LibeventFactoryCpp.h"}))


def of_gcc(standard, text, folder):
    command = ["g++", f"-std={standard}", *FLAGS, "-fdump-lang-class=classes", "-c", "-x", "c++", "-", "-o", "out.o"]
    command = [word.replace("-I", f"-I{ROOT}/") if word.startswith("-I") else word for word in command]
    subprocess.run(command, input=text, text=True, cwd=folder, check=True)
    dump = open(f"{folder}/classes").read()
    pattern = r"^Class (\S.*)\n +size=(\d+) align=(\d+)\n +base size=(\d+) base align=(\d+)"
    return {m[1]: m.groups()[1:] for m in re.finditer(pattern, dump, re.MULTILINE)}


def main():
    text = headers()
    with tempfile.TemporaryDirectory() as folder:
        table = of_gcc("c++17", text, folder)
    table = {name: sizes for name, sizes in table.items() if OURS.match(name) and "<" not in name}
    checks = "".join(
        f'static_assert(sizeof({name}) == {size} && alignof({name}) == {align}, "{name}: {size}, {align}");\n'
        for name, (size, align, *_) in table.items()
    )
    wrong = 0
    for compiler, standard in (("g++", "c++20"), ("clang++", "c++17"), ("clang++", "c++20")):
        # Without access control, for private classes are part of the layout too.
        command = [compiler, f"-std={standard}", *FLAGS, "-fsyntax-only", "-fno-access-control", "-x", "c++", "-"]
        wrong |= subprocess.run(command, input=text + checks, text=True).returncode
    print(f"{len(table)} classes: {'differences' if wrong else 'equal'} for g++ and clang++, C++17 and C++20")
    return 1 if wrong or len(table) < 50 else 0


ROOT = subprocess.run(["pwd"], capture_output=True, text=True).stdout.strip()
sys.exit(main())
