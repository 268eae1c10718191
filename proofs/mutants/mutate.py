#!/usr/bin/python3
"""Finds places for faults in C++ sources, and writes sources in which each can be switched on.

mutate.py ROOT FOLDER,... ARGUMENT...: prints the mutants in the files below these folders that
clang reads with the arguments, as JSON."""
import json
import re
import sys
from collections import defaultdict
from typing import NamedTuple

from clang.cindex import Cursor, CursorKind as K, Index, TypeKind


class Mutant(NamedTuple):
    file: str  # from the root
    start: int  # bytes; the text from start to end is replaced
    end: int
    line: int
    statement: bool  # or an expression
    old: str  # both on one line
    new: str
    text: str  # the line

    def change(self) -> str:
        return f"`{self.old}` -> `{self.new}`" if self.new else f"`{self.old}` dropped"

    def place(self) -> str:
        return f"{self.file}:{self.line}: {self.change()}"


OPERATORS = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "==", "&&": "||",
             "||": "&&", "+": "-", "-": "+", "*": "/", "/": "*", "%": "/", "&": "|", "|": "&",
             "<<": ">>", ">>": "<<", "+=": "-=", "-=": "+=", "*=": "/=", "|=": "&=", "&=": "|="}
# What is evaluated by the compiler, or not at all.
UNMUTABLE = {K.STATIC_ASSERT, K.ENUM_CONSTANT_DECL, K.PARM_DECL, K.CXX_UNARY_EXPR, K.ALIGNED_ATTR,
             K.TEMPLATE_TYPE_PARAMETER, K.TEMPLATE_NON_TYPE_PARAMETER, K.TYPE_ALIAS_DECL}
CONTROLLED = {K.IF_STMT, K.WHILE_STMT, K.FOR_STMT, K.CXX_FOR_RANGE_STMT}
TOKEN = re.compile(r'R"\((?:.|\n)*?\)"|"(?:\\.|[^"\\\n])*"|\d[\w\']*|\'(?:\\.|[^\'\\\n])+\''
                   r'|//[^\n]*|/\*(?:.|\n)*?\*/')


def on_one_line(text: str) -> str:
    """The text without comments and line breaks; literals stay as they are."""
    text = TOKEN.sub(lambda match: " " if match[0].startswith("/") else match[0], text)
    return re.sub(r"\s*\n\s*", " ", text).strip()


def are_apart(first: str, second: str) -> bool:
    """Two assignments that know nothing of each other: their order is no fault."""
    sides = []
    for text in (first, second):
        plain = re.sub(r"std::move\(([\w.]+)\)", r"\1", text.strip())
        match = re.fullmatch(r"([\w.]+) [-+*/|&^]?= ([^()=]+);", plain)
        if not match:
            return False
        sides.append((match[1], plain))
    (one, _), (other, _) = sides
    return not re.search(rf"\b{re.escape(one)}\b", sides[1][1]) and \
        not re.search(rf"\b{re.escape(other)}\b", sides[0][1])


