"""Source views: a cited file's lines, coloured by Pygments, with line anchors."""

from __future__ import annotations

import functools
import posixpath
from html import escape
from typing import Final

from pygments import highlight as _pygmentize
from pygments.formatters.html import HtmlFormatter
from pygments.lexer import Lexer
from pygments.lexers import find_lexer_class_for_filename, get_lexer_by_name
from pygments.util import ClassNotFound

# Files past this size are shown plain: colouring them costs more than it gives.
MAX_COLOURED_BYTES: Final = 256 * 1024
# Files past this size are not shown at all.
MAX_SHOWN_BYTES: Final = 8 * 1024 * 1024
LIGHT_STYLE: Final = "default"
DARK_STYLE: Final = "monokai"

_FORMATTER: Final = HtmlFormatter(nowrap=True)


@functools.lru_cache(maxsize=256)
def _lexer_for(name: str) -> Lexer | None:
    """The lexer for a file name (cached by its suffix, or by the whole name
    when it has none, as ``Makefile``)."""
    try:
        cls = find_lexer_class_for_filename(name)
    except ClassNotFound:
        return None
    return None if cls is None else cls(stripnl=False, ensurenl=False)


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
    lexer = _lexer_for(("x" + suffix) if suffix else base) if len(data) <= MAX_COLOURED_BYTES else None
    if lexer is None:
        return [escape(line) for line in lines]
    coloured = _pygmentize(text, lexer, _FORMATTER).split("\n")
    if len(coloured) < len(lines):  # a lexer that lost a line: show the text plain
        return [escape(line) for line in lines]
    return coloured[: len(lines)]


@functools.lru_cache(maxsize=64)
def _lexer_named(name: str) -> Lexer | None:
    try:
        return get_lexer_by_name(name, stripnl=False, ensurenl=False)
    except ClassNotFound:
        return None


def fence(code: str, lang: str) -> str:
    """A fenced code block's HTML, coloured when its language is known; "" otherwise."""
    lexer = _lexer_named(lang.split()[0].lower()) if lang.strip() else None
    if lexer is None or len(code) > MAX_COLOURED_BYTES:
        return ""
    return f'<pre class="code"><code>{_pygmentize(code, lexer, _FORMATTER)}</code></pre>\n'


def stylesheet() -> str:
    """The colours of both schemes, dark by the reader's preference."""
    light = HtmlFormatter(style=LIGHT_STYLE).get_style_defs(".code")  # type: ignore[no-untyped-call]
    dark = HtmlFormatter(style=DARK_STYLE).get_style_defs(".code")  # type: ignore[no-untyped-call]
    return f"{light}\n@media (prefers-color-scheme: dark) {{\n{dark}\n}}\n"
