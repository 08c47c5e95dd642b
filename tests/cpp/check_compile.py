#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What the C++ interface does with a compiler: check_compile.py CHECK ROOT LIBRARY COMPILER [OPTION...].

CHECK is one of the functions below: headers that compile alone, programs that run, and mistakes that
are to fail with a text.
"""
import os
import re
import subprocess
import sys
import tempfile
from pathlib import Path

check, root, library, compiler, *options = sys.argv[1:]
ROOT, HERE = Path(root), Path(__file__).resolve().parent
FLAGS = ["-Wall", "-Wextra", "-Wpedantic", "-Wshadow", "-Wconversion", "-Werror", "-pthread",
         f"-I{ROOT}/include", f"-I{ROOT}/src/hal/linux"]
BARE = ["-fno-exceptions", "-fno-rtti"]


def compiles(*arguments, text=""):
    """Whether a compilation succeeds, and what it says."""
    done = subprocess.run([compiler, *FLAGS, *map(str, arguments)], input=text, text=True, check=False,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    return done.returncode == 0, done.stdout


def runs(folder, *objects):
    """Links a program and runs it; what it prints, or None."""
    program = Path(folder) / "program"
    good, said = compiles(*objects, library, "-o", program)
    if not good:
        print(said)
        return None
    environment = os.environ | {"LD_LIBRARY_PATH": str(Path(library).parent)}
    done = subprocess.run([program], text=True, check=False, timeout=120, env=environment, stdout=subprocess.PIPE)
    print(done.stdout)
    return done.stdout if done.returncode == 0 else None


def headers():
    """Each header compiles alone, included twice."""
    for header in ["qor.hpp", *sorted(f"qor/{p.name}" for p in (ROOT / "include/qor").glob("*.hpp"))]:
        good, said = compiles(*options, "-fsyntax-only", "-x", "c++", "-", text=f'#include "{header}"\n' * 2)
        if not good:
            yield f"{header} does not compile alone:\n{said}"


def everything():
    """The program of nearly everything holds."""
    with tempfile.TemporaryDirectory() as folder:
        if runs(folder, *options, "-O1", HERE / "everything.cpp") is None:
            yield "it does not"


def mixed():
    """Units with and without exceptions and type information are one program, which notices that
    they have two types on one topic."""
    with tempfile.TemporaryDirectory() as folder:
        units = {"mixed_thrower.cpp": options, "mixed_plain.cpp": [*options, *BARE]}
        for unit, flags in units.items():
            good, said = compiles(*flags, "-c", HERE / unit, "-o", Path(folder) / f"{unit}.o")
            if not good:
                yield f"{unit} does not compile:\n{said}"
                return
        said = runs(folder, *(Path(folder) / f"{unit}.o" for unit in units))
        if said is None:
            yield "the program fails"
        elif len(re.findall(r"topic 2 has two types: ", said)) != 1 or "(int, void)" not in said:
            yield "two types on one topic are not told once"


# What a program may try, and what the compiler answers.
MISTAKES = {
    "class m : public qor::module<m> { public: m() : module(\"12345678901234567890\") {} }; m one;":
        "a name has at most 19 characters",
    "void f(qor::module_base &m) { m.run(\"12345678901234567890\", [] {}); }":
        "a name has at most 19 characters",
    "struct s { s(const s &); s(); }; void f(qor::module_base &m) { m.publish<qor::topic<0, s>>(); }":
        "a payload is copied as bytes",
    "class m : public qor::module<m, qor::topic<0>, qor::topic<0, int>> { public: m() : module(\"m\") {}\n"
    "void handle(const qor::request<qor::topic<0>> &); void handle(const qor::request<qor::topic<0, int>> &); }; m one;":
        "a module has a topic once",
    "void f(qor::module_base &m) { m.call<qor::topic<0, int, int>>(1); }":
        "there is a response",
    "qor::topic<-1>::request_type *p;":
        "topics are counted from 0",
    "class m : public qor::module<m> { public: m() : module(\"m\") {} }; m one; m two(std::move(one));":
        "deleted",
    "class m : public qor::module<m> { public: m() : module(\"m\") {} void f() { unsubscribe<qor::topic<0>>(); } };\n"
    "void f(m &one) { one.f(); }":
        "not one of the module's topics",
}


def mistakes():
    """They fail, each with its text; without any of them a unit compiles."""
    good, said = compiles(*options, "-fsyntax-only", "-x", "c++", "-", text='#include "qor.hpp"\nint main() {}\n')
    if not good:
        yield said
    for code, text in MISTAKES.items():
        good, said = compiles(*options, "-Wno-unused", "-fsyntax-only", "-x", "c++", "-",
                              text=f'#include "qor.hpp"\n{code}\n')
        if good or text not in said:
            yield f"{code}\n  did not fail with \"{text}\":\n{said}"


complaints = list(globals()[check]())
print("\n".join(complaints) or "nothing to complain about")
sys.exit(len(complaints) > 0)
