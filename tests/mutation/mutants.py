"""Single changes to C++ sources that some test should notice: which bytes of a text they touch, and what stands there then.

Works on the tokens of clang's lexer, so nothing in a comment, a string or a preprocessor directive is ever changed. Whether
a change means anything is left to the compiler: one that does not compile is no mutant. The sources' layout is the
formatter's: an operator between two values stands between blanks, the brackets of a template do not.
"""
import dataclasses
import re

COMPARISONS = {"==": "!=", "!=": "==", "<": "<=", "<=": "<", ">": ">=", ">=": ">"}
ARITHMETIC = {"+": "-", "-": "+", "*": "/", "/": "*", "%": "/", "&": "|", "|": "&", "<<": ">>", ">>": "<<",
              "+=": "-=", "-=": "+=", "*=": "/=", "/=": "*=", "|=": "&=", "&=": "|="}
LOGIC = {"&&": "||", "||": "&&"}
STEPS = {"++": "--", "--": "++"}
WORDS = {"true": "false", "false": "true"}
NUMBER = re.compile(r"^(0[xX][0-9a-fA-F']+|[0-9][0-9']*)([uUlLzZ]*)$")
NAME = re.compile(r"^[A-Za-z_]\w*$")
BRACKETS = {"(": ")", "[": "]", "{": "}"}
# A brace behind one of these opens statements; behind anything else it opens values, members or a namespace.
BEFORE_A_BODY = {")", "]", "const", "noexcept", "override", "else", "do", "try", "mutable"}
NO_CALL = {"if", "for", "while", "switch", "return", "sizeof", "catch", "alignas", "decltype", "static_assert", "noexcept"}
# What starts a statement whose loss means nothing, or that cannot go alone.
KEPT_STATEMENTS = {"return", "using", "static_assert", "case", "default", "struct", "enum", "typedef", "if", "for", "while",
                   "switch", "do", "else", "try", "auto"}


@dataclasses.dataclass(frozen=True)
class Place:
    """A token and its bytes in the text, [start, end)."""
    start: int
    end: int
    text: str


@dataclasses.dataclass(frozen=True, order=True)
class Mutant:
    """The bytes [start, end) of the text become `new`."""
    start: int
    end: int
    new: str
    what: str

    def applied(self, text):
        return text[:self.start] + self.new.encode() + text[self.end:]

    def line(self, text):
        return text.count(b"\n", 0, self.start) + 1


class Source:
    """The tokens of one file with the brackets that they stand in."""

    def __init__(self, text, tokens):
        self.text = text
        starts = [0] + [match.end() for match in re.finditer(b"\n", text)]
        self.places = []
        for token in tokens:
            _, line, column = token.place.rsplit(":", 2)
            start = starts[int(line) - 1] + int(column) - 1
            self.places.append(Place(start, start + len(token.text.encode()), token.text))
        self._find_brackets()

    def _find_brackets(self):
        self.closing = {}  # of an opening bracket, both by their index
        self.inside = []  # for each token the index of the bracket that it stands in directly, None without one
        self.bodies = set()  # the braces that hold statements
        self.functions = set()  # those of them that are no block within another
        stack = []
        for i, place in enumerate(self.places):
            if place.text in BRACKETS.values() and stack:
                self.closing[stack.pop()] = i
            self.inside.append(stack[-1] if stack else None)
            if place.text in BRACKETS:
                if place.text == "{" and self._opens_statements(i):
                    self.bodies.add(i)
                    if self.inside[i] not in self.bodies:
                        self.functions.add(i)
                stack.append(i)

    def _opens_statements(self, i):
        before = self.places[i - 1].text if i else ""
        return before in BEFORE_A_BODY or self.inside[i] in self.bodies and before in ("{", ";", "}")

    def is_in_function(self, i):
        while i is not None and self.inside[i] not in self.bodies:
            i = self.inside[i]
        return i is not None

    def between(self, first, last):
        """The text of the tokens from `first` up to, not with, `last`."""
        return self.text[self.places[first].start:self.places[last - 1].end].decode()

    def mutant(self, first, last, new, what):
        return Mutant(self.places[first].start, self.places[last - 1].end, new, what)


def mutants_of(text, tokens):
    """Every mutant of one file (tokens: cpp_tokens.Token), in the order of the text."""
    source = Source(text, tokens)
    return sorted({*_replaced_tokens(source), *_negated_conditions(source), *_removed_statements(source),
                   *_swapped_arguments(source), *_early_returns(source)})


