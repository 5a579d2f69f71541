#!/usr/bin/env python3
"""doxygen_filter.py HEADER: the header as Doxygen shall read it, on standard output.

Our headers say things once: a "///" comment speaks for all declarations that follow it without a
blank line between, and one on a struct for its fields. Doxygen wants one for each, so it is repeated here. What has nothing to say is
left out: destructors, and what is deleted or defaulted. A "//" comment behind a declaration counts
as its description, and names that mean the same in every class have theirs below. The number of
lines changes; the gate's messages name the declaration.
"""
import re
import sys

COMMON = {
    r"\[\[noreturn\]\] static void throwException": "Throws one with that message.",
    r"explicit \w+Exception\(std::string const& message\)": "With that message, and the backtrace of the caller.",
    r"static Kiv::Model const& (table|model)\(\)": "The table of its attributes, collections and operations.",
    r"virtual void onInitialized\(\)": "initialized() has changed.",
    r"bool initialized\(\) const|void initializedIs": "Whether the set-up after construction has been done.",
    r".*Iterator.* (begin|end)\(\) const": "For range loops, from the front; only what does not relink the list may be done meanwhile.",
    r".* operator(\*|->|\+\+)\(": "As of any pointer.",
    r".* operator(==|!=|<)\(": "By value.",
}
SILENT = re.compile(r"(virtual )?~|.*= (delete|default);")
ACCESS = re.compile(r"(public|private|protected):")
NO_DECLARATION = re.compile(
    r"[}#/]|(public|private|protected):|(friend )?(class|struct) [^{]*;|namespace")
STRUCT = re.compile(r"struct [^;]*\{$")
FIELD = re.compile(r"[\w:<>*, ]+ \w+(\[\d+\])?( = [^;]*)?;$")
ENDS = re.compile(r"[;},]\s*(//.*)?$")
TRAILING = re.compile(r"^([^/]*[;,]\s+)// ")


def filtered(lines):
    """`spoken` is the comment in force, at `level`; `used` when a declaration has had it, `ended`
    when the one before is complete; `apart` is that for any level."""
    fields, fields_end = [], ""
    spoken, level, used, ended, apart = [], None, True, True, True
    for line in lines:
        text = line.strip()
        here = line[: len(line) - len(line.lstrip())]
        if text.startswith("///") and not text.startswith("///<"):
            spoken = [text] if used else spoken + [text]
            level, used, ended = here, False, True
            yield line
            continue
        if not text or (here == level and ACCESS.match(text)):
            spoken, used, ended = [], True, True
        begins = ended and bool(text) and not NO_DECLARATION.match(text)
        if begins and SILENT.match(text) and text.endswith(";"):
            continue
        common = [words for name, words in COMMON.items() if apart and re.match(name, text)]
        if common and (used or here != level):
            yield f"{here}/// {common[0]}\n"
        if begins and here == level:
            # An override without a comment of its own has that of its base.
            if spoken and used and not common and "///<" not in line and " override" not in line:
                yield from (here + comment + "\n" for comment in spoken)
            used = True
        if text and (here == level or not spoken):
            ended = bool(ENDS.search(text))
        apart = bool(re.search(r"[;{}:]$", text)) or not text
        if begins and STRUCT.match(text) and spoken:
            fields, fields_end = spoken, here + "}"
        elif fields and line.startswith(fields_end):
            fields = []
        elif fields and FIELD.match(text):
            yield from (here + comment + "\n" for comment in fields)
        yield TRAILING.sub(r"\1///< ", line, count=1) if begins else line


if __name__ == "__main__":
    with open(sys.argv[1]) as header:
        # Doxygen does not find its way into specialisations of the standard's templates.
        text = re.sub(r"template <>\nstruct std::.*?\n};\n", "", header.read(), flags=re.DOTALL)
        sys.stdout.writelines(filtered(text.splitlines(keepends=True)))
