# SPDX-License-Identifier: Apache-2.0
"""How the library's sources are broken, one small change at a time.

The rules read C++ as .clang-format lays it out: binary operators stand between blanks, template
brackets do not. A change that does not compile costs a second and nothing else.
"""
import collections
import re

# One change: text[start:end] of the file becomes `text`.
Mutant = collections.namedtuple("Mutant", "file start end text")

LOG = re.compile(r"\b(NELVO_LOG[DIE]?|LOG_ERROR)\(")
LOG_SAMPLE = 3  # every how many log statements are broken, each in one way

COMPARISONS = {"==": "!=", "!=": "==", "<": "<=", "<=": "<", ">": ">=", ">=": ">"}
OPERATORS = {"&&": "||", "||": "&&", "+": "-", "-": "+", "*": "/", "/": "*", "%": "*"}
LEVELS = {"NELVO_LOGD": "NELVO_LOGE", "NELVO_LOGI": "NELVO_LOGD", "NELVO_LOGE": "NELVO_LOGD"}
# A call on one element, and what does the same to all, or to any.
ALL = {"erase": "clear()", "count": "size()", "find": "begin()"}
WORDS = {
    "true": "false",
    "false": "true",
    "ECORE_CALLBACK_CANCEL": "ECORE_CALLBACK_RENEW",
    "ECORE_CALLBACK_RENEW": "ECORE_CALLBACK_CANCEL",
    "RPC_PORT_PORT_CALLBACK": "RPC_PORT_PORT_MAIN",
    "insert_or_assign": "emplace",
}
RETURNED = {
    "NELVO_ERROR_NONE": "NELVO_ERROR_OPERATION_FAILED",
    "NELVO_ERROR_OPERATION_FAILED": "NELVO_ERROR_NONE",
    "NELVO_ERROR_INVALID_PARAMETER": "NELVO_ERROR_OPERATION_FAILED",
    "NELVO_ERROR_NOT_SUPPORTED": "NELVO_ERROR_OPERATION_FAILED",
    "NELVO_ERROR_OUT_OF_MEMORY": "NELVO_ERROR_OPERATION_FAILED",
    "RPC_PORT_ERROR_OUT_OF_MEMORY": "RPC_PORT_ERROR_NONE",
}


def blank(match):
    return re.sub(r"[^\n]", " ", match.group())


def code_only(text):
    """The text with comments, literals and preprocessor lines blanked, each place where it was."""
    text = re.sub(r"^[ \t]*#(?:[^\n]*\\\n)*[^\n]*", blank, text, flags=re.M)
    return re.sub(r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\])*"|\'(?:\\.|[^\'\\])*\'', blank, text,
                  flags=re.S)


def closing(code, opening):
    """Where the bracket at `opening` closes."""
    depth = 0
    for at in range(opening, len(code)):
        depth += {"(": 1, ")": -1}.get(code[at], 0)
        if depth == 0:
            return at
    return len(code)


def statements(code):
    """(start, end) of every simple statement, its semicolon left out, without what stands before
    it: conditions, labels and the like. A lambda or a list in braces is part of its statement; the
    statements in a lambda count as well."""
    start, depth, outer = 0, 0, []
    for at, char in enumerate(code):
        depth += {"(": 1, ")": -1}.get(char, 0)
        if char == "{":
            outer.append((start, depth))
            start, depth = at + 1, 0
        elif char == "}" and outer:
            begin, depth = outer.pop()
            in_statement = depth or code[at + 1:at + 2] in (";", ",", "(")
            start = begin if in_statement else at + 1
        elif char == ";" and depth == 0:
            begin = without_heads(code, start, at)
            if begin < at:
                yield begin, at
            start = at + 1


def without_heads(code, start, end):
    head = re.compile(r"\s+|(if|for|while|switch)\s*(?=\()|(else|do)\b|case [^:]+:(?!:)"
                      r"|(default|public|protected|private):")
    while start < end:
        match = head.match(code, start, end)
        if not match:
            break
        start = match.end()
        if match.group(1):
            start = closing(code, start) + 1
    return start


