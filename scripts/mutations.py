"""Finds the places of a C++ source that can be broken one at a time.

It knows C++ as far as clang-format writes it: binary operators stand between spaces, template
brackets do not. What it proposes may not compile; the caller finds that out.
"""

import dataclasses
import re

TOKEN = re.compile(
    r"""
    (?P<skip>\s+|//[^\n]*|/\*.*?\*/|^[ \t]*\#(?:[^\n\\]|\\.)*)
  | (?P<string>(?:u8|u|U|L)?"(?:[^"\\\n]|\\.)*")
  | (?P<char>(?:u8|u|U|L)?'(?:[^'\\\n]|\\.)+')
  | (?P<number>(?:0[xX][0-9a-fA-F']+|\d[\d']*(?:\.\d+)?(?:[eE][+-]?\d+)?)[uUlLzZfF]*)
  | (?P<word>[A-Za-z_]\w*)
  | (?P<sign><<=|>>=|<=>|->\*|\.\.\.|::|->|<<|>>|<=|>=|==|!=|&&|\|\||\+\+|--|[-+*/%&|^]=|.)
    """,
    re.VERBOSE | re.DOTALL | re.MULTILINE,
)

SPACED = {
    "==": ["!="],
    "!=": ["=="],
    "<": ["<=", ">="],
    "<=": ["<", ">"],
    ">": [">=", "<="],
    ">=": [">", "<"],
    "&&": ["||"],
    "||": ["&&"],
    "+": ["-"],
    "-": ["+"],
    "+=": ["-="],
    "-=": ["+="],
    "&": ["|"],
    "|": ["&"],
    "<<": [">>"],
    ">>": ["<<"],
}
WORDS = {"true": "false", "false": "true"}
# A statement that begins with one of these declares or structures; without it nothing compiles, or
# the function would end without a value.
NO_STATEMENT = {
    "auto", "case", "class", "const", "constexpr", "default", "do", "else", "enum", "extern",
    "for", "friend", "if", "namespace", "private", "protected", "public", "static",
    "static_assert", "struct", "switch", "template", "try", "typedef", "union", "using", "while",
}  # fmt: skip


@dataclasses.dataclass(frozen=True)
class Token:
    kind: str
    text: str
    start: int

    @property
    def end(self):
        return self.start + len(self.text)


@dataclasses.dataclass(frozen=True)
class Mutation:
    """Puts `new` in the place of the `old` text at `start`."""

    start: int
    old: str
    new: str
    line: int
    column: int

    def apply(self, source):
        assert source.startswith(self.old, self.start)
        return source[: self.start] + self.new + source[self.start + len(self.old) :]

    def describe(self):
        old = " ".join(self.old.split())
        return f"{old} -> {self.new}" if self.new.strip(" ;") else f"without {old}"


def tokens(source):
    found = []
    for match in TOKEN.finditer(source):
        if match.lastgroup != "skip":
            found.append(Token(match.lastgroup, match.group(), match.start()))
    return found


def changed_number(text):
    """The number plus one; None for what is no plain integer."""
    match = re.fullmatch(r"(0[xX][0-9a-fA-F']+|\d[\d']*)([uUlLzZ]*)", text)
    if not match:
        return None
    digits = match.group(1).replace("'", "")
    if digits.lower().startswith("0x"):
        return f"0x{int(digits, 16) + 1:X}{match.group(2)}"
    return f"{int(digits, 8 if digits.startswith('0') else 10) + 1}{match.group(2)}"


def changed_char(text):
    """Another character of the same type."""
    prefix, _, rest = text.partition("'")
    return f"{prefix}'{'Y' if rest == 'X' + chr(39) else 'X'}'"


def changed_string(text):
    """The text without its first character, so that it stays one of the same type."""
    prefix, _, rest = text.partition('"')
    body = rest[:-1]
    if not body:
        return None
    first = re.match(r"\\x[0-9a-fA-F]+|\\[0-7]{1,3}|\\.|.", body, re.DOTALL)
    return f'{prefix}"{body[first.end():]}"'


