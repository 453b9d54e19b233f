"""Paths that `.gitattributes` files mark as vendored or generated code.

Follows git's rules for the common cases: a pattern without "/" matches a
file's name at any depth below the attributes file; a pattern with "/" is
anchored at that file's directory ("*" stays within one step, "**" spans
steps); a pattern ending in "/" names directories only, so it marks no file.
Within a file the last matching line decides; a deeper attributes file
decides over a shallower one.  An attribute is set by ``attr`` or
``attr=true``, unset by ``-attr`` or ``attr=false``, and made unspecified
again by ``!attr``.  Macro definitions (``[attr]...``) are skipped.
"""

from __future__ import annotations

import re
from collections.abc import Callable, Iterable
from typing import NamedTuple

from malde_ostrel.workers.wiki.tool.globs import glob_regex

ATTRIBUTES_FILE = ".gitattributes"
MARKS: frozenset[str] = frozenset({"linguist-vendored", "linguist-generated"})

_ESCAPES = {"n": "\n", "t": "\t", '"': '"', "\\": "\\"}


class Rule(NamedTuple):
    """One line of an attributes file that says something about the marks."""

    prefix: str  # the attributes file's directory, with a trailing "/", or ""
    regex: re.Pattern[str]  # matches the path below ``prefix``
    states: tuple[tuple[str, bool | None], ...]


def _unquote(line: str) -> tuple[str, str] | None:
    """A C-quoted pattern at the start of ``line`` and the rest of the line."""
    out = bytearray()
    i = 1
    while i < len(line):
        char = line[i]
        if char == '"':
            return out.decode("utf-8", "replace"), line[i + 1 :]
        if char == "\\" and i + 1 < len(line):
            digits = line[i + 1 : i + 4]
            if len(digits) == 3 and all(d in "01234567" for d in digits):
                out.append(int(digits, 8) & 0xFF)
                i += 4
                continue
            out += _ESCAPES.get(line[i + 1], line[i + 1]).encode("utf-8", "surrogateescape")
            i += 2
            continue
        out += char.encode("utf-8", "surrogateescape")
        i += 1
    return None


def _state(token: str) -> tuple[str, bool | None] | None:
    if token.startswith(("-", "!")):
        name, value = token[1:], (False if token[0] == "-" else None)
    else:
        name, _, raw = token.partition("=")
        value = True if not raw or raw == "true" else False if raw == "false" else None
    return (name, value) if name in MARKS else None


def parse(text: str, directory: str = "") -> list[Rule]:
    """The rules of one attributes file lying in ``directory`` ("" for the top)."""
    prefix = directory.strip("/") + "/" if directory.strip("/") else ""
    rules: list[Rule] = []
    for raw in text.splitlines():
        line = raw.strip()
        if not line or line.startswith(("#", "[attr]")):
            continue
        if line.startswith('"'):
            quoted = _unquote(line)
            if quoted is None:
                continue
            pattern, rest = quoted
        else:
            pattern, _, rest = line.partition(" ")
            if "\t" in pattern:
                pattern, _, more = pattern.partition("\t")
                rest = more + " " + rest
        states = tuple(s for s in map(_state, rest.split()) if s is not None)
        if not states or not pattern or pattern.endswith("/") or pattern.startswith("!"):
            continue
        body = glob_regex(pattern).pattern
        if "/" not in pattern:
            body = "(?:.*/)?" + body
        rules.append(Rule(prefix, re.compile(body), states))
    return rules


def attribute_files(paths: Iterable[str]) -> list[str]:
    """The attributes files among ``paths``, shallow first (deeper ones decide)."""
    paths = list(paths)
    if ATTRIBUTES_FILE not in "\0".join(paths):
        return []
    files = [p for p in paths if p == ATTRIBUTES_FILE or p.endswith("/" + ATTRIBUTES_FILE)]
    files.sort(key=lambda p: (p.count("/"), p))
    return files


def marked_paths(paths: Iterable[str], read_text: Callable[[str], str | None]) -> Callable[[str], bool] | None:
    """A test for the paths the attributes files among ``paths`` mark
    vendored or generated; None when no attributes file says anything."""
    rules: list[Rule] = []
    for path in attribute_files(paths):
        text = read_text(path)
        if text is not None:
            rules.extend(parse(text, path.rpartition("/")[0]))
    if not rules:
        return None

    def marked(path: str) -> bool:
        found: dict[str, bool | None] = {}
        for rule in rules:
            if path.startswith(rule.prefix) and rule.regex.fullmatch(path, len(rule.prefix)):
                found.update(rule.states)
        return any(found.values())

    return marked
