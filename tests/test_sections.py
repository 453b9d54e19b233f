"""Body sections (the `##` headings outside code fences, line by line) and the
section citation map (stored citations per section, the file-hash listing and
its hash)."""

from __future__ import annotations

from types import ModuleType
from typing import Any

import pytest

from malde_ostrel.workers.wiki.repo_facts import _text_hash

SECTION_CASES = [
    ("", [("", "")]),
    ("intro\n## Setup\nstep", [("", "intro"), ("Setup", "## Setup\nstep")]),
    ("## A\nx\n", [("", ""), ("A", "## A\nx\n")]),
    ("\n## A", [("", ""), ("A", "## A")]),
    ("## Detail ##\n## C#\n##\tTab\t#\t\n## #",
     [("", ""), ("Detail", "## Detail ##"), ("C", "## C#"), ("Tab", "##\tTab\t#\t"), ("#", "## #")]),
    ("### Detail\n##Detail\n ## Detail\n##   \n## \x0bx\n##\xa0x",
     [("", "### Detail\n##Detail\n ## Detail\n##   \n## \x0bx\n##\xa0x")]),
    ("## Setup\r\nrun\r\n", [("", ""), ("Setup\r", "## Setup\r\nrun\r\n")]),
    ("## \u00e9t\u00e9 \U0001f600 ##\n\u2028## x",
     [("", ""), ("\u00e9t\u00e9 \U0001f600", "## \u00e9t\u00e9 \U0001f600 ##\n\u2028## x")]),
    ("## A\n```py\n## Example\n```\n## B", [("", ""), ("A", "## A\n```py\n## Example\n```"), ("B", "## B")]),
    ("~~~\n## in\n```\n## out", [("", "~~~\n## in\n```"), ("out", "## out")]),
    ("  ```\n## in\n\t~~~~ x\n## out", [("", "  ```\n## in\n\t~~~~ x"), ("out", "## out")]),
    ("\u3000```\n## in\n\x1c```\n## out", [("", "\u3000```\n## in\n\x1c```"), ("out", "## out")]),
    ("``\n## a\n`` `\n## b", [("", "``"), ("a", "## a\n`` `"), ("b", "## b")]),
    ("## A\n```\n## never closed\n## B", [("", ""), ("A", "## A\n```\n## never closed\n## B")]),
]  # fmt: skip


@pytest.mark.parametrize(("body", "expected"), SECTION_CASES)
def test_sections(impl: ModuleType, body: str, expected: list[tuple[str, str]]) -> None:
    result = impl._sections(body)
    assert result == expected
    assert all(type(p) is tuple and type(p[0]) is str and type(p[1]) is str for p in result)


def cite(path: Any, start: Any = None, end: Any = None, symbol: Any = None) -> dict[str, Any]:
    c: dict[str, Any] = {"path": path}
    for key, value in (("line_start", start), ("line_end", end), ("symbol", symbol)):
        if value is not None:
            c[key] = value
    return c


class Name:
    def __str__(self) -> str:
        return "b.c"


@pytest.mark.parametrize(("body", "stored", "hashes", "expected"), [
        # No stored citations: headed sections only, with the hash of nothing.
        ("lead [[a.c:1]]\n## A\n[[a.c:1]]\n## B", [], {}, [("A", [], [], ""), ("B", [], [], "")]),
        ("## A\n[[a.c:1]]", [cite("a.c", 1, 1)], {"a.c": "h", "b.c": "x"}, [("A", ["a.c"], [], "a.c\0h")]),
        ("see [[a.c:1-2]] only", [cite("a.c", 1, 2, "f")], {}, [("", ["a.c"], ["f"], "a.c\0")]),
        ("see [[b.c:1-2]] [[a.c:1]]\n## H", [cite("a.c", 1, 2, "f")], {}, [("H", [], [], "")]),
        ("no headings", [], {}, []),
        ("## S\n[[\u65e5.c:1]] [[b.c:2]] [[\u00e9.c:3]] [[b.c:2]]",
         [cite("\u65e5.c", 1, 1), cite("b.c", 2, 2), cite("\u00e9.c", 3, 3)], {"\u65e5.c": "\U0001f600", "b.c": "\u00e9"},
         [("S", ["b.c", "\u00e9.c", "\u65e5.c"], [], "b.c\0\u00e9\n\u00e9.c\0\n\u65e5.c\0\U0001f600")]),
        ("## S\n```\n## not a heading [[x.c:1]]\n```", [cite("x.c", 1, 1)], {}, [("S", ["x.c"], [], "x.c\0")]),
        # The later of two records with one key wins; keys take str() and int().
        ("## S\n[[a.c:1-2]] [[b.c:1-3]] [[a.c:1-2]] [[c.c:4]]",
         [cite("a.c", 1, 2, "first"), cite("a.c", "1", 2.9, "second"), cite(Name(), True, 3, ""), cite("c.c", 4, 4, 0)],
         {"b.c": 7}, [("S", ["a.c", "b.c", "c.c"], ["second"], "a.c\0\nb.c\x007\nc.c\0")]),
        # Missing line numbers count as 0.
        ("## S\n[[a.c:0-2]] [[b.c:3-0]] [[c.c:0]]", [cite("a.c", None, 2), cite("b.c", 3), cite("c.c")], {},
         [("S", ["a.c", "b.c", "c.c"], [], "a.c\0\nb.c\0\nc.c\0")]),
        ("## S\n[[a.c:1-2]] [[b.c:3]]", [cite("a.c", None, 2), cite("b.c", 3)], {}, [("S", [], [], "")]),
    ])  # fmt: skip
def test_section_map(impl: ModuleType, body: str, stored: list[dict[str, Any]], hashes: dict[str, Any],
                     expected: list[tuple[str, list[str], list[str], str]]) -> None:  # fmt: skip
    result = impl.section_map(body, stored, hashes)
    assert result == [{"heading": h, "files": f, "symbols": s, "hash": _text_hash(t)} for h, f, s, t in expected]
    assert all(list(entry) == ["heading", "files", "symbols", "hash"] for entry in result)
