#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What is built says nothing of where: check_paths.py OBJCOPY FOLDER PATH... fails for FOLDER in a PATH.

A PATH is a file, of which the debug information does not count, a folder of such, or a Debian package:
there it does, in each file that the package installs and in its control files. What is compressed is
looked through unpacked.
"""
import gzip
import subprocess
import sys
import tempfile
from pathlib import Path

OBJCOPY, FOLDER = sys.argv[1], str(Path(sys.argv[2]).resolve()).encode()


def contents(path, option):
    """What a file holds, unpacked; of a program or library what objcopy makes of it."""
    data = path.read_bytes()
    if data.startswith(b"\x1f\x8b"):
        return gzip.decompress(data)
    if data.startswith(b"\x7fELF"):
        with tempfile.NamedTemporaryFile() as plain:
            subprocess.run([OBJCOPY, option, path, plain.name], check=True)
            return Path(plain.name).read_bytes()
    return data


def looked_through(path):
    """Each file that a path stands for with its contents."""
    with tempfile.TemporaryDirectory() as scratch:
        option = "--strip-debug"
        if path.suffix == ".deb":
            option = "--decompress-debug-sections"
            subprocess.run(["dpkg-deb", "-R", path, scratch], check=True)
            path = Path(scratch)
        for file in sorted(path.rglob("*")) if path.is_dir() else [path.resolve()]:
            if file.is_file() and not file.is_symlink():
                yield file.name, contents(file, option)


files = [(Path(p).name, *f) for p in sys.argv[3:] for f in looked_through(Path(p))]
wrong = [f"{path}: {name}: {FOLDER.decode()}" for path, name, data in files if FOLDER in data]
print("\n".join(wrong) or f"{len(files)} files looked through, none with the folder that they were built in")
sys.exit(len(wrong) > 0 or not files)
