"""Writes all mutations of a source into one text, each behind its number.

The text is compiled once with mutants.h in front of it; which mutation a process makes is said when
it starts. No line moves, so that what the compiler reports can be laid at a mutation's door: that
one is then made where only the compiler can reach it, or is left out of the text.
"""

import bisect
import collections
import re

import mutations

PAIRS = {"(": ")", "[": "]", "{": "}"}
OPERATORS = {
    "==": "Equal", "!=": "Unequal", "<": "Less", "<=": "LessEqual", ">": "Greater",
    ">=": "GreaterEqual", "+": "Plus", "-": "Minus", "&": "And", "|": "Or", "<<": "ShiftLeft",
    ">>": "ShiftRight", "+=": "PlusAssign", "-=": "MinusAssign",
}  # fmt: skip
ASSIGNMENTS = {"=", "+=", "-=", "*=", "/=", "%=", "&=", "|=", "^="}
# What an operand of && or || cannot hold unless it is in brackets.
BEFORE = {"?", ":", ",", ";", "return", "throw", "else", "do", "case", "goto", "co_return",
          "co_yield"} | ASSIGNMENTS  # fmt: skip
AFTER = {"?", ":", ",", ";"} | ASSIGNMENTS


def brackets(found):
    """For the index of each bracket that of its partner."""
    partner, opened = {}, []
    for index, token in enumerate(found):
        if token.text in PAIRS:
            opened.append(index)
        elif token.text in PAIRS.values() and opened:
            partner[index] = opened.pop()
            partner[partner[index]] = index
    return partner


