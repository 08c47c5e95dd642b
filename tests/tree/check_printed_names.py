#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The functions that the library's lines name: check_printed_names.py ROOT [--list].

Logs, and those who search them, know a line by file tag and function. printed_names.txt has these
pairs as they were before the sources were cut into parts, and stays as it is; ADDED has those that came
with new lines. --list shows all that the sources can print: tag, function, level, text.
"""
import re
import sys
from pathlib import Path

ADDED = {
    ("qor_bus", "qor_bus_check"),
    ("qor_bus", "qor_bus_wait_up"),
    ("qor_bus", "qor_bus_task_loop"),  # no thread in the place of one that a task has ended
    ("qor_thread_pool", "qor_thread_pool_replace_thread"),  # the same in the pool
    ("qor_hal", "qor_output_set"),
    *(("qor_contract", f) for f in ("qor_contract_init", "qor_bus_contract_set", "qor_bus_ledger")),
    ("qor_periodic", "qor_context_every"),  # a periodic timer that is refused
    ("qor_deferred", "qor_context_defer"),
    ("qor_deferred", "qor_deferred_complete"),
    ("qor_deferred", "qor_deferred_request"),
    ("qor_inspect", "qor_bus_inspect"),
    ("qor_inspect", "qor_bus_dump"),
    *(("qor_health", f) for f in ("qor_bus_explain", "qor_bus_health", "qor_bus_limit_set",
                                  "qor_bus_stalled_set", "qor_bus_circle_set")),
    *(("qor_trace", f) for f in ("qor_trace_start", "qor_trace_stop")),
}
LEVELS = {"QOR_ERR": "err", "QOR_ERR_SPACED": "err", "QOR_WRN": "wrn", "QOR_INF": "inf"}
CHECKS = {"QOR_CHECK": 0, "QOR_CHECK_VOID": 0, "QOR_CHECK_TEXT": 1}  # which argument is the text
PRINTING = {*LEVELS, *CHECKS, "QOR_LINE", "qor_check_failed"}
STRING = r'"(?:[^"\\]|\\.)*"'
FUNCTION = re.compile(r"^(?!#|template|namespace|struct|class|enum|static_assert|using)[^\n;={}]*?"
                      r"\b(\w+)\(([^;{}]*?)\)(?: noexcept)?\n?\{\n(.*?)^\}", re.M | re.S)
CALL = re.compile(r"\b(\w+)(?:<\w+>)?\(")


def arguments(code, start):
    """The arguments of a call, the first of which starts there, as they are written."""
    depth, last, found = 0, start, []
    for token in re.compile(STRING + r"|[(){}\[\],]").finditer(code, start):
        closing = token[0] == ")" and depth == 0
        if closing or token[0] == "," and depth == 0:
            found.append(" ".join(code[last:token.start()].split()))
            last = token.end()
            if closing:
                return found
        depth += (token[0] in "([{") - (token[0] in ")]}")
    return found


def text(argument):
    """A literal, which may be cut into several, without its quotes; a condition as it is."""
    literals = re.findall(STRING, argument)
    return "".join(part[1:-1] for part in literals) if argument.startswith('"') else argument


def condition(argument):
    """What a check prints. One that checks two things at once names either."""
    either = re.findall(STRING, argument) if "?" in argument else [f'"{text(argument)}"']
    return "|".join(f"!({part[1:-1]}) == true." for part in either)


def line(call, given):
    """What stands for the function in a line that a call prints, its level and its text; or None."""
    if call in LEVELS:
        return "__func__", LEVELS[call], text(given[0])
    if call in CHECKS:
        return "__func__", "err", condition(given[CHECKS[call]])
    if call == "QOR_LINE":
        return given[1], text(given[0]), text(given[2])
    if call == "qor_check_failed":
        return given[0], "err", condition(given[2])
    return None


def functions(root):
    """Each function of the sources: tag of its file, name, whether it is handed a name, its calls."""
    for path in sorted((root / "src").rglob("*.[ch]pp")):
        if path.stem == "qor_diag":  # whose macros are known here
            if new := set(re.findall(r"^#define (QOR_\w+)\(", path.read_text(), re.M)) - PRINTING:
                sys.exit(f"{path}: unknown here: {new}")
            continue
        code = re.sub(r"/\*.*?\*/", "", path.read_text(), flags=re.S)
        for name, literal in re.findall(r'^constexpr char (\w+)\[\] = ("\w+");', code, re.M):
            code = re.sub(rf"(?<!char )\b{name}\b", literal, code) if name != "file_tag" else code
        tag = re.search(r'\bfile_tag\[\] = "(\w+)"', code)
        understood = 0
        for name, parameters, body in FUNCTION.findall(code):
            calls = [(c[1], arguments(body, c.end())) for c in CALL.finditer(body)]
            understood += sum(line(*c) is not None for c in calls)
            yield tag and tag[1], name, "const char *func" in parameters, calls
        if understood != sum(c[1] in PRINTING for c in CALL.finditer(code)):
            sys.exit(f"{path}: prints outside of what looks like a function")


def lines(root):
    """All that can be printed. A helper that is handed a name prints that of whoever hands on its own."""
    found = list(functions(root))

    def names(helper):
        for _, name, handed, calls in found:
            for given in (g for call, g in calls if call == helper):
                if "__func__" in given:
                    yield name
                elif handed and "func" in given:
                    yield from names(name)
                else:
                    yield from (text(g) for g in given if re.fullmatch(r'"qor_\w+"', g))

    for tag, name, _, calls in found:
        for of, level, what in filter(None, (line(*c) for c in calls)):
            if of == "func":
                yield from ((tag, n, level, what) for n in names(name))
            else:
                yield tag, name if of == "__func__" else text(of), level, what


printable = sorted(set(lines(Path(sys.argv[1]))))
if "--list" in sys.argv:
    print("\n".join(f"[{tag}][{level}][{function}]:{what}" for tag, function, level, what in printable))
    sys.exit()
now = {(tag, function) for tag, function, _, _ in printable}
rows = Path(__file__).with_name("printed_names.txt").read_text().splitlines()
known = {tuple(row.split()) for row in rows if not row.startswith("#")}
complaints = [f"{tag}: {function} was not printed before" for tag, function in now - known - ADDED]
complaints += [f"{tag}: {function} is not printed any more" for tag, function in (known | ADDED) - now]
print("\n".join(sorted(complaints)) or f"{len(printable)} lines name {len(now)} functions")
sys.exit(len(complaints) > 0)
