# SPDX-License-Identifier: Apache-2.0
"""Finds the recording of a running process: a file that it has mapped and that begins as one."""
import os
import re
import stat

from . import recording

MAPPING = re.compile(r"([0-9a-f]+-[0-9a-f]+) ...s [0-9a-f]+ [0-9a-f:]+ (\d+) +(/.*)\n")

ANONYMOUS = "/dev/zero (deleted)"  # what shared memory without a file is called


def read(pid):
    """Its recording, which goes on meanwhile."""
    try:
        with open(f"/proc/{pid}/maps", encoding="utf-8", errors="surrogateescape") as maps:
            mappings = MAPPING.findall(maps.read())
    except (FileNotFoundError, ProcessLookupError):
        raise recording.Refused("there is none") from None
    for mapping in mappings:
        if mapping[-1] == ANONYMOUS:
            continue
        for file in files(pid, *mapping):
            with file:
                if file.read(len(recording.MAGIC)) == recording.MAGIC:
                    file.seek(0)
                    return recording.read(file)
    raise recording.Refused("no recording in a file that it has mapped; one in anonymous memory "
                            "cannot be read from outside")


def files(pid, addresses, inode, path):
    """The mapped file, opened: by its mapping, which takes privileges, or else by its name, if that
    is still the same file. Its device is not compared: some file systems tell two."""
    start, end = addresses.split("-")
    for name in (f"/proc/{pid}/map_files/{start.lstrip('0') or '0'}-{end.lstrip('0')}",
                 f"/proc/{pid}/root{path}"):
        try:
            descriptor = os.open(name, os.O_RDONLY | os.O_NONBLOCK)
        except OSError:
            continue
        status = os.fstat(descriptor)
        if stat.S_ISREG(status.st_mode) and status.st_ino == int(inode):
            yield os.fdopen(descriptor, "rb")
            return
        os.close(descriptor)
