#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What the public headers call things: check_names.py ROOT COMPILER...

With QOR_NO_COMMON_NAMES no header declares a name or leaves a macro that does not begin with qor_ or
QOR_. Those that it has without are a program's own then: as macros, types and data, before and after.
"""
import re
import subprocess
import sys
from pathlib import Path

ROOT, COMPILERS = Path(sys.argv[1]).resolve(), sys.argv[2:]
WITHOUT = "-DQOR_NO_COMMON_NAMES"
INCLUDES = [f"-I{ROOT}/include", f"-I{ROOT}/src/hal/linux"]
PARTS = {"qor_names_open.h", "qor_names_close.h"}
HEADERS = sorted({p.name for p in (ROOT / "include").glob("*.h")} - PARTS | {"qor_hal.h"})
KEYWORDS = set("const enum extern inline int static struct typedef union void volatile __asm__ __extension__".split())
LANGUAGES = {"c": ["-x", "c", "-std=c11", "-D_POSIX_C_SOURCE=200809L"], "c++": ["-x", "c++", "-std=c++17"]}


def compiled(compiler, language, text, *options):
    """What a compiler makes of a source: its output, and its complaints."""
    command = [compiler, *LANGUAGES[language], "-Wall", "-Wextra", "-Werror", *options, *INCLUDES, "-"]
    return subprocess.run(command, input=text, text=True, check=False, capture_output=True)


def texts(header, *options):
    """What the preprocessor makes of a header: the tree's lines, and those of the system's headers."""
    parts, ours = {True: [], False: []}, False
    for line in compiled(COMPILERS[0], "c", f'#include "{header}"\n', "-E", *options).stdout.splitlines():
        if marker := re.match(r'# \d+ "([^"]*)"', line):
            ours = marker[1].startswith(str(ROOT))
        elif not line.startswith("#"):
            parts[ours].append(line)
    return ["\n".join(parts[ours]) for ours in (True, False)]


def words(text):
    return re.findall(r"[A-Za-z_]\w*|\d\w*|\S", text)


def declared(header, *options):
    """The names that a header declares outside of functions and records: types, tags, functions, data, enumerators."""
    text, system = texts(header, *options)
    known = KEYWORDS | set(words(system))
    text = re.sub(r"__attribute__\s*\(\(.*?\)\)(?=[ ;])", "", text)
    names, braces, parens, before, enum = set(), 0, 0, ["", ""], False
    for word in words(text):
        outside = braces == 0 and (parens == 0 or parens == 1 and before == ["(", "*"])
        enumerator = enum and braces == 1 and before[1] in ("{", ",")
        if re.match("[A-Za-z_]", word) and (outside or enumerator or before[1] in ("struct", "union", "enum")):
            names.add(word)
        if word == "{":
            enum = "enum" in before if braces == 0 else enum
        braces += (word == "{") - (word == "}")
        parens += (word == "(") - (word == ")")
        before = [before[1], word]
    return names - known


def macros(text, *options):
    lines = compiled(COMPILERS[0], "c", text, "-E", "-dM", *options).stdout.splitlines()
    return {re.match(r"#define (\w+)", line)[1] for line in lines}


def left_over(header):
    """The macros that a header leaves, without those of the system's headers that it includes."""
    pages = [ROOT / "include" / header, *(ROOT / "include").glob("*.h"), ROOT / "src/hal/linux/qor_hal.h"]
    system = {line for p in pages if p.exists() for line in re.findall(r"#include <.*>", p.read_text())}
    return macros(f'#include "{header}"\n', WITHOUT) - macros("\n".join(system) + "\n", WITHOUT)


def begins_well(name):
    return name.startswith(("qor_", "QOR_"))


def renamed():
    """The names that qor_names_open.h gives another spelling."""
    return dict(re.findall(r"^#define (\w+) (\w+)$", (ROOT / "include/qor_names_open.h").read_text(), re.M))


def rule():
    """No header has a common name left."""
    for header in HEADERS:
        for name in sorted(declared(header, WITHOUT) | left_over(header)):
            if not begins_well(name):
                yield f"{header}: {name} is there with {WITHOUT}"


def both_spellings(common):
    """A name that applications use without the macro has its other spelling there as well."""
    inner = {"__list_add_valid", "__list_del_entry_valid", "__list_del_entry", "__rb_set_parent", "__rb_relink",
             "__rb_close_gap", "__rb_put_successor", "context_head", "default_core"}
    spelled, have = renamed(), declared("qor.h")
    for name in sorted(common - inner):
        if spelled.get(name) not in have:
            yield f"qor_names.h: {name} has no second spelling"


def sources(names):
    """A program's header with all the names, in each of its forms, and what must still hold behind ours."""
    macro = "".join(f"#define {n} {17 + i}\n" for i, n in enumerate(names))
    kept = "".join(f"#if {n} != {17 + i}\n#error {n}\n#endif\n" for i, n in enumerate(names))
    shapes = {
        "types": "".join(f"typedef struct {n} {{ char own[3]; }} {n};\n" for n in names),
        "data": "".join(f"extern double {n}[3];\n" for n in names),
        "functions": "".join(f"double {n}(char own);\n" for n in names),
    }
    ours = '#include "qor.h"\n'
    yield "macros before", macro + ours + kept
    yield "macros after", ours + macro + kept
    yield "macros before, then again", macro + ours + ours + '#include "qor_time_que.h"\n' + kept
    for shape, text in shapes.items():
        yield f"{shape} before", text + ours
        yield f"{shape} after", ours + text


def free_names(common):
    """The names are a program's own."""
    names = sorted(common | set(renamed()))
    for what, text in sources(names):
        for compiler in COMPILERS:
            for language in LANGUAGES:
                done = compiled(compiler, language, text, "-fsyntax-only", WITHOUT)
                if done.returncode != 0:
                    yield f"{compiler}, {language}, {what}:\n{done.stderr[:2000]}"
        # Without the macro each is refused, or nothing is shown here; what is defined later meets nothing.
        if what != "macros after" and compiled(COMPILERS[0], "c", text, "-fsyntax-only").returncode == 0:
            yield f"{what}: compiles without {WITHOUT} too"


names_there = {n for n in declared("qor.h") if not begins_well(n)}
complaints = [*rule(), *both_spellings(names_there), *free_names(names_there)]
if len(names_there) < 90:
    complaints.append(f"just {len(names_there)} common names found: are they read as they should be?")
print("\n".join(complaints) or f"{len(HEADERS)} headers, {len(names_there)} common names, none of them left")
sys.exit(len(complaints) > 0)
