#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Whether each fault that is planted still applies to the tree, so that a change that moves its place is
noticed at once and not when all are hunted: check_planted.py ROOT PATCH-TOOL.
"""
import subprocess
import sys
from pathlib import Path


def main(root, tool):
    command = [tool, "-p1", "--fuzz=0", "--silent", "--dry-run", "-r", "-", "-i"]
    patches = sorted((root / "tests").glob("**/planted/**/*.patch"))
    complaints = [f"{patch.relative_to(root)}: does not apply" for patch in patches
                  if subprocess.run([*command, patch], cwd=root, capture_output=True).returncode != 0]
    print("\n".join(complaints) or f"{len(patches)} faults, each applies")
    return len(complaints) > 0 or not patches


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1]), sys.argv[2]))
