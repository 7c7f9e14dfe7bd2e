"""Texts and calls in C++ sources, as clang's own lexer sees them."""
import ast
import dataclasses
import subprocess

LITERAL, NAME, OPEN, CLOSE, COMMA = "string_literal", "raw_identifier", "l_paren", "r_paren", "comma"
_KINDS = {LITERAL, NAME, OPEN, CLOSE, COMMA, "hash"}


@dataclasses.dataclass(frozen=True)
class Token:
    kind: str
    text: str
    starts_line: bool  # of the source, an escaped line end not counted
    place: str  # file:line:column


@dataclasses.dataclass(frozen=True)
class Literal:
    text: str  # of all that stand side by side
    before: str  # the words around
    behind: str


@dataclasses.dataclass(frozen=True)
class Call:
    name: str
    first: str  # the first word inside the brackets
    text: str  # the first literals that stand side by side; empty without any
    is_declared: bool  # a type stands before the name
    place: str


def tokens_of(clang, paths):
    """What matters of the files, line by line, without comments and preprocessor directives."""
    dump = subprocess.run([clang, "-fsyntax-only", "-Xclang", "-dump-raw-tokens", "-x", "c++", "-std=c++20", *paths],
                          stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, check=True).stderr
    is_directive = False
    for line in dump.splitlines():
        kind, _, rest = line.partition(" '")
        body, has_place, place = rest.rpartition("Loc=<")
        if not has_place:
            continue
        text, _, flags = body.rpartition("'")
        starts_line = "[StartOfLine]" in flags
        if starts_line:
            is_directive = kind == "hash"
        # A blank that spans lines has its end on a line without a kind.
        if kind.isidentifier() and not is_directive and kind not in ("unknown", "comment"):
            yield Token(kind if kind in _KINDS else "other", text, starts_line, place.rstrip(">"))


def literals_of(clang, paths):
    """Every string literal, raw ones left out."""
    before, text = "", None
    for token in tokens_of(clang, paths):
        if token.kind == LITERAL and token.text.startswith('"'):
            text = (text or "") + ast.literal_eval(token.text)
            continue
        if text is not None:
            yield Literal(text, before, token.text)
            text = None
        before = token.text


def calls_of(clang, paths, names):
    """Every call, or declaration, of one of the names."""
    tokens = list(tokens_of(clang, [path for path in paths if _mentions(path, names)]))
    for i, token in enumerate(tokens):
        is_call = token.kind == NAME and token.text in names and tokens[i + 1].kind == OPEN
        if is_call:
            inside = list(_inside(tokens, i + 2))
            yield Call(token.text, inside[0].text if inside else "", _first_text(inside),
                       tokens[i - 1].kind == NAME, token.place)


def _mentions(path, names):
    with open(path, encoding="utf-8") as file:
        text = file.read()
    return any(name in text for name in names)


def _inside(tokens, start):
    depth = 1
    for i in range(start, len(tokens)):
        depth += {OPEN: 1, CLOSE: -1}.get(tokens[i].kind, 0)
        if not depth:
            return
        yield tokens[i]


def _first_text(tokens):
    text = ""
    for token in tokens:
        if token.kind == LITERAL:
            text += ast.literal_eval(token.text)
        elif text:
            break
    return text
