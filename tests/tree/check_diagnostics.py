#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Whether docs/diagnostics.md has each line that the sources can print, and no other: check_diagnostics.py
ROOT.

A line is a format as check_printed_names.py lists them, or a sentence that one of those prints with
"%s"; of the C++ interface it is a format, or what that is refused with. The bridge prints by macros and
checks of its own. In the page <...> stands for what is filled in.
"""
import re
import subprocess
import sys
from pathlib import Path

FILLED = r"%(?:\.\*)?z?l*[a-z]"
TEXT = r'"((?:[^"\\\n]|\\.)*)"'


def formats(root):
    listed = subprocess.run([sys.executable, "-B", Path(__file__).with_name("check_printed_names.py"), root, "--list"],
                            check=True, capture_output=True, text=True).stdout
    for line in listed.splitlines():
        text = re.sub(r"^(\[\w+\]){3}:", "", line)
        yield from re.split(r"\|(?=!\()", text) if text.startswith("!(") else [text]


def sentences(root):
    for path in (root / "src").rglob("*.[ch]pp"):
        code = re.sub(r"/\*.*?\*/", "", path.read_text(), flags=re.S)
        yield from re.findall(r'"((?:[^"\\\n]|\\.)* (?:[^"\\\n]|\\.)*\.)"', code)
        yield from re.findall(r'"(MONITOR: [^"]*)"', code)


def refusals(root):
    """What the headers of the C++ interface print."""
    for path in (root / "include/qor").glob("*.hpp"):
        code = re.sub(r"/\*.*?\*/", "", path.read_text(), flags=re.S)
        yield from re.findall(r'hal_printf\("\[%s\]\[err\]\[%s\]:([^"]* [^"]*)"', code)
        yield from re.findall(r'refuse\([^"]*?"([^"]+)"\)', code)
        yield from re.findall(r'case failure::(?!none)\w+:\s*return "([^"]+)";', code)


def bridge(root):
    for path in (root / "companions").rglob("src/*.cpp"):
        code = re.sub(r'"\s*\n\s*"', "", path.read_text())
        lines = re.findall(rf'\bMQTT_(?:LINE\("\w+",\s*\w+,|(?:ERR|WRN|INF)\()\s*{TEXT}', code)
        yield from (line for line in lines if not line.endswith(": %s: %s"))
        for condition in re.findall(r"\bMQTT_CHECK(?:_VOID)?\(((?:[^,()]|\([^()]*\))+)[,)]", code):
            yield f"!({condition}) == true."
        for which, first in (("config", "configuration"), ("route", r"route \"%s\"")):
            of = r"[\w.]+,\s*" if which == "route" else ""
            for field, what in re.findall(rf"\b{which}_wrong\(\s*{of}([^,]+?),\s*{TEXT}", code):
                name = field.strip('"') if field.startswith('"') else "%s"
                yield f"{first}: {name}: {what}"


def plain(text):
    """As it is printed, but for what is filled in."""
    return re.sub(FILLED, "<x>", text.replace(r"\n", "").replace(r"\"", '"'))


def main(root):
    printed = {plain(text) for text in (*formats(root), *sentences(root), *refusals(root), *bridge(root))}
    printed = {text for text in printed if text != "<x>" and " " in text and not text.startswith(" ")}
    page = (root / "docs/diagnostics.md").read_text().replace(r"\|", "|")
    rows = [row for row in page.splitlines() if row.startswith("| `")]
    entries = {entry for row in rows for entry in re.findall(r"`([^`]+)`", re.split(r"(?<![|\\]) \| ", row[2:])[0])}
    known = {entry: re.compile(".+".join(map(re.escape, re.split(r"<[\w ]+>", entry)))) for entry in entries}
    met = {text: [e for e, pattern in known.items() if pattern.fullmatch(text)] for text in printed}
    complaints = [f"no entry: {text}" for text, found in met.items() if not found]
    complaints += [f"nothing prints: {entry}" for entry in entries - {e for found in met.values() for e in found}]
    print("\n".join(sorted(complaints)) or f"{len(printed)} texts, each with an entry")
    return len(complaints) > 0


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1])))