class File:
    """The mutants of one file."""

    def __init__(self, name, text):
        self.name, self.text, self.code = name, text, code_only(text)
        self.mutants = []
        self.skip_logs()
        self.break_conditions()
        self.break_operators()
        self.break_statements()
        self.exchange_statements()
        self.break_literals()
        self.mutants = sorted(set(self.mutants), key=lambda m: (m.start, m.end, m.text))

    def add(self, start, end, text):
        self.mutants.append(Mutant(self.name, start, end, text))

    def skip_logs(self):
        self.logs = []
        for number, match in enumerate(LOG.finditer(self.code)):
            end = closing(self.code, match.end() - 1) + 1
            self.logs.append((match.start(), end))
            if number % LOG_SAMPLE == 0:
                self.break_log(match, end, number // LOG_SAMPLE)
        for start, end in self.logs:
            self.code = self.code[:start] + " " * (end - start) + self.code[end:]

    def break_log(self, match, end, kind):
        literal = self.text.find('"', match.end(), end)
        name = match.group(1)
        if kind % 3 == 0 or literal < 0:
            self.add(match.start(), end, "(void)0")
        elif kind % 3 == 1 and name in LEVELS:
            self.add(match.start(), match.start() + len(name), LEVELS[name])
        else:
            self.add(literal + 1, literal + 1, "X")

    def break_conditions(self):
        for match in re.finditer(r"\b(?:if|while) \(", self.code):
            start, end = match.end(), closing(self.code, match.end() - 1)
            start = max(start, self.code.rfind("; ", start, end) + 2)
            terms = len(re.findall(r"&&|\|\|", self.code[start:end])) + 1
            comparisons = len(re.findall(r"\s[=!]=\s", self.code[start:end]))
            if terms > 1 or comparisons != 1: # turning == into != negates the condition as well
                self.add(start, end, f"!({self.text[start:end]})")
            if terms > 1:
                for negation in re.finditer(r"!(?=[\w(])", self.code[start:end]):
                    self.add(start + negation.start(), start + negation.end(), "")
        for match in re.finditer(r"\s\?\s", self.code):
            self.add(match.start(), match.start(), " && false")
            self.add(match.start(), match.start(), " || true")

    def break_operators(self):
        for match in re.finditer(r"(?<=\s)(&&|\|\||[=!<>]=|[-+*/%<>])(?=\s)", self.code):
            sign = match.group()
            self.add(match.start(), match.end(), {**COMPARISONS, **OPERATORS}[sign])
        for match in re.finditer(r"\b(%s)\b" % "|".join(WORDS), self.code):
            self.add(match.start(), match.end(), WORDS[match.group()])

        for match in re.finditer(r"(?:\.|->)(%s)\(" % "|".join(ALL), self.code):
            end = closing(self.code, match.end() - 1) + 1
            self.add(match.start(1), end, ALL[match.group(1)])

    def exchange_statements(self):
        """Neighbours whose order may matter and the compiler does not enforce: statements that do something
        with the same variable, and checks that end a function in different ways."""
        assignment_or_call = re.compile(r"[\w:.*>\[\]()-]+ [-+*/|]?= |[\w:.*>\[\]-]+(?:\([^()]*\)->\w+)*\(")
        steps = [(start, end + 1) for start, end in statements(self.code)
                 if assignment_or_call.match(self.code, start)
                 and not self.code.startswith(("return", "throw"), start)
                 and not re.search(r"= (default|delete)$", self.code[start:end])]
        checks = []
        for match in re.finditer(r"\bif \(", self.code):
            way_out = re.compile(r"\s*(?:return|throw)\b[^;{}]*;").match(
                self.code, closing(self.code, match.end() - 1) + 1)
            if way_out:
                checks.append((match.start(), way_out.end()))
        variable = re.compile(r"\b[A-Za-z_]\w*\b(?!\s*\(|::|->)") # neither a function nor an object's pointer

        def matters(start, middle, begin, end):
            first, second = self.code[start:middle], self.code[begin:end]
            if first.startswith("if "):
                return first.rsplit(None, 2)[-2:] != second.rsplit(None, 2)[-2:]
            return set(variable.findall(first)) & set(variable.findall(second)) - {"nullptr"}

        for found in (steps, checks):
            for (start, middle), (begin, end) in zip(found, found[1:]):
                between = self.text[middle:begin]
                if not self.code[middle:begin].strip() and matters(start, middle, begin, end):
                    self.add(start, end, self.text[begin:end] + between + self.text[start:middle])

    def break_statements(self):
        classes = re.findall(r"\bclass (\w+)", self.code)
        for start, end in statements(self.code):
            code = self.code[start:end]
            if re.match(r"\w*", code).group() in classes:
                continue # declares a constructor
            returned = re.fullmatch(r"return (\w+)", code)
            if returned and returned.group(1) in RETURNED:
                self.add(start + 7, end, RETURNED[returned.group(1)])
            call = re.match(r"[\w:.*>\[\]-]+(?:\([^()]*\)->\w+)*\(", code)
            value = re.match(r"[\w:.*>\[\]()-]+ [-+*/|]?= ", code)
            step = re.fullmatch(r"(\+\+|--)?[\w.>-]+(\+\+|--)?", code)
            if code in ("return", "break", "throw") or code.startswith("throw "):
                self.add(start, end, "")
            elif (call or value or step) and not code.startswith("return"):
                self.add(start, end, "")

    def break_literals(self):
        code = re.sub(r"__attribute__\(.*\)\)", blank, self.code)
        for match in re.finditer(r"(?<![\w.])\d+(\.\d+)?(?![\w.])", code):
            value = match.group()
            self.add(match.start(), match.end(),
                     str(float(value) * 2) if "." in value else str(int(value) + 1))
        text = re.sub(r"__attribute__\(.*\)\)", blank, self.text)
        for match in re.finditer(r'"(?:\\.|[^"\\\n])*"', text):
            line = self.text[self.text.rfind("\n", 0, match.start()) + 1:match.start()]
            logged = any(start < match.start() < end for start, end in self.logs)
            if not logged and "//" not in line and not line.lstrip().startswith("#"):
                self.add(match.end() - 1, match.end() - 1, "X")
