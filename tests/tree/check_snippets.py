#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The C programs and modules shown in pages compile: check_snippets.py ROOT LIBRARY COMPILER PAGE...

Checked are the C blocks that hold a main function, which are linked too, or a module. Each page has
at least one. The next text block is what a program prints, without the library's own lines; with the
compiler of another machine, which QOR_CROSS says, it is not run.
"""
import os
import re
import subprocess
import sys
import tempfile
from pathlib import Path

root, library, compiler, *pages = sys.argv[1:]
FLAGS = ["-std=c11", "-D_POSIX_C_SOURCE=200809L", "-Wall", "-Wextra", "-Werror", "-Wno-unused-function",
         f"-I{root}/include", f"-I{root}/src/hal/linux"]


def build(code, folder):
    """Compiles one block, and links it when it is a program; true on success."""
    source, output = folder / "snippet.c", folder / "snippet"
    source.write_text(code)
    program = "int main" in code
    last = [library, "-pthread", "-o", output] if program else ["-c", "-o", output]
    return subprocess.run([compiler, *FLAGS, source, *last], check=False).returncode == 0


def prints(code, text, folder):
    """Whether a program prints the text, where one follows it."""
    if "int main" not in code or not text or os.environ.get("QOR_CROSS"):
        return True
    done = subprocess.run([folder / "snippet"], timeout=60, text=True, check=False, capture_output=True,
                          env=os.environ | {"LD_LIBRARY_PATH": str(Path(library).parent)})
    return "".join(line for line in done.stdout.splitlines(True) if not line.startswith("[")) == text


failed = 0
for page in pages:
    blocks = re.findall(r"^```c\n(.*?)^```$(?:(?:(?!^```).)*?^```text\n(.*?)^```$)?", Path(root, page).read_text(), re.M | re.S)
    blocks = [b for b in blocks if "int main" in b[0] or "qor_context_module_t" in b[0]]
    with tempfile.TemporaryDirectory() as folder:
        good = [build(code, Path(folder)) and prints(code, text, Path(folder)) for code, text in blocks]
    print(f"{page}: {sum(good)} of {len(good)} snippets compile and print what they are said to")
    failed += not good or not all(good)
sys.exit(failed > 0)
