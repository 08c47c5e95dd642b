# SPDX-License-Identifier: Apache-2.0
"""Where a source can be changed by a small fault, and how: found on its syntax tree."""
import re
from dataclasses import dataclass

from clang.cindex import Config, CursorKind as K, Index, TokenKind, TranslationUnit, TypeKind

Config.set_compatibility_check(False)

# What stands for the checks while a source is parsed: as functions, for what is in a macro's arguments
# has no place of its own in the tree.
CHECKS = """
#undef QOR_CHECK
#undef QOR_CHECK_VOID
#undef QOR_CHECK_TEXT
template <typename C, typename R> void QOR_CHECK(const C &, R);
template <typename C> void QOR_CHECK_VOID(const C &);
template <typename C, typename R> void QOR_CHECK_TEXT(const C &, const char *, R);
"""

SWAPPED = {
    "<": ["<=", ">="], "<=": ["<", ">"], ">": [">=", "<="], ">=": [">", "<"], "==": ["!="], "!=": ["=="],
    "&&": ["||"], "||": ["&&"], "+": ["-"], "-": ["+"], "*": ["/"], "/": ["*"], "%": ["/"],
    "&": ["|"], "|": ["&"], "^": ["|"], "<<": [">>"], ">>": ["<<"],
    "+=": ["-="], "-=": ["+="], "|=": ["&="], "&=": ["|="], "^=": ["|="], "<<=": [">>="], ">>=": ["<<="],
}
FUNCTIONS = {K.FUNCTION_DECL, K.CXX_METHOD, K.CONSTRUCTOR, K.DESTRUCTOR, K.FUNCTION_TEMPLATE}
STATEMENTS = {K.CALL_EXPR, K.BINARY_OPERATOR, K.COMPOUND_ASSIGNMENT_OPERATOR, K.UNARY_OPERATOR, K.UNEXPOSED_EXPR,
              K.CSTYLE_CAST_EXPR, K.BREAK_STMT, K.CONTINUE_STMT, K.RETURN_STMT, K.DECL_STMT}
INTEGERS = {TypeKind.INT, TypeKind.UINT, TypeKind.LONG, TypeKind.ULONG, TypeKind.LONGLONG, TypeKind.ULONGLONG,
            TypeKind.SHORT, TypeKind.USHORT, TypeKind.UCHAR, TypeKind.SCHAR, TypeKind.CHAR_S, TypeKind.ENUM}
SHARED = re.compile(r"lock|__atomic|hal_load|hal_store|_cond_|_wake|mutex")


@dataclass(frozen=True)
class Site:
    """A change of one source: the bytes from start to end become text."""
    file: str
    function: str
    first: int  # lines of that function
    last: int
    line: int
    kind: str
    start: int
    end: int
    text: str
    before: str  # the changed lines as they are, in one
    after: str
    above: str   # the line above them
    shared: bool  # it concerns locks, waking or atomic operations

    def key(self):
        return f"{self.file}:{self.start}:{self.end}:{self.text}"

    def apply(self, source):
        return source[: self.start] + self.text.encode() + source[self.end:]


