"""Source views: a cited file's lines, coloured, with line anchors.

Languages with an installed tree-sitter grammar that ships its highlight
query are coloured from the syntax tree (several times faster than a regular
expression lexer); the others by Pygments. Both give Pygments' CSS classes,
so one style sheet serves them.
"""

from __future__ import annotations

import functools
import posixpath
from html import escape
from typing import TYPE_CHECKING, Final

if TYPE_CHECKING:  # Pygments loads when a file is coloured, not for a publish that colours none
    from pygments.formatters.html import HtmlFormatter
    from pygments.lexer import Lexer

# Files past this size are shown plain: colouring them costs more than it gives.
MAX_COLOURED_BYTES: Final = 256 * 1024
# Files past this size are shown plain even where a syntax tree colours them.
MAX_TREE_BYTES: Final = 1024 * 1024
# Files past this size are not shown at all.
MAX_SHOWN_BYTES: Final = 8 * 1024 * 1024
LIGHT_STYLE: Final = "default"
DARK_STYLE: Final = "monokai"


@functools.cache
def _formatter() -> HtmlFormatter[str]:
    from pygments.formatters.html import HtmlFormatter

    return HtmlFormatter(nowrap=True)


def _pygmentize(code: str, lexer: Lexer) -> str:
    from pygments import highlight

    return str(highlight(code, lexer, _formatter()))


@functools.lru_cache(maxsize=256)
def _lexer_for(name: str) -> Lexer | None:
    """The lexer for a file name (cached by its suffix, or by the whole name
    when it has none, as ``Makefile``)."""
    from pygments.lexers import find_lexer_class_for_filename
    from pygments.util import ClassNotFound

    try:
        cls = find_lexer_class_for_filename(name)
    except ClassNotFound:
        return None
    return None if cls is None else cls(stripnl=False, ensurenl=False)


# Tree-sitter grammars by file suffix: (module, its language function).
_TREE_SITTER: Final = {
    ".py": ("tree_sitter_python", "language"),
    ".pyi": ("tree_sitter_python", "language"),
    ".c": ("tree_sitter_c", "language"),
    ".h": ("tree_sitter_c", "language"),
}
# Highlight capture names to Pygments' token classes; others stay plain.
_CLASSES: Final = {
    "keyword": "k",
    "string": "s",
    "string.special": "ss",
    "escape": "se",
    "comment": "c",
    "function": "nf",
    "function.method": "nf",
    "function.builtin": "nb",
    "function.special": "fm",
    "constructor": "nc",
    "type": "nc",
    "type.builtin": "kt",
    "constant": "no",
    "constant.builtin": "kc",
    "number": "m",
    "operator": "o",
    "property": "na",
    "attribute": "nd",
    "label": "nl",
    "delimiter": "p",
}


class _Grammar:
    """A tree-sitter parser and its highlight query, made once."""

    def __init__(self, module: str, function: str) -> None:
        import importlib

        import tree_sitter

        grammar = importlib.import_module(module)
        self.language = tree_sitter.Language(getattr(grammar, function)())
        self.parser = tree_sitter.Parser(self.language)
        self.query = tree_sitter.Query(self.language, grammar.HIGHLIGHTS_QUERY)
        # Capture index: where the name first appears, the earlier pattern.
        self.rank: dict[str, tuple[int, str]] = {}
        for index in range(self.query.capture_count):
            name = self.query.capture_name(index)
            css = _CLASSES.get(name) or _CLASSES.get(name.partition(".")[0])
            if css is None:
                self.query.disable_capture(name)  # not coloured: not collected
            else:
                self.rank[name] = (index, css)
        self.cursor = tree_sitter.QueryCursor

    def spans(self, data: bytes) -> list[tuple[int, int, str]]:
        """(start byte, end byte, class) of the coloured pieces, in order, not
        overlapping; where captures cover the same text, the earlier one wins."""
        tree = self.parser.parse(data)
        found: list[tuple[int, int, int, str]] = []
        for name, nodes in self.cursor(self.query).captures(tree.root_node).items():
            rank, css = self.rank[name]
            found.extend((node.start_byte, -node.end_byte, rank, css) for node in nodes)
        found.sort()
        spans: list[tuple[int, int, str]] = []
        at = 0
        for start, neg_end, _rank, css in found:
            if start >= at and -neg_end > start:
                spans.append((start, -neg_end, css))
                at = -neg_end
        return spans


@functools.lru_cache(maxsize=16)
def _grammar(suffix: str) -> _Grammar | None:
    entry = _TREE_SITTER.get(suffix)
    if entry is None:
        return None
    try:
        return _Grammar(*entry)
    except (ImportError, AttributeError, ValueError):
        return None  # the grammar is not installed, or ships no highlight query


def _from_tree(grammar: _Grammar, data: bytes, count: int) -> list[str]:
    """The HTML of each of ``count`` lines, coloured by the grammar's spans
    (a span across lines is closed at each line's end and opened again)."""
    pieces: list[str] = []
    at = 0
    for start, end, css in grammar.spans(data):
        if start > at:
            pieces.append(escape(data[at:start].decode("utf-8", "replace")))
        text = escape(data[start:end].decode("utf-8", "replace"))
        pieces.append(f'<span class="{css}">' + text.replace("\n", f'</span>\n<span class="{css}">') + "</span>")
        at = end
    pieces.append(escape(data[at:].decode("utf-8", "replace")))
    return "".join(pieces).split("\n")[:count]


def source_lines(path: str, data: bytes) -> list[str] | None:
    """The HTML of each line of a file; None for a binary or oversized file."""
    if len(data) > MAX_SHOWN_BYTES or b"\0" in data[:8192]:
        return None
    text = data.decode("utf-8", "replace")
    lines = text.split("\n")
    if lines and lines[-1] == "":
        lines.pop()
    base = posixpath.basename(path)
    _, suffix = posixpath.splitext(base)
    grammar = _grammar(suffix.lower()) if len(data) <= MAX_TREE_BYTES else None
    if grammar is not None:
        return _from_tree(grammar, data, len(lines))
    lexer = _lexer_for(("x" + suffix) if suffix else base) if len(data) <= MAX_COLOURED_BYTES else None
    if lexer is None:
        return [escape(line) for line in lines]
    coloured = _pygmentize(text, lexer).split("\n")
    if len(coloured) < len(lines):  # a lexer that lost a line: show the text plain
        return [escape(line) for line in lines]
    return coloured[: len(lines)]


@functools.lru_cache(maxsize=64)
def _lexer_named(name: str) -> Lexer | None:
    from pygments.lexers import get_lexer_by_name
    from pygments.util import ClassNotFound

    try:
        return get_lexer_by_name(name, stripnl=False, ensurenl=False)
    except ClassNotFound:
        return None


def fence(code: str, lang: str) -> str:
    """A fenced code block's HTML, coloured when its language is known; "" otherwise."""
    lexer = _lexer_named(lang.split()[0].lower()) if lang.strip() else None
    if lexer is None or len(code) > MAX_COLOURED_BYTES:
        return ""
    return f'<pre class="code"><code>{_pygmentize(code, lexer)}</code></pre>\n'


def stylesheet() -> str:
    """The colours of both schemes, dark by the reader's preference."""
    from pygments.formatters.html import HtmlFormatter

    light = HtmlFormatter(style=LIGHT_STYLE).get_style_defs(".code")  # type: ignore[no-untyped-call]
    dark = HtmlFormatter(style=DARK_STYLE).get_style_defs(".code")  # type: ignore[no-untyped-call]
    return f"{light}\n@media (prefers-color-scheme: dark) {{\n{dark}\n}}\n"