def _replaced_tokens(source):
    for i, place in enumerate(source.places):
        is_between_values = (source.text[place.start - 1:place.start] == b" "
                             and source.text[place.end:place.end + 1] in (b" ", b"\n"))
        for table, name, stands_between in ((COMPARISONS, "comparison", True), (ARITHMETIC, "operator", True),
                                            (LOGIC, "logic", True), (STEPS, "step", False), (WORDS, "constant", False)):
            new = table.get(place.text)
            if new is not None and (is_between_values or not stands_between):
                yield source.mutant(i, i + 1, new, f"{name} {place.text} -> {new}")
        number = NUMBER.match(place.text)
        if number:
            yield from _stepped(source, i, number)


def _stepped(source, i, number):
    digits = number[1].replace("'", "")
    is_octal = digits.startswith("0") and digits.isdigit() and len(digits) > 1
    for step in (1, -1):
        value = int(digits, 8 if is_octal else 0) + step
        if value < 0 and number[2]:
            continue
        shown = hex(value) if digits[:2] in ("0x", "0X") else f"0{value:o}" if is_octal else str(value)
        yield source.mutant(i, i + 1, shown + number[2], f"constant {number[0]} -> {shown}{number[2]}")


def _negated_conditions(source):
    for i, place in enumerate(source.places[:-2]):
        if place.text not in ("if", "while"):
            continue
        opening = i + 2 if source.places[i + 1].text == "constexpr" else i + 1
        if opening not in source.closing:
            continue
        last = source.closing[opening]
        # What stands before the last semicolon only names what the condition asks.
        first = 1 + max([opening] + [k for k in range(opening, last)
                                     if source.places[k].text == ";" and source.inside[k] == opening])
        condition = source.between(first, last)
        yield source.mutant(first, last, f"!({condition})", f"negated {_short(condition)}")


def _removed_statements(source):
    for i, place in enumerate(source.places):
        if i == 0 or source.inside[i] not in source.bodies or place.text in KEPT_STATEMENTS | {"{", "}", ";"}:
            continue
        if source.places[i - 1].text not in ("{", "}", ";"):
            continue
        end, body_end = i, source.closing[source.inside[i]]
        while end < body_end and source.places[end].text != ";":
            end = source.closing.get(end, end) + 1
        is_all_of_it = end - i > 1 or place.text in ("break", "continue")
        if end < body_end and is_all_of_it and not _declares_what_is_used(source, i, end, body_end):
            yield source.mutant(i, end + 1, ";", f"removed {_short(source.between(i, end + 1))}")


def _declares_what_is_used(source, first, end, body_end):
    """A variable that is named again further down cannot lose its declaration."""
    words = [place.text for place in source.places]
    for i in range(first + 1, end):
        if words[i] in ("=", "(", "{"):
            break
        is_declared = NAME.match(words[i]) and (NAME.match(words[i - 1]) or words[i - 1] in (">", "&", "*"))
        if is_declared and words[i + 1] in ("=", "(", "{", ";", "["):
            return words[i] in words[end:body_end]
    return False


def _swapped_arguments(source):
    for i, place in enumerate(source.places):
        before = source.places[i - 1].text if i else ""
        if place.text != "(" or not NAME.match(before) or before in NO_CALL or not source.is_in_function(i):
            continue
        commas = [k for k in range(i + 1, source.closing[i]) if source.places[k].text == "," and source.inside[k] == i]
        ends = [i, *commas, source.closing[i]]
        for left, middle, right in zip(ends, ends[1:], ends[2:]):
            first, second = source.between(left + 1, middle), source.between(middle + 1, right)
            if first != second and _may_be_of_like_type(first, second):
                yield source.mutant(left + 1, right, f"{second}, {first}", f"swapped {_short(first + ', ' + second)}")


def _returns_nothing(source, brace):
    """As far as it says so itself; of a constructor or a lambda the compiler knows."""
    for i in range(brace - 1, -1, -1):
        if source.inside[i] == source.inside[brace]:
            if source.places[i].text in (";", "{", "}"):
                return False
            if source.places[i].text == "void":
                return True
    return False


def _may_be_of_like_type(first, second):
    """The compiler decides; this saves it what is plain to see."""
    return "{" not in first + second and first.startswith('"') == second.startswith('"')


def _early_returns(source):
    for i in source.functions:
        if source.places[i + 1].text not in ("}", "return"):
            for value in ("",) if _returns_nothing(source, i) else ("", " {}"):
                yield source.mutant(i, i + 1, f"{{ return{value};", f"early return{value}")


def _short(text):
    words = " ".join(text.split())
    return words if len(words) <= 60 else words[:57] + "..."
