"""Bugs made by a machine: what each operator makes of the expressions and statements where libclang finds it a place.

None is in a comment, a string, a character, an #include or a static_assert, and none in what only becomes a text for
people: what is thrown, what goes to a function that fails or notes, a line of the log. Nor in what only fetches ahead
into the processor's cache, which nothing but a clock can tell."""
import json, re, sys
from collections import defaultdict
from concurrent.futures import ProcessPoolExecutor
from dataclasses import dataclass
from pathlib import Path

sys.path.append("/usr/lib/python3/dist-packages")  # Debian's packages, whichever Python runs this

FOLDERS = ("src", "include", "tools")
TELLS = re.compile(r"(fail|throw)[A-Z]\w*|fail|note")  # functions whose arguments become a text
CANNOT_BE_TOLD = re.compile(r"(Logger|logLine)\(|.*[pP]refetch")  # statements
COMMUTES = re.compile(r"\b(min|max|Add|Xor|And|Or)\s*$")
SWAPS = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "==", "&&": "||", "||": "&&", "+": "-", "-": "+",
         "*": "/", "/": "*", "%": "/", "<<": ">>", ">>": "<<", "&": "|", "|": "&", "^": "|", "+=": "-=", "-=": "+=",
         "*=": "/=", "/=": "*=", "<<=": ">>=", ">>=": "<<=", "|=": "&=", "&=": "|=", "^=": "|="}
NAMES = dict.fromkeys(("<", "<=", ">", ">="), "bound") | dict.fromkeys(("==", "!="), "comparison") | \
    dict.fromkeys(("&&", "||"), "logic")


@dataclass(frozen=True, order=True)
class Bug:
    file: str
    start: int
    end: int
    text: str  # which takes the place of what is there
    operator: str

    def planted(self, content):
        return content[:self.start] + self.text + content[self.end:]

    def line(self, content):
        return content.count("\n", 0, self.start) + 1

    def shown(self, content):
        """The line, or lines, before and after."""
        first, last = content.rfind("\n", 0, self.start) + 1, (content + "\n").find("\n", self.end)
        after = content[first:self.start] + self.text + content[self.end:last]
        return tuple(" ".join(text.split()) for text in (content[first:last], after))


