# SPDX-License-Identifier: Apache-2.0
"""What the tests of qor-trace share: the tool as a program and as a package, a folder."""
import io
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
PROGRAM = ROOT / "tools/qor-trace"
sys.path.insert(0, str(ROOT / "tools"))
sys.dont_write_bytecode = True

from qor_trace import recording, summary  # noqa: E402
from qor_trace.picture import Picture, Topics  # noqa: E402


def read(made):
    """What the tool reads of a recording, or of its bytes."""
    raw = made if isinstance(made, bytes) else made.bytes()
    return recording.read(io.BytesIO(raw))


def picture(made, **more):
    return Picture(read(made), Topics(), **more)


def summarise(made):
    return "\n".join(summary.lines(picture(made))[0])


def row(text, *begins):
    """The cells of the summary's line that begins so."""
    for line in text.splitlines():
        cells = [cell for cell in line.split("  ") if cell.strip()]
        cells = [cell.strip() for cell in cells]
        if cells[:len(begins)] == list(begins):
            return cells
    raise AssertionError(f"no line begins with {begins}:\n{text}")


class Case(unittest.TestCase):
    """A test with a folder of its own."""

    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.folder = Path(scratch.name)

    def file(self, made, name="made.qor"):
        path = self.folder / name
        path.write_bytes(made if isinstance(made, bytes) else made.bytes())
        return path

    def run_tool(self, *arguments, status=0, **more):
        """(standard output, standard error) of the program, which must end so."""
        done = subprocess.run([sys.executable, "-B", PROGRAM, *arguments], capture_output=True,
                              check=False, text="input" not in more, **more)
        self.assertEqual(done.returncode, status, done.stderr)
        return done.stdout, done.stderr
