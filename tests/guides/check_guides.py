#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Builds and runs what the guides show, and compares it with what they say: check_guides.py CMAKE BUILD
COMPILER PAGE...

A C block is compiled, and linked when it has a main function; the first line of one that is used by
name is a comment "NAME.c: ...". A sh block runs in the folder of the page's files, where examples is that
of the tree; the library of BUILD is installed in place of /opt/qor. A text block behind a sh block is what
that prints, one behind a program what the program prints. Times are masked. A block behind a comment
"<!-- from: FILE -->" is an excerpt of that file of the tree, where "..." alone on a line stands for lines
that are left out. Every other block has a comment "<!-- shown only: WHY -->" before it; all pages together
have at most ten of those. A C block that uses the bridge to MQTT brokers has that, too, but is compiled
where the bridge is installed.
"""
import os
import re
import subprocess
import sys
import tempfile
from pathlib import Path

FLAGS = "-std=c11 -D_POSIX_C_SOURCE=200809L -Wall -Wextra -Werror -Wno-unused-function"
LIMIT = 10
BLOCK = re.compile(r"(?:<!-- (shown only|from): ([^>]+?) -->\n+)?^```(\w*)\n(.*?)^```$", re.M | re.S)
TREE = Path(__file__).resolve().parents[2]


def masked(text):
    return re.sub(r"\b\d+(\.\d+)? (ns|us|ms|s)\b", "TIME", text)


class Page:
    """What is left of a page while it is worked through: its folder, and what the last block printed."""

    def __init__(self, prefix, compiler, folder):
        self.prefix, self.folder = prefix, Path(folder)
        self.compiler = compiler
        self.bridge = Path(prefix, "lib/pkgconfig/libqor_bus_mqtt.pc").is_file()
        self.package = "libqor_bus_mqtt" if self.bridge else "libqor_bus"
        self.printed, self.program, self.complaints, self.shown_only = None, None, [], 0
        (self.folder / "examples").symlink_to(TREE / "examples")

    def run(self, script):
        environment = {**os.environ, "PKG_CONFIG_PATH": f"{self.prefix}/lib/pkgconfig"}
        done = subprocess.run(["sh", "-e", "-c", script], cwd=self.folder, env=environment, timeout=60,
                              capture_output=True, text=True, check=False)
        if done.returncode != 0:
            self.complaints.append(f"status {done.returncode}:\n{script}\n{done.stdout}{done.stderr}")
        return done.stdout + done.stderr

    def build(self, name, program):
        last = f"$(pkg-config --libs {self.package}) -Wl,-rpath,{self.prefix}/lib" if program else "-c"
        self.run(f"{self.compiler} {FLAGS} $(pkg-config --cflags {self.package}) {name}.c -o {name} {last}")

    def c_block(self, code):
        named = re.match(r"/\* (\w+)\.c:", code)
        name = named[1] if named else "module"
        (self.folder / f"{name}.c").write_text(code)
        program = "int main" in code
        self.build(name, program)
        self.program = name if program else None

    def text_block(self, text):
        if self.program:
            self.printed, self.program = self.run(f"./{self.program}"), None
        if self.printed is None:
            self.complaints.append(f"nothing prints this:\n{text}")
        elif masked(self.printed) != masked(text):
            self.complaints.append(f"printed is\n{self.printed}and the page says\n{text}")
        self.printed = None

    def excerpt(self, path, text):
        parts = re.split(r"^\s*\.\.\.\n", text, flags=re.M)
        if not re.search(".*".join(map(re.escape, parts)), (TREE / path).read_text(), re.S):
            self.complaints.append(f"{path} has no such lines:\n{text}")

    def block(self, marker, about, kind, text):
        if marker == "from":
            self.excerpt(about, text)
        elif marker and not (self.bridge and "qor_mqtt.h" in text):
            self.shown_only += 1
        elif kind == "c":
            self.c_block(text)
        elif kind == "sh":
            self.printed, self.program = self.run(text.replace("/opt/qor", self.prefix)), None
        elif kind == "text":
            self.text_block(text)
        else:
            self.complaints.append(f"a block without a program:\n{text}")


def complaints_of(page, prefix, compiler):
    """What is wrong with a page, and how many of its blocks are only shown."""
    with tempfile.TemporaryDirectory() as folder:
        work = Page(prefix, compiler, folder)
        blocks = BLOCK.findall(page.read_text())
        for block in blocks:
            work.block(*block)
    print(f"{page.name}: {len(blocks)} blocks, {work.shown_only} of them shown only")
    return work.complaints, work.shown_only


def main(cmake, build, compiler, *pages):
    complaints, shown_only = [], 0
    with tempfile.TemporaryDirectory() as prefix:
        subprocess.run([cmake, "--install", build, "--prefix", prefix], check=True, stdout=subprocess.DEVNULL)
        for page in pages:
            wrong, only = complaints_of(Path(page), prefix, compiler)
            complaints += [f"{page}: {text}" for text in wrong]
            shown_only += only
    if shown_only > LIMIT:
        complaints.append(f"{shown_only} blocks are only shown, {LIMIT} may be")
    print("\n".join(complaints))
    return len(complaints) > 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
