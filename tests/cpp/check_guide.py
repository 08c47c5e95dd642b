#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The guide's program compiles and prints what the guide shows: check_guide.py ROOT LIBRARY COMPILER."""
import os
import re
import subprocess
import sys
import tempfile
from pathlib import Path

root, library, compiler = sys.argv[1:]
page = (Path(root) / "docs/guide/cpp.md").read_text()
programs = re.findall(r"^```cpp\n(.*?)^```$", page, re.M | re.S)
shown = re.findall(r"^```text\n(.*?)^```$", page, re.M | re.S)
if len(programs) != 1 or len(shown) != 1:
    sys.exit(f"one program and what it prints are looked for, not {len(programs)} and {len(shown)}")
with tempfile.TemporaryDirectory() as folder:
    source, program = Path(folder) / "panel.cpp", Path(folder) / "panel"
    source.write_text(programs[0])
    subprocess.run([compiler, "-std=c++17", "-Wall", "-Wextra", "-Werror", "-pthread", f"-I{root}/include",
                    f"-I{root}/src/hal/linux", source, library, "-o", program], check=True)
    environment = os.environ | {"LD_LIBRARY_PATH": str(Path(library).parent)}
    done = subprocess.run([program], text=True, check=True, timeout=60, env=environment, stdout=subprocess.PIPE)
printed = "".join(line for line in done.stdout.splitlines(True) if not line.startswith("["))
if printed != shown[0]:
    sys.exit(f"the program prints:\n{printed}the page shows:\n{shown[0]}")
print("as shown")