class Unit:
    """What one source file, with the headers that it includes, has places for."""

    def __init__(self, root, path, arguments):
        from clang.cindex import CursorKind, Index
        self.kind, self.root, self.bugs, self.contents = CursorKind, root, set(), {}
        parsed = Index.create().parse(path, arguments)
        errors = [str(each) for each in parsed.diagnostics if each.severity >= 3]
        assert not errors, errors[:3]
        for cursor in parsed.cursor.get_children():
            name = cursor.location.file and Path(cursor.location.file.name).resolve()
            if name and name.is_relative_to(root) and name.relative_to(root).parts[0] in FOLDERS:
                self.file = str(name.relative_to(root))
                self.content = self.contents.setdefault(self.file, name.read_text(encoding="latin-1"))
                self.visit(cursor, "")

    def span(self, cursor):
        return cursor.extent.start.offset, cursor.extent.end.offset

    def text(self, cursor):
        start, end = self.span(cursor)
        return self.content[start:end]

    def between(self, first, second):
        gap = self.content[first.extent.end.offset:second.extent.start.offset]
        return re.sub(r"//.*|/\*.*?\*/", lambda comment: " " * len(comment[0]), gap)

    def add(self, operator, start, end, text):
        """The lines stay as many as they are."""
        lost = self.content.count("\n", start, end) - text.count("\n")
        self.bugs.add(Bug(self.file, start, end, text + "\n" * lost, operator))

    def visit(self, cursor, returning):
        """`returning`: the statement that leaves the function around, where there is one."""
        kind, kinds, children = cursor.kind, self.kind, list(cursor.get_children())
        if kind in (kinds.CXX_THROW_EXPR, kinds.STATIC_ASSERT) or "refetch" in cursor.spelling or \
                (kind == kinds.CALL_EXPR and TELLS.fullmatch(cursor.spelling)):
            return
        if kind in (kinds.FUNCTION_DECL, kinds.CXX_METHOD, kinds.CONSTRUCTOR, kinds.DESTRUCTOR, kinds.FUNCTION_TEMPLATE,
                    kinds.CONVERSION_FUNCTION, kinds.LAMBDA_EXPR):
            returning = self.enter(cursor, children)
        elif kind in (kinds.IF_STMT, kinds.WHILE_STMT, kinds.FOR_STMT, kinds.DO_STMT, kinds.CONDITIONAL_OPERATOR):
            self.condition(cursor, children)
        elif kind == kinds.COMPOUND_STMT:
            self.statements(children, returning)
            children = [child for child in children if not CANNOT_BE_TOLD.match(self.text(child))]
        elif kind in (kinds.CALL_EXPR, kinds.INIT_LIST_EXPR):
            self.arguments(cursor, children)
        elif kind in (kinds.BINARY_OPERATOR, kinds.COMPOUND_ASSIGNMENT_OPERATOR, kinds.UNEXPOSED_EXPR):
            self.operands(children)
        elif kind == kinds.UNARY_OPERATOR:
            self.unary(cursor, children)
        elif kind in (kinds.INTEGER_LITERAL, kinds.FLOATING_LITERAL, kinds.CXX_BOOL_LITERAL_EXPR):
            self.constant(cursor)
        elif kind == kinds.RETURN_STMT and children and returning == "return {};":
            if self.text(children[0]) not in ("{}", "", "false", "0", "nullptr", "std::nullopt"):
                self.add("return value", *self.span(children[0]), "{}")
        for child in children:
            self.visit(child, returning)

    def enter(self, cursor, children):
        """A function's own places; tells how it can be left."""
        kinds, text = self.kind, self.text(cursor)
        if cursor.kind == kinds.CONSTRUCTOR:
            self.initializers(children)
        result = "void" if cursor.kind in (kinds.CONSTRUCTOR, kinds.DESTRUCTOR) else cursor.result_type.spelling
        if cursor.kind == kinds.LAMBDA_EXPR:
            result = "auto" if re.search(r"\breturn [^;]", text) else "void"
        returning = "" if result.endswith("&") or "auto" in result else "return;" if result == "void" else "return {};"
        body = children[-1] if children and children[-1].kind == kinds.COMPOUND_STMT else None
        for statement in body.get_children() if body and returning else ():
            if statement.kind != kinds.RETURN_STMT and not CANNOT_BE_TOLD.match(self.text(statement)):
                self.add("return early", *[self.span(statement)[0]] * 2, returning + " ")
        for statement in body.get_children() if body else ():
            name = statement.kind == kinds.DECL_STMT and next(statement.get_children()).spelling
            if name and len(re.findall(rf"\b{name}\b", text)) == 1:  # a guard
                self.add("statement deleted", *self.span(statement), ";")
        return returning

    def initializers(self, children):
        for member, value in zip(children, children[1:]):
            if member.kind == self.kind.MEMBER_REF and value.kind.is_expression():
                start = self.span(member)[0]
                separator = re.search(r"[:,]\s*\Z", self.content[:start])
                end = re.compile(r"\s*[)}]").match(self.content, self.span(value)[1])
                if separator and separator[0][0] == "," and end:
                    self.add("initializer dropped", separator.start(), end.end(), "")

    def condition(self, cursor, children):
        kinds = self.kind
        for condition, following in zip(children, children[1:] + [cursor]):
            if cursor.kind == kinds.CONDITIONAL_OPERATOR:
                ends = condition == children[0]
            elif cursor.kind == kinds.DO_STMT:
                ends = condition == children[-1]
            else:
                ends = self.between(condition, following).strip()[:1] == (";" if cursor.kind == kinds.FOR_STMT else ")")
            if ends and condition.kind.is_expression():
                self.add("condition negated", *self.span(condition), f"!({self.text(condition)})")
                self.add("condition fixed", *self.span(condition), "false")
                if cursor.kind in (kinds.IF_STMT, kinds.CONDITIONAL_OPERATOR):  # a loop would only hang
                    self.add("condition fixed", *self.span(condition), "true")
                return

    def statements(self, children, returning):
        kinds = self.kind
        for child in children:
            if child.kind in (kinds.BREAK_STMT, kinds.CONTINUE_STMT) or self.text(child) == "return":
                self.add("statement deleted", *self.span(child), "")
                if child.kind != kinds.RETURN_STMT:
                    other = "break" if self.text(child) == "continue" else "continue"
                    self.add("break for continue", *self.span(child), other)
            elif child.kind.is_expression() and not CANNOT_BE_TOLD.match(self.text(child)):
                self.add("statement deleted", *self.span(child), "")

    def operands(self, children):
        if len(children) != 2:
            return
        first, second = children
        gap = self.between(first, second)
        found = gap.strip()
        if found in SWAPS and first.kind.is_expression() and second.kind.is_expression():
            start = self.span(first)[1] + gap.index(found)
            self.add(NAMES.get(found, "arithmetic"), start, start + len(found), SWAPS[found])
            if found in ("&&", "||"):
                self.add("operand dropped", self.span(first)[0], self.span(second)[0], "")
                self.add("operand dropped", self.span(first)[1], self.span(second)[1], "")

    def unary(self, cursor, children):
        start, end = self.span(cursor)
        for sign in ("++", "--"):
            for at in (start, end - 2):
                if self.content[at:at + 2] == sign:
                    self.add("arithmetic", at, at + 2, {"++": "--", "--": "++"}[sign])
        if self.content[start] in "!~" or (self.content[start] == "-" and self.content[start + 1] != "-"):
            self.add("sign dropped", start, start + 1, "")

    def constant(self, cursor):
        text = self.text(cursor)
        if text in ("true", "false"):
            self.add("constant", *self.span(cursor), "false" if text == "true" else "true")
        elif re.match(r"[\d.]", text):
            self.add("constant", *self.span(cursor), f"({text} + 1)" if text != "0" else "1")
            if text not in ("0", "1"):
                self.add("constant", *self.span(cursor), f"({text} - 1)")

    def arguments(self, cursor, children):
        given = list(cursor.get_arguments()) if cursor.kind == self.kind.CALL_EXPR else children
        if cursor.spelling.startswith("operator"):
            if re.fullmatch(r"operator([<>]=?|[!=]=|&&|\|\|)", cursor.spelling):
                self.operands(given)
            return
        callee = self.content[self.span(cursor)[0]:][:200].partition("(")[0]
        for name, other in ("min", "max"), ("max", "min"):
            if re.search(rf"\b{name}\b", callee) and cursor.spelling in ("", name):
                start = self.span(cursor)[0] + callee.rindex(name)
                self.add("min for max", start, start + 3, other)
        if COMMUTES.search(callee):
            return
        start, end = self.span(cursor)
        given = [each for each in given if start <= self.span(each)[0] < self.span(each)[1] <= end]
        for first, second in zip(given, given[1:]):
            if self.text(first) != self.text(second) and kind_of(first) == kind_of(second) and \
                    self.between(first, second).strip() == "," and self.text(first)[0] != "{":
                between = self.content[self.span(first)[1]:self.span(second)[0]]
                self.add("arguments swapped", self.span(first)[0], self.span(second)[1],
                         self.text(second) + between + self.text(first))


