#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The manual pages: check_man.py ROOT LIBRARY C-COMPILER C++-COMPILER.

man reads each without a word. Each has its sections. The prototypes are those of the headers, and each
function that an application needs, which is each of the headers that the site lists for applications,
of tasks, queues, maps and the platform, stands in one page's NAME. A line among the diagnostics stands in
docs/diagnostics.md. A page that is referred to is there. The example is built as a user would, and run
where it is a program.
"""
import re
import subprocess
import sys
import tempfile
from pathlib import Path

SECTIONS = ["NAME", "SYNOPSIS", "DESCRIPTION", "RETURN VALUE", "DIAGNOSTICS", "THREADS", "EXAMPLE", "SEE ALSO"]
FOREIGN = {"free", "memcpy", "qor-trace", "sigwait", "snprintf", "syslog", "vfprintf"}
FLAGS = {
    "c": ["-std=c11", "-D_POSIX_C_SOURCE=200809L", "-Wall", "-Wextra", "-Werror"],
    "cpp": ["-std=c++17", "-Wall", "-Wextra", "-Werror"],
}


def plain(text):
    """Without macros' quotes and escapes."""
    return text.replace(r"\&", "").replace(r"\-", "-").replace(r"\e", "\\").replace('""', '"')


class Page:
    """What a page says, by section."""

    def __init__(self, path):
        self.path, text = path, path.read_text()
        parts = re.split(r"^\.Sh (.+)\n", text, flags=re.M)
        self.sections = dict(zip(parts[1::2], parts[2::2]))
        self.names = re.findall(r"^\.Nm (\S+)", self.sections.get("NAME", ""), re.M)
        self.refers = {name for names in re.findall(r"\bXr (\S+) \d", text) for name in [names]}
        self.lines = [plain(line) for entry in re.findall(r'^\.It (".+")$', self.sections.get("DIAGNOSTICS", ""), re.M)
                      for line in re.findall(r'"((?:""|[^"])+)"', entry)]

    def prototypes(self):
        """Each function of the SYNOPSIS as it would stand in a header."""
        found = re.findall(r"^\.Ft (.+)\n\.Fo (\w+)\n((?:\.Fa .+\n)+)\.Fc$", self.sections.get("SYNOPSIS", ""), re.M)
        return {name: (result, re.findall(r'^\.Fa "(.+)"$', arguments, re.M)) for result, name, arguments in found}

    def example(self):
        """The code of the EXAMPLE, or nothing where it refers to another page's."""
        code = re.search(r"^\.Bd -literal\n(.*?)^\.Ed$", self.sections.get("EXAMPLE", ""), re.M | re.S)
        return code and plain(code[1])


def declared(header):
    """The functions that a header declares: result and arguments by name."""
    text = re.sub(r"/\*.*?\*/", "", header.read_text(), flags=re.S)
    text = re.sub(r"^#(?:.*\\\n)*.*$", "", text, flags=re.M)
    found = re.findall(r"QOR_API\s+([^;(]*?)(\w+)\(([^;()]*)\)\s*(?:QOR_\w+\([^)]*\))?;", text)
    return {name: (" ".join(result.split()), [" ".join(a.split()) for a in arguments.split(",")])
            for result, name, arguments in found}


def needed(root):
    """The functions that applications need, as the headers declare them."""
    listed = re.search(r'APPLICATION = """(.+?)"""', (root / "docs/site/filter.py").read_text(), re.S)[1].split()
    headers = [root / f"include/{name}.h" for name in [*listed, "qor_context_task", "qor_que", "rbapi", "rbapi_kv"]]
    return {k: v for header in [*headers, root / "src/hal/linux/qor_hal.h"] for k, v in declared(header).items()}


def texts_of(page, known):
    """Lines that docs/diagnostics.md does not have, up to what is filled in."""
    for line in page.lines:
        if re.split(r'<|"', line)[0] not in known:
            yield f"no such line is printed: {line}"


def read_by_man(page):
    """What man has to say about the page's source."""
    done = subprocess.run(["man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", "-Z", page.path], check=False,
                          stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    if done.returncode != 0 or done.stderr:
        yield f"man: {done.stderr}"


def built(page, root, library, compilers, folder):
    """What keeps the example from being built, or from ending well."""
    code = page.example()
    if not code:
        return
    kind = "cpp" if "qor.hpp" in code else "c"
    source, output = folder / f"example.{kind}", folder / "example"
    source.write_text(code)
    program = "int main" in code
    last = [library, "-pthread", f"-Wl,-rpath,{Path(library).parent}"] if program else ["-c"]
    command = [compilers[kind], *FLAGS[kind], f"-I{root}/include", f"-I{root}/src/hal/linux", source, "-o", output, *last]
    done = subprocess.run(command, check=False, capture_output=True, text=True)
    if done.returncode != 0:
        yield f"the example does not compile:\n{done.stderr}"
    elif program and subprocess.run([output], check=False, timeout=60, stdout=subprocess.DEVNULL).returncode != 0:
        yield "the example fails"


def complaints(pages, root, library, compilers):
    wanted = needed(root)
    everything = {k: v for header in (root / "include").glob("*.h") for k, v in declared(header).items()} | wanted
    lines = (root / "docs/diagnostics.md").read_text().replace(r"\|", "|")
    names = [name for page in pages for name in page.names]
    for name in sorted(wanted.keys() | set(names)):
        if names.count(name) != 1:
            yield f"{name}: in the NAME of {names.count(name)} pages"
    for page in pages:
        wrong = [] if list(page.sections) == SECTIONS else [f"its sections are {list(page.sections)}"]
        shown = page.prototypes()
        wrong += [f"{name}: {what} in the page" for name, what in shown.items() if everything.get(name) != what]
        wrong += [f"{name} is in NAME and not in SYNOPSIS" for name in page.names
                  if name in everything and name not in shown]
        wrong += [f"there is no {name}" for name in page.refers - set(names) - FOREIGN]
        wrong += [*texts_of(page, lines), *read_by_man(page)]
        with tempfile.TemporaryDirectory() as folder:
            wrong += built(page, root, library, compilers, Path(folder))
        yield from (f"{page.path.name}: {text}" for text in wrong)


def main(root, library, c, cpp):
    pages = [Page(path) for path in sorted(Path(root, "docs/man").glob("*.[37]"))]
    wrong = list(complaints(pages, Path(root), library, {"c": c, "cpp": cpp}))
    examples = sum(1 for page in pages if page.example())
    print("\n".join(wrong) or f"{len(pages)} pages, {examples} examples, {sum(len(p.names) for p in pages)} names")
    return not pages or len(wrong) > 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
