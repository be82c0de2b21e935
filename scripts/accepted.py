"""The list of what may be broken without a test that notices, and of the reasons.

Each entry names one place: its source, the function, class or constant in which it stands, the
line and what is broken there. Where several places answer to that, "#2" after what is broken says
which of them. An entry whose place is not the only one excuses none of them.
"""

import collections
import dataclasses
import re

import schemata

SCOPES = {"namespace", "class", "struct", "union", "extern"}
NO_FUNCTIONS = {"alignas", "decltype", "noexcept", "requires", "sizeof"}


class WrongList(Exception):
    """A line of the list that cannot be read."""


def declarations(found):
    """The name of each function, variable and enumeration, and the token at which the next one
    begins."""
    partner = schemata.brackets(found)
    begin, index, classes = 0, 0, []
    while index < len(found):
        text = found[index].text
        if text == "{" and is_scope(found[begin:index]):
            classes.append((partner.get(index), class_in(found[begin:index])))
            begin = index = index + 1
        elif text in ("(", "[", "{"):
            is_body = text == "{" and not has_value(found[begin:index])
            index = partner.get(index, index) + 1
            following = found[index].text if index < len(found) else ""
            # What initialises a member is followed by more of its constructor.
            if is_body and following not in (",", "{", ";", "("):
                yield qualified(classes, found[begin:index]), index
                begin = index
        elif text in (";", "}"):
            if index > begin:
                yield qualified(classes, found[begin:index]), index
            if classes and classes[-1][0] == index:
                classes.pop()
            begin = index = index + 1
        else:
            index += 1


def is_scope(head):
    texts = [token.text for token in head]
    return bool(SCOPES & set(texts)) and "(" not in texts and "=" not in texts


def has_value(head):
    """Whether this declares a variable whose value has begun."""
    depth = 0
    for token in head:
        depth += (token.text in ("(", "[", "{")) - (token.text in (")", "]", "}"))
        if token.text == "=" and depth == 0:
            return not any(other.text == "operator" for other in head)
    return False


def class_in(head):
    """The name of the class that begins here; a namespace adds nothing to the names in it."""
    texts = [token.text for token in head]
    keyword = next((text for text in ("class", "struct", "union") if text in texts), None)
    if not keyword or "namespace" in texts:
        return ""
    name = []
    for text in texts[texts.index(keyword) + 1 :]:
        if text in (":", "final"):
            break
        name.append(text)
    return "".join(name)


def qualified(classes, tokens):
    return "::".join([name for _, name in classes if name] + [name_of(tokens)])


def name_of(tokens):
    """What the declaration declares: the name in front of its parameters or of its value."""
    texts = [token.text for token in tokens]
    if "operator" in texts:
        return operator_in(tokens)
    for index, text in enumerate(texts):
        before = texts[index - 1] if index else ""
        if text == "(" and before in NO_FUNCTIONS:
            continue
        if text in ("(", "=", "{") and index:
            return path_before(tokens, index)
    return path_before(tokens, len(tokens))


def operator_in(tokens):
    texts = [token.text for token in tokens]
    index = texts.index("operator")
    end = texts.index("(", index + 2)
    sign = "".join(texts[index + 1 : end])
    first = index
    while first > 1 and texts[first - 1] == "::":
        first -= 2
    return "".join(texts[first : index]) + f"operator{sign}"


def path_before(tokens, end):
    """`Class::~name` in front of a token."""
    if end and tokens[end - 1].text == "]":
        end = schemata.brackets(tokens).get(end - 1, end)
    begin = end
    while begin and (tokens[begin - 1].kind == "word" or tokens[begin - 1].text in ("::", "~")):
        if begin < end and tokens[begin - 1].kind == tokens[begin].kind == "word":
            break
        begin -= 1
    return "".join(token.text for token in tokens[begin:end])


def field(text):
    # The separator of the list must not come out of the code.
    return re.sub(r"(?<!\S)\|(?!\S)", "¦", text)


class Places:
    """The places of one source, as the list names them."""

    def __init__(self, source, mutations, found):
        lines = source.splitlines()
        ends = list(declarations(found))
        self.named = {}
        # Each mutation that answers to a name, and for "*" all of each line that does.
        self.groups = collections.defaultdict(lambda: collections.defaultdict(list))
        for mutation in mutations:
            function = next((name for name, end in ends if end >= len(found)
                             or mutation.start < found[end].start), "")
            place = function, field(lines[mutation.line - 1].strip())
            broken = field(mutation.describe())
            self.named[mutation] = (*place, broken)
            self.groups[(*place, broken)][mutation].append(mutation)
            self.groups[(*place, "*")][mutation.line].append(mutation)

    def groups_of(self, name):
        return list(self.groups[name].values()) if name in self.groups else []

    def shown(self, mutation):
        """What the list has to say to name this one."""
        name = self.named[mutation]
        groups = self.groups_of(name)
        number = f" #{groups.index([mutation]) + 1}" if len(groups) > 1 else ""
        return " | ".join(name) + number


@dataclasses.dataclass(frozen=True)
class Entry:
    source: str
    function: str
    line: str
    # "*" for whatever is broken in the line.
    broken: str
    # Which of the places that answer to this; 0 where there is to be only one.
    number: int

    def shown(self):
        number = f" #{self.number}" if self.number else ""
        return f"{self.source} | {self.function} | {self.line} | {self.broken}{number}"

    def mutations_of(self, places):
        """What it excuses; nothing unless that is one place."""
        groups = places.groups_of((self.function, self.line, self.broken))
        if self.number:
            return groups[self.number - 1] if self.number <= len(groups) else []
        return groups[0] if len(groups) == 1 else []

    def several(self, places):
        """Among how many places it does not say which."""
        count = len(places.groups_of((self.function, self.line, self.broken)))
        return count if count > 1 and not self.number else 0


def entries_of(path):
    """Each line is `source | function | line of code | what is broken | why that cannot matter`."""
    entries = []
    if not path or not path.exists():
        return entries
    for at, text in enumerate(path.read_text().splitlines(), 1):
        if not text.strip() or text.startswith("#"):
            continue
        fields = [part.strip() for part in text.split(" | ")]
        if len(fields) != 5 or not fields[4]:
            raise WrongList(f"{path}:{at}: expected source | function | code | what | why")
        broken, number = re.fullmatch(r"(.*?)(?: #([1-9]\d*))?", fields[3]).groups()
        entries.append(Entry(*fields[:3], broken, int(number or 0)))
    return entries