def kind_of(cursor):
    """What can take another's place when both are arguments."""
    name = re.sub(r"\bconst\b|&|\s", "", cursor.type.get_canonical().spelling)
    return "number" if re.fullmatch(r"(un)?signed\w*|int|long|char|short|double|float|bool", name) else name


def bugs_of(task):
    return Unit(*task).bugs


def all_bugs(root, commands, processes):
    """Of the sources under `root`, by file and line; `commands`: of the compiler, as CMake writes them down."""
    tasks = []
    for entry in json.loads(Path(commands).read_text()):
        path = Path(entry["file"])
        if path.is_relative_to(root) and path.relative_to(root).parts[0] in FOLDERS:
            arguments = re.findall(r"(?:-isystem |-I|-D|-std=)\S+", entry["command"].replace("\\", ""))
            tasks.append((root, str(path), [word for each in arguments for word in each.split()]))
    # Headers that no source includes have places, too.
    tasks += [(root, str(path), ["-xc++", *tasks[0][2]]) for path in sorted((root / "include").glob("*.h"))]
    lines = defaultdict(list)
    with ProcessPoolExecutor(processes) as pool:
        bugs = set().union(*pool.map(bugs_of, tasks))
    contents = {file: Path(root, file).read_text(encoding="latin-1") for file in {bug.file for bug in bugs}}
    for bug in sorted(bugs):
        lines[bug.file, bug.line(contents[bug.file])].append(bug)
    return lines