def is_spaced(source, token):
    return source[token.start - 1 : token.start] in (" ", "\n") and source[
        token.end : token.end + 1
    ] in (" ", "\n")


def replacements(source, token, before, after):
    if token.kind == "number":
        return [changed_number(token.text)]
    if token.kind == "char":
        return [changed_char(token.text)]
    if token.kind == "string":
        return [changed_string(token.text)] if before.text not in ("extern", "include") else []
    if token.kind == "word":
        return [WORDS.get(token.text)]
    if token.text == "!" and after.text not in ("=",):
        return [""]
    if token.text in ("++", "--"):
        return ["--" if token.text == "++" else "++"]
    if token.text in SPACED and is_spaced(source, token):
        return SPACED[token.text]
    return []


def bodies(found):
    """The index of each brace that opens a block of statements."""
    return (index for kind, index, _ in blocks_and_statements(found) if kind == "body")


def statements(found):
    """The statements that stand in the body of a function and can be left out, as token ranges."""
    return ((begin, end) for kind, begin, end in blocks_and_statements(found) if kind == "statement")


def blocks_and_statements(found):
    scopes, depth, begin = [], 0, 0
    for index, token in enumerate(found):
        text = token.text
        if text in "([":
            depth += 1
        elif text in ")]":
            depth -= 1
            # The head of an `if`, `for` or `while` ends here; its statement begins.
            if depth == 0 and found[begin].text in ("if", "for", "while"):
                begin = index + 1
        elif text == "{" and depth == 0:
            head = [other.text for other in found[begin:index]]
            names = {"namespace", "class", "struct", "enum", "union", "extern"}
            if head and (head[-1] in ("=", ",", "return") or (scopes and "(" not in head and head[0]
                         not in ("do", "else", "try") and not names & set(head))):
                scopes.append("list")
            elif names & set(head) and "(" not in head:
                scopes.append("declarations")
            else:
                scopes.append("body")
                yield "body", index, index
            if scopes[-1] != "list":
                begin = index + 1
        elif text == "}" and depth == 0:
            if scopes and scopes.pop() != "list":
                begin = index + 1
        elif text == "else" and depth == 0:
            begin = index + 1
        elif text == ":" and depth == 0 and found[begin].text in ("case", "default", "public",
                                                                  "private", "protected"):
            begin = index + 1
        elif text == ";" and depth == 0:
            if scopes and scopes[-1] == "body" and is_removable(found[begin:index]):
                yield "statement", begin, index
            if not (scopes and scopes[-1] == "list"):
                begin = index + 1


def declares(statement):
    """Whether a type and a name stand side by side in front of everything else."""
    if statement[0].text in ("return", "throw", "delete", "goto"):
        return False
    for token, following in zip(statement, statement[1:]):
        if token.text in ("=", "(") or (token.text == "[" and following.text != "]"):
            return False
        if following.kind == "word" and (token.kind == "word" or token.text in (">", "&", "*")):
            return token is not statement[0] or token.kind == "word"
    return False


def is_removable(statement):
    if not statement or statement[0].text in NO_STATEMENT or declares(statement):
        return False
    return not (statement[0].text == "return" and len(statement) > 1)


def mutations(source):
    """Every mutation of the source, in the order of its text."""
    found = tokens(source)
    places = []
    for index, token in enumerate(found):
        before = found[index - 1] if index else token
        after = found[index + 1] if index + 1 < len(found) else token
        for new in replacements(source, token, before, after):
            if new is not None:
                places.append((token.start, token.text, new))
    for begin, end in statements(found):
        start = found[begin].start
        places.append((start, source[start : found[end].end], ";"))
    result = []
    for start, old, new in sorted(set(places)):
        line_start = source.rfind("\n", 0, start) + 1
        line = source.count("\n", 0, start) + 1
        result.append(Mutation(start, old, new, line, start - line_start + 1))
    return result