class Source:
    """A file, and the mutants found in it."""

    def __init__(self, name: str, path: str):
        self.name = name
        with open(path, encoding="latin-1", newline="") as file:  # one character a byte
            self.text = file.read()
        # Only code is left to look at: comments and texts are blanked out.
        self.code = TOKEN.sub(lambda m: m[0] if m[0][0].isdigit() else re.sub(r"[^\n]", " ", m[0]),
                              self.text)
        self.macros = [(match.start(), self.closing(match.end()))
                       for match in re.finditer(r"\b[A-Z][A-Z0-9_]{3,}(?=\()", self.code)]
        self.macros += [m.span() for m in re.finditer(r"^#(?:.*\\\n)*.*", self.code, re.M)]
        self.found: set[Mutant] = set()

    def closing(self, opening: int) -> int:
        """Where the parenthesis that opens there is closed."""
        depth = 0
        for match in re.compile(r"[()]").finditer(self.code, opening):
            depth += 1 if match[0] == "(" else -1
            if depth == 0:
                return match.start()
        return len(self.code)

    def add(self, start: int, end: int, new: str, statement: bool) -> None:
        if not any(first <= start < last for first, last in self.macros):
            line = self.text.count("\n", 0, start)
            self.found.add(Mutant(self.name, start, end, line + 1, statement,
                                  on_one_line(self.text[start:end]), on_one_line(new),
                                  self.text.split("\n")[line].strip()))

    def replace(self, cursor: Cursor, new: str) -> None:
        self.add(cursor.extent.start.offset, cursor.extent.end.offset, new, False)

    def raw(self, cursor: Cursor) -> str:
        return self.text[cursor.extent.start.offset:cursor.extent.end.offset]

    def visit(self, cursor: Cursor) -> None:
        kind, children = cursor.kind, list(cursor.get_children())
        before = self.text[cursor.extent.start.offset:cursor.location.offset]
        if kind in UNMUTABLE or kind.is_attribute() or \
                kind.is_declaration() and re.search(r"\bconst(expr|eval|init)\b", before):
            return
        if kind.is_declaration():  # what stands before the name are arguments of templates
            children = [child for child in children if child.extent.end.offset > cursor.location.offset]
        if kind == K.COMPOUND_STMT:
            self.statements(children)
        elif kind in CONTROLLED:
            children = self.controlled(cursor, children)
        elif kind in (K.CASE_STMT, K.DEFAULT_STMT, K.DO_STMT):
            children = children[:1] if kind == K.DO_STMT else children[-1:]
            self.statements(children)
        elif kind == K.CONDITIONAL_OPERATOR and children:
            self.constant(children[0])
        elif kind == K.RETURN_STMT and children and self.raw(children[0]) not in ("true", "false"):
            if children[0].type.get_canonical().kind == TypeKind.BOOL:
                self.replace(children[0], f"!({self.raw(children[0])})")
        elif kind.is_expression():
            self.expression(cursor, kind, children)
        for child in children:
            self.visit(child)

    def constant(self, condition: Cursor) -> None:
        for value in {"true", "false"} - {self.raw(condition)}:
            self.replace(condition, value)

    def controlled(self, cursor: Cursor, children: list[Cursor]) -> list[Cursor]:
        """Conditions that are always true or never, and statements without braces; where to go on."""
        opening = self.code.find("(", cursor.extent.start.offset)
        closing = self.closing(opening)
        bodies = [child for child in children if child.extent.start.offset > closing]
        self.statements(bodies)
        if "constexpr" in self.code[cursor.extent.start.offset:opening]:
            return bodies
        head = [child for child in children if child.extent.start.offset < closing]
        if cursor.kind == K.FOR_STMT:  # what stands between the semicolons
            parts = [i for i in range(opening, closing) if self.code[i] == ";"]
            head = [child for child in head if parts[0] < child.extent.start.offset < parts[1]]
        if cursor.kind != K.CXX_FOR_RANGE_STMT and head and head[-1].kind.is_expression() and \
                all(child.kind != K.VAR_DECL for child in head):
            self.constant(head[-1])
        return children

    def statements(self, children: list[Cursor]) -> None:
        """Each may be dropped, and change places with the next."""
        before = None
        for child in children:
            start, end = child.extent.start.offset, child.extent.end.offset
            end += len(self.code[end:]) - len(self.code[end:].lstrip()) + 1
            plain = child.kind.is_expression() and not self.raw(child).startswith("static_cast<void>")
            leaves = child.kind in (K.BREAK_STMT, K.CONTINUE_STMT) or self.raw(child) == "return"
            if not (plain or leaves) or self.code[end - 1:end] != ";":
                before = None
                continue
            self.add(start, end, "", True)
            if plain and before and not are_apart(self.text[before[0]:before[1]], self.text[start:end]):
                self.add(before[0], end, self.text[start:end] + "\n" +
                         self.text[before[0]:before[1]], True)
            before = (start, end) if plain and not before else None

    def expression(self, cursor: Cursor, kind: K, children: list[Cursor]) -> None:
        text, start, end = self.raw(cursor), cursor.extent.start.offset, cursor.extent.end.offset
        if kind == K.INTEGER_LITERAL and text[:1].isdigit():
            if self.code[start - 1] not in "<[" and self.code[end:end + 1] not in (">", "]"):
                self.replace(cursor, f"({text} + 1)")
        elif kind == K.CXX_BOOL_LITERAL_EXPR and text in ("true", "false"):
            self.constant(cursor)
        elif kind == K.UNARY_OPERATOR and re.match(r"![^=]", text):
            self.replace(cursor, f"bool({text[1:]})")
        elif kind == K.UNARY_OPERATOR and text[:2] in ("++", "--"):
            self.replace(cursor, ("--" if text[0] == "+" else "++") + text[2:])
        elif len(children) >= 2:
            left, right = children[0].extent, children[-1].extent
            operator = self.code[left.end.offset:right.start.offset].strip()
            result = cursor.type.get_canonical().spelling
            # Places have a difference, but no sum; a time has multiples, but divides no number.
            impossible = {"-": r"time_point|iterator|\*$", "*": "duration"}.get(operator, "^$")
            if re.search(impossible, children[-1].type.get_canonical().spelling):
                return
            if (left.start.offset, right.end.offset) == (start, end) and operator in OPERATORS and \
                    "basic_string" not in result and not (operator in ("<<", ">>") and "::" in result):
                self.replace(cursor, f"{self.raw(children[0])} {OPERATORS[operator]} "
                                     f"{self.raw(children[-1])}")


