#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Words that are not for this tree: check_words.py ROOT [PATH...] fails for a file with one of them.

The library is described by what it does, not by what it might be measured against. Looked through are
names and contents of the files below ROOT, but for what git is told to ignore, and of each PATH: a file
or a folder of what was built. Of a Debian package that is its control files and what it installs.
check_words.py --prove plants each word in each kind of place: it must be found.
"""
import gzip
import re
import subprocess
import sys
import tempfile
from pathlib import Path

# One letter of each stands in brackets, so that this file has none of them.
WORDS = [
    "conf[o]rm", "compli[a]n", "sp[e]cification", r"\bsp[e]cs?\b", r"\bsp[e]cified", "pred[e]cess", "foreru[n]ner",
    "clean[- ]r[o]om", "r[e]-?implement", "reverse[- ]eng[i]neer", "r[e]ference[- ]impl", "drop[- ]in[- ]r[e]place",
    "origin[a]l[- ]impl", "origin[a]l[- ]program", "origin[a]l[- ]library", r"\bport[e]d[- ]from",
]
PATTERN = re.compile("|".join(WORDS).encode())
LICENCES = {"LICENSE", "LICENSES/Apache-2.0.txt"}
FOREIGN = "html/jquery.js"  # as doxygen puts it into each site
IGNORED = {".git", "build", ".cache", ".dev-cache", "__pycache__"}


def found(data):
    """The words in some bytes, whatever their case."""
    return sorted({m[0].decode() for m in PATTERN.finditer(data.lower())})


def contents(path):
    """What a file holds, unpacked."""
    data = path.read_bytes()
    return gzip.decompress(data) if data.startswith(b"\x1f\x8b") else data


def below(folder):
    """The files below a folder, without what git is told to ignore."""
    for path in sorted(folder.iterdir()):
        if path.is_dir() and not path.is_symlink():
            if path.name not in IGNORED:
                yield from below(path)
        elif path.is_file():
            yield path


def package(path, scratch):
    """The folder that a Debian package is unpacked into."""
    for option, folder in ("-e", "control"), ("-x", "files"):
        subprocess.run(["dpkg-deb", option, path, Path(scratch) / folder], check=True)
    return Path(scratch)


def complaints(root, ours):
    """What is wrong in a file or below a folder; ours, the path of the tree, is no text of its own."""
    if root.suffix == ".deb":
        with tempfile.TemporaryDirectory() as scratch:
            yield from (f"{root.name}: {c}" for c in complaints(package(root, scratch), ours))
        return
    for path in below(root) if root.is_dir() else [root]:
        name = str(path.relative_to(root)) if root.is_dir() else path.name
        for word in found(name.encode()):
            yield f"{name}: '{word}' in its name"
        if name not in LICENCES and not name.endswith(FOREIGN):
            for word in found(contents(path).replace(ours, b"")):
                yield f"{name}: '{word}'"


def prove():
    """What is not found of what is planted."""
    for word in WORDS:
        plain = re.sub(r"\[(.).*?\]", r"\1", word).replace("\\b", "").replace("?", "")
        for name, data in [
            ("text.c", f"/* {plain} */".encode()),
            ("capital.c", f"/* {plain.capitalize()} */".encode()),
            ("program", b"\x7fELF\0\0" + plain.encode() + b"\0"),
            ("page.1.gz", gzip.compress(plain.encode())),
            (f"{plain}.txt", b""),
        ]:
            with tempfile.TemporaryDirectory() as scratch:
                (Path(scratch) / "below").mkdir()
                (Path(scratch) / "below" / name).write_bytes(data)
                if len(list(complaints(Path(scratch), b"/nowhere"))) != 1:
                    yield f"{plain}: not found in {name}"


def main(arguments):
    if arguments == ["--prove"]:
        wrong = list(prove())
        print("\n".join(wrong) or f"{len(WORDS)} words, each found wherever it was planted")
    else:
        paths = [Path(a) for a in arguments]
        ours = str(paths[0].resolve()).encode()
        wrong = [c for path in paths for c in complaints(path, ours)]
        print("\n".join(wrong) or "nothing to complain about")
    return len(wrong) > 0


sys.exit(main(sys.argv[1:]))