class Schema:
    """The guarded text of one source; `first` is the number of its first mutation."""

    def __init__(self, source, first):
        self.source = source
        self.found = mutations.tokens(source)
        self.partner = brackets(self.found)
        self.mutations = mutations.mutations(source)
        self.number = {mutation: first + i for i, mutation in enumerate(self.mutations)}
        self.index_at = {token.start: index for index, token in enumerate(self.found)}
        self.line_starts = [0] + [match.end() for match in re.finditer("\n", source)]
        # The bodies of functions, as pairs of token indices; each has a number that tells who
        # comes by.
        self.bodies = {}
        for begin, end in self.find_bodies():
            self.bodies[(begin, end)] = first + len(self.mutations) + len(self.bodies)
        self.count = len(self.mutations) + len(self.bodies)
        # How a mutation is guarded: with "run", with "either", or not at all.
        self.guards = {mutation: "run" for mutation in self.mutations}
        self.probed = {body: "either" for body in self.bodies}
        self.relaxed = self.constants()
        for begin, end in self.constant_functions():
            for mutation in self.mutations:
                if self.found[begin].start <= mutation.start < self.found[end].start:
                    self.guards[mutation] = "either"

    # Where things stand

    def line_of(self, position):
        return bisect.bisect_right(self.line_starts, position)

    def find_bodies(self):
        for begin in mutations.bodies(self.found):
            # Nobody comes by what stands in front of the first label of a switch.
            if begin in self.partner and self.found[self.head_of(begin)].text != "switch":
                yield begin, self.partner[begin]

    def body_of(self, mutation):
        """The innermost body around the mutation; None where it stands in none, or where the
        compiler may run the body by itself."""
        around = [
            body
            for body in self.bodies
            if self.found[body[0]].start < mutation.start < self.found[body[1]].start
        ]
        if any(self.is_constant_function(body[0]) for body in around):
            return None
        innermost = max(around, default=None)
        return innermost if innermost and self.probed[innermost] else None

    def head_of(self, brace):
        begin = brace
        while begin and self.found[begin - 1].text not in (";", "}", "{"):
            begin -= 1
        return begin

    def is_constant_function(self, brace):
        head = self.found[self.head_of(brace) : brace]
        return any(token.text in ("constexpr", "consteval") for token in head)

    def constant_functions(self):
        return [body for body in self.bodies if self.is_constant_function(body[0])]

    def constants(self):
        """The `constexpr` of variables that a program may just as well compute when it starts, and
        where each ends."""
        found = {}
        for index, token in enumerate(self.found):
            if token.text != "constexpr":
                continue
            end = index
            while end < len(self.found) and self.found[end].text not in ("=", "{", "(", ";"):
                end += 1
            if end == len(self.found) or self.found[end].text not in ("=", "{"):
                continue
            name = self.found[end - 1].text
            if name == "]":
                name = self.found[self.partner[end - 1] - 1].text
            while self.found[end].text != ";":
                end = self.partner.get(end, end) + 1
            found[index] = (end, name)
        return found

    # Writing

    def text(self):
        self.before = collections.defaultdict(list)
        self.after = collections.defaultdict(list)
        self.instead = {}
        self.write_literals()
        self.write_signs()
        self.write_conditions()
        self.write_statements()
        for body, guard in self.probed.items():
            if guard:
                self.after[body[0]].append((0, f" krucomm_mutants::probe({self.bodies[body]});"))
        for index in self.relaxed:
            self.instead[index] = "const"
        return self.joined()

    def joined(self):
        parts, position = [], 0
        for index, token in enumerate(self.found):
            parts.append(self.source[position : token.start])
            # What spans more stands further out.
            parts += [text for _, text in sorted(self.before[index], key=lambda item: -item[0])]
            parts.append(self.instead.get(index, token.text))
            parts += [text for _, text in sorted(self.after[index], key=lambda item: item[0])]
            position = token.end
        return "".join(parts) + self.source[position:]

    def asks(self, mutation):
        return f"krucomm_mutants::{self.guards[mutation]}({self.number[mutation]})"

    def guarded_at(self, index):
        """The mutations of this token that are to be written."""
        token = self.found[index]
        return [
            mutation
            for mutation in self.of_place.get((token.start, token.text), [])
            if self.guards[mutation]
        ]

    @property
    def of_place(self):
        if not hasattr(self, "places"):
            self.places = collections.defaultdict(list)
            for mutation in self.mutations:
                self.places[(mutation.start, mutation.old)].append(mutation)
        return self.places

    def write_literals(self):
        index = 0
        while index < len(self.found):
            end = index + 1
            token = self.found[index]
            if token.kind == "string":
                while end < len(self.found) and self.found[end].kind == "string":
                    end += 1
            literal = token.kind in ("number", "char", "string") or token.text in mutations.WORDS
            if literal:
                # What is joined to a literal makes it one of another type.
                suffixed = end < len(self.found) and self.found[end].kind == "word" and (
                    self.found[end].start == self.found[end - 1].end)
                self.write_literal(index, end + 1 if suffixed else end, end - index)
            index = end

    def write_literal(self, begin, end, pieces):
        chosen = [mutation for index in range(begin, end) for mutation in self.guarded_at(index)]
        if not chosen:
            return
        opening = ""
        for mutation in chosen:
            text = ""
            for token in self.found[begin:end]:
                if token.kind == "word" and token.text not in mutations.WORDS:
                    text = text.rstrip() + token.text  # a suffix
                else:
                    text += (mutation.new if token.start == mutation.start else token.text) + " "
                    if token is self.found[begin + pieces - 1]:
                        text += padding(mutation)
            opening += f"{self.asks(mutation)} ? {text} : "
        self.before[begin].append((end - begin, f"({opening}"))
        self.after[end - 1].append((end - begin, ")"))

    def write_signs(self):
        for index, token in enumerate(self.found):
            chosen = self.guarded_at(index)
            if not chosen or token.kind != "sign" or token.text in ("&&", "||"):
                continue
            by_text = {mutation.new: self.number[mutation] for mutation in chosen}
            number = self.number[chosen[0]]
            if token.text in OPERATORS:
                others = mutations.SPACED[token.text]
                pair = ", ".join(str(by_text.get(other, 0)) for other in (others + [""])[:2])
                self.instead[index] = (
                    f"{token.text} krucomm_mutants::{OPERATORS[token.text]}{{{pair}}} {token.text}"
                )
            elif token.text == "!":
                self.instead[index] = f"krucomm_mutants::Not{{{number}}}->*"
            elif self.stands_in_front(index):
                name = "Increment" if token.text == "++" else "Decrement"
                self.instead[index] = f"krucomm_mutants::{name}{{{number}}}->*"
            else:
                for mutation in chosen:
                    self.guards[mutation] = None

    def stands_in_front(self, index):
        before = self.found[index - 1]
        return not (before.kind == "word" and before.text != "return") and before.text not in (
            ")", "]")

    def write_conditions(self):
        """`a && b` becomes `((a != m) && (b != m)) != m`, which is `a || b` for a true m."""
        for index, token in enumerate(self.found):
            chosen = self.guarded_at(index) if token.text in ("&&", "||") else []
            if not chosen:
                continue
            begin = self.operand_before(index)
            end = self.operand_after(index)
            asks = self.asks(chosen[0])
            width = end - begin
            self.before[begin].append((width, "(((static_cast<bool>("))
            self.after[index - 1].append((index - begin, f") != {asks})"))
            self.before[index + 1].append((end - index, "(static_cast<bool>("))
            self.after[end].append((width, f") != {asks})) != {asks})"))

    def operand_before(self, index):
        stop = BEFORE | ({"||"} if self.found[index].text == "&&" else set())
        while index and self.found[index - 1].text not in stop | set(PAIRS):
            index -= 1
            index = self.partner.get(index, index)
        return index

    def operand_after(self, index):
        stop = AFTER | {"||"} | ({"&&"} if self.found[index].text == "&&" else set())
        while self.found[index + 1].text not in stop | set(PAIRS.values()):
            index += 1
            index = self.partner.get(index, index)
        return index

    def write_statements(self):
        for begin, end in mutations.statements(self.found):
            old = self.source[self.found[begin].start : self.found[end].end]
            for mutation in self.of_place.get((self.found[begin].start, old), []):
                if self.guards[mutation]:
                    width = len(self.found)
                    self.before[begin].append((width, f"{{ if (!{self.asks(mutation)}) "))
                    self.after[end].append((width, " }"))

    # When the compiler refuses

    def lines_of(self, mutation):
        return range(
            self.line_of(mutation.start), self.line_of(mutation.start + len(mutation.old) - 1) + 1
        )

    def refuse(self, lines, names):
        """Takes the guards away that may be why these lines do not compile; False when there are
        none."""
        changed = False
        for index, (end, name) in list(self.relaxed.items()):
            first, last = self.line_of(self.found[index].start), self.line_of(self.found[end].start)
            if name in names or any(first <= line <= last for line in lines):
                del self.relaxed[index]
                changed = True
                for mutation in self.mutations:
                    if self.found[index].start <= mutation.start < self.found[end].start:
                        self.guards[mutation] = None
        if changed:
            return True
        for mutation in self.mutations:
            guard = self.guards[mutation]
            if guard and any(line in self.lines_of(mutation) for line in lines):
                self.guards[mutation] = "either" if guard == "run" else None
                changed = True
        if changed:
            return True
        for begin, end in mutations.statements(self.found):
            # A declaration, and what it declares is not to be found in a block of its own.
            if names & {token.text for token in self.found[begin:end]}:
                for mutation in self.mutations:
                    if mutation.start == self.found[begin].start and self.guards[mutation]:
                        self.guards[mutation] = None
                        changed = True
        if changed:
            return True
        for body in self.probed:
            if self.probed[body] and self.line_of(self.found[body[0]].start) in lines:
                self.probed[body] = None
                changed = True
        return changed

    def kept(self):
        """What the compiler's refusals have taught."""
        return {
            "guards": [self.guards[mutation] for mutation in self.mutations],
            "probed": list(self.probed.values()),
            "relaxed": list(self.relaxed),
        }

    def restore(self, kept):
        self.guards = dict(zip(self.mutations, kept["guards"]))
        self.probed = dict(zip(self.probed, kept["probed"]))
        self.relaxed = {index: self.relaxed[index] for index in kept["relaxed"]}

    def give_up(self):
        self.guards = dict.fromkeys(self.guards)
        self.probed = dict.fromkeys(self.probed)
        self.relaxed = {}


def padding(mutation):
    """What gives a shorter text the length of the old one, and with it the type."""
    prefix, quote, _ = mutation.old.partition('"')
    return f'{prefix}"\\0"' if quote else ""


def refused(errors, path):
    """The lines of the source that the compiler's errors are about, and the names in them."""
    lines, names = set(), set()
    elsewhere = False
    place = re.compile(re.escape(path) + r":(\d+):(?:\d+:)? +(.*)")
    for line in errors.splitlines():
        own = place.match(line)
        if re.match(r".*:\d+:\d+: (fatal )?error: ", line):
            names |= set(re.findall(r"[A-Za-z_]\w*", " ".join(re.findall("‘([^’]*)’", line))))
            elsewhere = not own
            if own:
                lines.add(int(own.group(1)))
        elif own and elsewhere:
            lines.add(int(own.group(1)))
    return lines, names
