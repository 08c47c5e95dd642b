# SPDX-License-Identifier: Apache-2.0
"""qor-trace as its users call it: status, lines, files, and the recording of a running process."""
import mmap
import os
import shutil
import subprocess
import sys
import unittest

import recordings
from recordings import Recording
from tool import PROGRAM, ROOT, Case


class Command(Case):
    def refused(self, *arguments, says):
        output, errors = self.run_tool(*arguments, status=1)
        self.assertEqual((output, errors.count("\n")), ("", 1))
        self.assertIn(says, errors)
        self.assertTrue(errors.startswith("qor-trace: "), errors)

    def test_a_recording_gives_a_summary(self):
        output, errors = self.run_tool(self.file(recordings.telemetry()))
        self.assertIn("Requests and calls, by topic and module", output)
        self.assertEqual(errors, "")

    def test_a_pipe_is_read_like_a_file(self):
        made = recordings.telemetry()
        wanted, _ = self.run_tool(self.file(made))
        output, _ = self.run_tool("-", input=made.bytes())
        self.assertEqual(output.decode(), wanted)

    def test_a_finding_is_printed_first_and_gives_status_2(self):
        made = Recording(())
        made.name("calm", flags=1)
        one, two = made.lane(), made.lane()
        one.start("task", 1, 1)
        two.start("task", 1, 2)
        made.after(10)
        one.end("task", 1, 1)
        output, errors = self.run_tool(self.file(made), status=2)
        self.assertTrue(output.startswith("finding: calm is strict"), output)
        self.assertEqual(errors, "")

    def test_all_outputs_are_written_at_once(self):
        names = {kind: self.folder / f"out.{kind}" for kind in ("ctf", "json", "dot", "svg")}
        self.run_tool(self.file(recordings.telemetry()), *(f"--{k}={p}" for k, p in names.items()))
        self.assertIn('"traceEvents"', names["json"].read_text())
        self.assertIn("digraph", names["dot"].read_text())
        self.assertIn("<svg", names["svg"].read_text())
        self.assertIn("trace {", (names["ctf"] / "metadata").read_text())

    def test_what_cannot_be_read_gives_one_line_and_status_1(self):
        path = self.file(b"no recording")
        self.refused(path, says=f"{path}: not a recording")
        self.refused(self.folder / "none", says="No such file or directory")
        self.refused(self.folder, says="Is a directory")

    def test_what_cannot_be_written_gives_one_line_and_status_1(self):
        path = self.file(recordings.telemetry())
        self.refused(path, f"--svg={self.folder}/none/a.svg", says="none/a.svg: No such file")
        self.refused(path, f"--ctf={self.folder}", says=f"{self.folder}: not empty")
        self.refused(path, f"--ctf={path}", says="File exists")

    @unittest.skipUnless(os.path.exists("/dev/full"), "there is no /dev/full")
    def test_a_full_disk_gives_one_line_and_status_1(self):
        path = self.file(recordings.telemetry())
        self.refused(path, "--svg=/dev/full", says="No space left on device")
        with open("/dev/full", "wb") as full:
            done = subprocess.run([sys.executable, "-B", PROGRAM, path], stdout=full, check=False,
                                  stderr=subprocess.PIPE, text=True)
        self.assertEqual((done.returncode, done.stderr.count("\n")), (1, 1), done.stderr)

    def test_wrong_arguments_give_one_line_and_status_1(self):
        path = self.file(recordings.telemetry())
        for arguments in ([], [path, "--pid=1"], [path, "--no-such"], [path, "--from=x"],
                          [path, "--from=nan"], [path, "--to=1e300"], [path, path]):
            self.refused(*arguments, says="qor-trace --help")

    def test_a_wrong_file_of_topics_is_named(self):
        names = self.folder / "topics.txt"
        names.write_text("1 load\nload 1\n")
        path = self.file(recordings.telemetry())
        self.refused(path, f"--topics={names}", says=f"{names}: line 2 is not a number and a name")
        names.write_text("1 load\n")
        self.assertIn("1 load", self.run_tool(path, f"--topics={names}")[0])

    def test_help_has_examples(self):
        output, _ = self.run_tool("--help")
        for wanted in ("examples:", "babeltrace2", "ui.perfetto.dev", "status: 0"):
            self.assertIn(wanted, output)

    def test_the_manual_names_every_option(self):
        manual = (ROOT / "tools/qor-trace.1").read_text().replace("\\-", "-")
        for word in self.run_tool("--help")[0].split():
            if word.startswith("--"):
                self.assertIn(word.rstrip(".,;"), manual)

    @unittest.skipUnless(shutil.which("man"), "man is not installed")
    def test_the_manual_has_no_warnings(self):
        done = subprocess.run(["man", "--warnings", "-E", "UTF-8", "-l",
                               ROOT / "tools/qor-trace.1"],
                              capture_output=True, text=True, check=False,
                              env=os.environ | {"MANPAGER": "cat", "MANWIDTH": "80"})
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertIn("EXIT STATUS", done.stdout)

    def test_who_reads_only_the_begin_gets_no_traceback(self):
        path = self.file(recordings.telemetry())
        done = subprocess.run(["sh", "-c", f"'{sys.executable}' -B '{PROGRAM}' '{path}' | :"],
                              capture_output=True, text=True, check=False)
        self.assertEqual(done.stderr, "")

    def test_an_ascii_terminal_gets_question_marks(self):
        made = Recording(("\u00e4",))
        made.lane().start("task", 1, 1)
        output, _ = self.run_tool(self.file(made), env=os.environ | {"PYTHONIOENCODING": "ascii"})
        self.assertIn("? task", output)

    def test_the_package_is_found_where_it_is_installed(self):
        (self.folder / "bin").mkdir()
        shutil.copy(PROGRAM, self.folder / "bin")
        shutil.copytree(ROOT / "tools/qor_trace", self.folder / "share/libqor-bus-tools/qor_trace")
        done = subprocess.run([sys.executable, "-B", self.folder / "bin/qor-trace",
                               self.file(recordings.telemetry())], capture_output=True, check=False)
        self.assertEqual((done.returncode, done.stderr), (0, b""))