class Source:
    """A source and its sites. The arguments are those that it is compiled with."""

    def __init__(self, root, file, arguments):
        self.file = file
        self.bytes = (root / file).read_bytes()
        diag = root / "src/base/qor_diag.hpp"
        checks = diag.read_text().replace("#endif /* QOR_DIAG_HPP */", CHECKS + "#endif")
        unit = Index.create().parse(str(root / file), args=arguments, unsaved_files=[(str(diag), checks)],
                                    options=TranslationUnit.PARSE_DETAILED_PROCESSING_RECORD)
        errors = [str(d) for d in unit.diagnostics if d.severity >= 3]
        if errors:
            raise SystemExit(f"{file} is not parsed: {errors[0]}")
        # What a macro of the source itself stands for is left alone.
        self.macros = [self.span(c) for c in unit.cursor.get_children()
                       if c.kind == K.MACRO_DEFINITION and self.mine(c)]
        self.function, self.lines, self.result = "", (1, 1), None
        self.check = None
        self.sites = {}
        for cursor in unit.cursor.get_children():
            if self.mine(cursor) and not cursor.kind.is_preprocessing():
                self.walk(cursor)

    def mine(self, cursor):
        place = cursor.location.file
        return place is not None and place.name.endswith(self.file)

    @staticmethod
    def span(cursor):
        return cursor.extent.start.offset, cursor.extent.end.offset

    def at(self, start, end):
        return self.bytes[start:end].decode()

    def told(self, cursor):
        return self.at(*self.span(cursor))

    def add(self, kind, start, end, text):
        """Notes a change. What a check prints stays as it is, when its condition is changed."""
        if self.check and self.check[1] <= start and end <= self.check[2]:
            invocation, first, last = self.check
            condition = self.at(first, last)
            changed = self.at(first, start) + text + self.at(end, last)
            printed = " ".join(condition.split()).replace('"', '\\"')
            rest = self.at(last, invocation[1])
            result = ", )" if rest == ")" else rest
            start, end = invocation
            text = f'QOR_CHECK_TEXT({changed}, "{printed}"{result}'
        if self.at(start, end) == text:
            return
        line = self.bytes.count(b"\n", 0, start) + 1
        from_line = self.bytes.rfind(b"\n", 0, start) + 1
        to_line = self.bytes.find(b"\n", end)
        before = " ".join(self.at(from_line, to_line).split())
        after = " ".join((self.at(from_line, start) + text + self.at(end, to_line)).split())
        above = self.at(self.bytes.rfind(b"\n", 0, max(from_line - 1, 0)) + 1, max(from_line - 1, 0)).strip()
        site = Site(self.file, self.function, *self.lines, line, kind, start, end, text, before, after, above,
                    bool(SHARED.search(before)))
        self.sites.setdefault((start, end, text), site)

    def walk(self, cursor):
        if cursor.kind == K.STATIC_ASSERT or not self.mine(cursor):
            return
        before = self.function, self.lines, self.result, self.check
        if cursor.kind in FUNCTIONS and cursor.is_definition():
            self.function = cursor.spelling
            self.lines = cursor.extent.start.line, cursor.extent.end.line
            self.result = cursor.result_type
        elif cursor.kind == K.LAMBDA_EXPR:
            self.result = None
        check = self.check_of(cursor)
        if check:
            self.check = check
        children = list(cursor.get_children())
        self.change(cursor, children)
        for child in children:
            self.walk(child)
        self.function, self.lines, self.result, self.check = before

    def check_of(self, cursor):
        """Of a check that prints its condition: where it stands, and where the condition."""
        if cursor.kind != K.CALL_EXPR or cursor.spelling not in ("QOR_CHECK", "QOR_CHECK_VOID"):
            return None
        arguments = list(cursor.get_arguments())
        return self.span(cursor), *self.span(arguments[0])

    def change(self, cursor, children):
        kind = cursor.kind
        if kind in (K.BINARY_OPERATOR, K.COMPOUND_ASSIGNMENT_OPERATOR) and len(children) == 2:
            self.operator(children)
        elif kind == K.UNARY_OPERATOR and children:
            self.unary(cursor, children[0])
        elif kind == K.INTEGER_LITERAL:
            self.constant(cursor)
        elif kind == K.CXX_BOOL_LITERAL_EXPR:
            value = self.told(cursor)
            if value in ("true", "false"):
                self.add("constant", *self.span(cursor), "false" if value == "true" else "true")
        elif kind == K.RETURN_STMT and children:
            self.returned(cursor, children[0])
        elif kind == K.COMPOUND_STMT:
            self.statements(cursor, children)
        elif kind == K.CALL_EXPR:
            self.call(cursor)
        condition = self.condition(cursor, children)
        if condition:
            start, end = self.span(condition)
            self.add("condition", start, end, f"!({self.at(start, end)})")

    def operator(self, operands):
        start, end = self.span(operands[0])[1], self.span(operands[1])[0]
        between = self.at(start, end)
        found = re.fullmatch(r"\s*([-+*/%&|^<>=!]+)\s*", between)
        if not found:
            return
        for other in SWAPPED.get(found[1], []):
            self.add("operator", start + found.start(1), start + found.end(1), other)

    def unary(self, cursor, operand):
        start, end = self.span(cursor)
        first, last = self.span(operand)
        operator = (self.at(start, first) + self.at(last, end)).strip()
        place = (start, first) if start < first else (last, end)
        if operator in ("++", "--"):
            self.add("operator", *place, "--" if operator == "++" else "++")
        elif operator in ("!", "~", "-") and start < first:
            self.add("operator", *place, "")

    def constant(self, cursor):
        found = re.fullmatch(r"(\d+)([uUlL]*)", self.told(cursor))
        if found:
            value = int(found[1])
            for other in [1] if value == 0 else [value + 1, value - 1]:
                self.add("constant", *self.span(cursor), f"{other}{found[2]}")

    def returned(self, cursor, value):
        told = self.told(value)
        result = (self.result or value.type).get_canonical()
        if told.startswith("{"):
            return
        if result.kind == TypeKind.BOOL:
            if told not in ("true", "false"):
                self.add("return", *self.span(value), f"!({told})")
        elif result.kind == TypeKind.POINTER:
            if told != "nullptr":
                self.add("return", *self.span(value), "nullptr")
        elif result.kind in INTEGERS:
            self.add("return", *self.span(value), "-1" if told == "0" else "0")

    def statements(self, block, children):
        last_of_function = self.span(block)[1]
        for child in children:
            if child.kind not in STATEMENTS or not self.mine(child):
                continue
            start, end = self.span(child)
            told = self.at(start, end)
            if child.kind == K.DECL_STMT:
                if re.match(r"(hal_scoped_lock|lane_use|trace_\w+) ", told):
                    self.add("drop", start, end, "")
                continue
            if child.kind == K.RETURN_STMT:
                rest = self.at(end, last_of_function)
                if re.search(r"return\s", told) and not re.sub(r"[;}\s]", "", rest) and self.ends_function(block):
                    continue  # without it there would be no result
            if child.kind in (K.BREAK_STMT, K.CONTINUE_STMT, K.RETURN_STMT) or self.told(child)[-1:] in ")" \
                    or child.kind != K.CALL_EXPR:
                self.add("drop", start, end, "")

    def ends_function(self, block):
        return block.extent.end.line == self.lines[1]

    def call(self, cursor):
        """A field that is shared between threads, read as if it were not."""
        if cursor.spelling == "hal_load":
            arguments = list(cursor.get_arguments())
            if len(arguments) == 1:
                self.add("atomic", *self.span(cursor), f"({self.told(arguments[0])})")

    def condition(self, cursor, children):
        """What decides at a branch or loop; None for what is declared there."""
        if cursor.kind in (K.IF_STMT, K.WHILE_STMT, K.CONDITIONAL_OPERATOR) and children:
            first = children[0]
        elif cursor.kind == K.DO_STMT and len(children) == 2:
            first = children[1]
        elif cursor.kind == K.FOR_STMT:
            first = next((child for child in children[:-1] if child.kind != K.DECL_STMT and self.between(child)), None)
        elif cursor.kind == K.CALL_EXPR and cursor.spelling.startswith("QOR_CHECK"):
            first = list(cursor.get_arguments())[0]
        else:
            return None
        return first if first is not None and first.kind.is_expression() else None

    def between(self, cursor):
        """Whether it stands between the two semicolons of a for."""
        start, end = self.span(cursor)
        return self.bytes[:start].rstrip().endswith(b";") and self.bytes[end:].lstrip().startswith(b";")


def sites_of(root, file, arguments):
    return sorted(Source(root, file, arguments).sites.values(), key=lambda site: (site.start, site.end, site.text))