def find(root: str, folders: tuple[str, ...], arguments: list[str]) -> set[Mutant]:
    """The mutants in one translation unit and in this project's headers of it."""
    unit = Index.create().parse(None, args=arguments)
    errors = [str(diagnostic) for diagnostic in unit.diagnostics if diagnostic.severity >= 3]
    if errors:
        sys.exit(f"{arguments[-1]}: {errors[0]}")
    sources: dict[str, Source] = {}
    for cursor in unit.cursor.get_children():
        path = cursor.location.file.name if cursor.location.file else ""
        name = path[len(root) + 1:]
        if path.startswith(root + "/") and name.startswith(folders):
            if name not in sources:
                sources[name] = Source(name, path)
            sources[name].visit(cursor)
    return set().union(*(source.found for source in sources.values()))


def rewritten(text: str, mutants: list[tuple[int, Mutant]]) -> str:
    """The source with all of these in it, each behind its number; each line stays where it is."""
    groups: dict[tuple[int, int, bool], list[tuple[int, Mutant]]] = defaultdict(list)
    for number, mutant in mutants:
        groups[mutant.start, -mutant.end, not mutant.statement].append((number, mutant))
    keys = sorted(groups)

    def render(start: int, end: int, first: int) -> tuple[str, int]:
        """The text from start to end with the groups from `first` on that begin in it."""
        parts, at, i = "", start, first
        while i < len(keys) and keys[i][0] < end:
            begin, stop = keys[i][0], -keys[i][1]
            if begin < at or stop > end:
                i += 1  # overlaps another: never, but for a macro
                continue
            inner, following = render(begin, stop, i + 1)
            parts += text[at:begin] + switched(groups[keys[i]], inner)
            at, i = stop, following
        return parts + text[at:end], i

    return render(0, len(text), 0)[0]


def switched(group: list[tuple[int, Mutant]], inner: str) -> str:
    if group[0][1].statement:
        choices = "".join(f"if (kiroweb_mutant({n})) {{ {m.new} }} else " for n, m in group)
        return f"{{ {choices}{{ {inner} }} }}"
    if any(re.match(r"true$|false$|bool\(|!\(", m.new) for _, m in group):
        inner = f"static_cast<bool>({inner})"
    return "(" + "".join(f"kiroweb_mutant({n}) ? ({m.new}) : " for n, m in group) + f"({inner}))"


if __name__ == "__main__":
    print(json.dumps(sorted(find(sys.argv[1], tuple(sys.argv[2].split(",")), sys.argv[3:]))))