class Process(Case):
    """A process, which is this one, with a recording in memory."""

    def mapped(self, made, path):
        path.write_bytes(made.bytes())
        with open(path, "r+b") as file:
            memory = mmap.mmap(file.fileno(), 0)
        self.addCleanup(memory.close)
        return memory

    def test_a_mapped_recording_is_read(self):
        self.mapped(recordings.telemetry(), self.folder / "live")
        self.assertIn("telemetry, pid 4711", self.run_tool(f"--pid={os.getpid()}")[0])

    def test_one_whose_file_was_removed_is_read_or_refused_in_a_line(self):
        self.mapped(recordings.telemetry(), self.folder / "live")
        (self.folder / "live").unlink()
        try:
            os.listdir("/proc/self/map_files")
            entry = os.path.join("/proc/self/map_files", os.listdir("/proc/self/map_files")[0])
            os.close(os.open(entry, os.O_RDONLY))
        except OSError:
            self.skipTest("the mappings of a process cannot be opened here")
        self.assertIn("telemetry, pid 4711", self.run_tool(f"--pid={os.getpid()}")[0])

    def test_other_mapped_files_are_passed_by(self):
        other = self.folder / "other"
        other.write_bytes(b"QORTRC0\n" * 1000)
        with open(other, "r+b") as file:
            self.addCleanup(mmap.mmap(file.fileno(), 0).close)
        anonymous = mmap.mmap(-1, 1 << 16)
        self.addCleanup(anonymous.close)
        anonymous[:8] = b"QORTRC1\n"
        errors = self.run_tool(f"--pid={os.getpid()}", status=1)[1]
        self.assertEqual(errors.count("\n"), 1)
        self.assertIn(f"process {os.getpid()}: no recording in a file", errors)

    def test_a_process_that_is_not_there_gives_a_line(self):
        errors = self.run_tool(f"--pid={2 ** 22 + 1}", status=1)[1]
        self.assertEqual(errors, f"qor-trace: process {2 ** 22 + 1}: there is none\n")


if __name__ == "__main__":
    unittest.main()
