#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Habits of the sources that no compiler holds: check_sources.py ROOT BUILD CHECK.

CHECK is one of the functions below; each yields its complaints.
"""
import json
import re
import sys
from pathlib import Path

ROOT, BUILD = Path(sys.argv[1]), Path(sys.argv[2])
CODE = {".h", ".hpp", ".c", ".cpp"}
SCRIPTS = {".py", ".sh", ".cmake", ".txt"}


def files(*folders, kinds=CODE):
    return sorted(p for f in folders if (ROOT / f).is_dir() for p in (ROOT / f).rglob("*") if p.suffix in kinds)


def short(path):
    return path.relative_to(ROOT)


def tests():
    """Every test of the tree as Suite.Name."""
    pattern = re.compile(r"^TEST(?:_[FP])?\(\s*(\w+),\s*(\w+)\)", re.M)
    return {f"{s}.{n}" for p in files("tests") for s, n in pattern.findall(p.read_text())}


def licence():
    """Each file names its licence at the top; LICENSE is the Apache licence, version 2.0."""
    folders = ("include", "src", "companions", "tests", "examples", "bench", "cmake", "tools")
    for path in files(*folders, kinds=CODE | SCRIPTS) + [ROOT / "CMakeLists.txt", ROOT / "dev"]:
        if "SPDX-License-" "Identifier: Apache-2.0" not in "".join(path.read_text().splitlines(True)[:4]):
            yield f"{short(path)}: no SPDX line at the top"
    if "Apache License\n                           Version 2.0" not in (ROOT / "LICENSE").read_text():
        yield "LICENSE: not the Apache licence, version 2.0"


def deliberate():
    """A comment that marks behaviour as deliberate names the tests that hold it."""
    known, marked = tests(), 0
    for path in files("include", "src"):
        for comment in re.findall(r"/\*.*?\*/", path.read_text(), re.S):
            text = re.sub(r"\s*\n\s*\*?\s*", " ", comment)
            if "Deliberate:" not in text:
                continue
            marked += 1
            named = re.findall(r"\b[A-Z]\w*\.[A-Z]\w*", text.partition("Test")[2])
            if not named:
                yield f"{short(path)}: names no test: {text}"
            for name in set(named) - known:
                yield f"{short(path)}: there is no test {name}"
    if marked == 0:
        yield "no mark found: has its spelling changed?"


def documented():
    """Each exported name is declared in one public header, below a doc comment; nothing else is.

    Declarations without an empty line between them share a comment.
    """
    exported = (ROOT / "src/qor_bus.exports").read_text().split()
    declared = {}
    for path in files("include", "src", kinds={".h"}):
        for block in re.split(r"\n\s*\n", path.read_text()):
            code = re.sub(r"/\*.*?\*/", "", block, flags=re.S)
            for name in re.findall(r"^(?:extern )?QOR_API\b[^;(]*?(\w+)\s*(?:\(|;)", code, re.M):
                declared[name] = path
                if not block.lstrip().startswith("/**"):
                    yield f"{short(path)}: {name} has no doc comment"
    for name in sorted(set(exported) - set(declared)):
        yield f"no public header declares {name}"
    for name in sorted(set(declared) - set(exported)):
        yield f"{short(declared[name])}: {name} is not in src/qor_bus.exports"


def built():
    """Each test source is compiled by the build, and each source of the library too.

    The layout test is compiled by a test of its own.
    """
    commands = json.loads((BUILD / "compile_commands.json").read_text())
    compiled = {Path(c["file"]).resolve() for c in commands}
    sources = files("src", kinds={".cpp"}) + [p for p in files("tests", kinds={".cpp"}) if p.name.startswith("test_")]
    for path in sources:
        if path.resolve() not in compiled and path.name != "test_layout.cpp":
            yield f"{short(path)}: not built"


def listed():
    """src/README.md lists every source of the library; what is private to an object goes with it.

    The tests that it names exist.
    """
    page = (ROOT / "src/README.md").read_text()
    for name in re.findall(r"`(test_[\w*]+\.cpp)`", page):
        if not any((ROOT / "tests").rglob(name)):
            yield f"src/README.md: there is no {name}"
    for path in files("src", kinds={".cpp", ".hpp"}):
        if not path.stem.endswith("_priv") and f"`{path.relative_to(ROOT / 'src')}`" not in page:
            yield f"src/README.md: does not list {path.relative_to(ROOT / 'src')}"


def hello():
    """The README shows the first example word for word, without its licence line."""
    example = (ROOT / "examples/hello/hello.c").read_text().split("\n", 1)[1]
    if f"```c\n{example}```\n" not in (ROOT / "README.md").read_text():
        yield "README.md: its program is not examples/hello/hello.c"


def links():
    """What a page links to is there."""
    for page in [*ROOT.glob("*.md"), *files("docs", "src", "companions", "examples", "bench", "packaging", kinds={".md"})]:
        for target in re.findall(r"\]\(([^)#:]+)\)", page.read_text()):
            if not (page.parent / target).exists():
                yield f"{short(page)}: {target} does not exist"


complaints = list(globals()[sys.argv[3]]())
print("\n".join(complaints) or "nothing to complain about")
sys.exit(len(complaints) > 0)
