#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The C programs and modules shown in pages compile: check_snippets.py ROOT LIBRARY COMPILER PAGE...

Checked are the C blocks that hold a main function, which are linked too, or a module. Each page has
at least one.
"""
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


failed = 0
for page in pages:
    blocks = re.findall(r"^```c\n(.*?)^```$", Path(root, page).read_text(), re.M | re.S)
    blocks = [b for b in blocks if "int main" in b or "qor_context_module_t" in b]
    with tempfile.TemporaryDirectory() as folder:
        good = [build(b, Path(folder)) for b in blocks]
    print(f"{page}: {sum(good)} of {len(good)} snippets compile")
    failed += not good or not all(good)
sys.exit(failed > 0)
