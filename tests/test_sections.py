"""Body sections (the `##` headings outside code fences, line by line) and the
section citation map (stored citations per section, the file-hash listing and
its hash), checked on fixed cases and against the twin on random bodies."""

from __future__ import annotations

import re
from types import ModuleType
from typing import Any

import pytest
from hypothesis import given
from hypothesis import strategies as st

from malde_ostrel.workers.wiki.repo_facts import _text_hash

from .recording import outcome, record

SECTION_CASES = [
    ("", [("", "")]),
    ("intro\n## Setup\nstep", [("", "intro"), ("Setup", "## Setup\nstep")]),
    ("## A\nx\n", [("", ""), ("A", "## A\nx\n")]),
    ("\n## A", [("", ""), ("A", "## A")]),
    ("## Detail ##\n## C#\n##\tTab\t#\t\n## #", [("", ""), ("Detail", "## Detail ##"), ("C", "## C#"),
                                                   ("Tab", "##\tTab\t#\t"), ("#", "## #")]),
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
    ("## A\n``` ## B", [("", ""), ("A", "## A\n``` ## B")]),
]


class TestSections:
    @pytest.mark.parametrize(("body", "expected"), SECTION_CASES)
    def test_cases(self, impl: ModuleType, body: str, expected: list[tuple[str, str]]) -> None:
        result = impl._sections(body)
        assert result == expected
        assert all(type(pair) is tuple and type(pair[0]) is str and type(pair[1]) is str for pair in result)

    def test_body_that_is_not_an_exact_text(self, native: ModuleType, twin: ModuleType) -> None:
        class Text(str):
            pass

        class Lines:
            def split(self, sep: str) -> list[Any]:
                return [Text("## A"), "```", Text("## B"), Text(" ```"), "## C\n"]

        class Fence(str):
            def lstrip(self, *args: Any) -> str:
                return "```"

        class Fenced:
            def split(self, sep: str) -> list[Any]:
                return [Fence("## A"), "## B", Fence("x"), "## C"]

        bodies = [Text("x\n## A\n```\n## B\n```\n## C#"), Lines(), Fenced(), b"## A\nb", None, 3,
                  type("Odd", (), {"split": lambda self, sep: [1]})(),
                  type("Odd", (), {"split": lambda self, sep: ["a", 1]})()]
        for body in bodies:
            assert outcome(lambda: native._sections(body)) == outcome(lambda: twin._sections(body)), body
        assert native._sections(Lines()) == [("", ""), ("A", "## A\n```\n## B\n ```"), ("C", "## C\n")]
        assert native._sections(Fenced()) == [("", "## A\n## B\nx"), ("C", "## C")]

    def test_pattern_is_read_at_call_time_and_only_when_needed(self, native: ModuleType, twin: ModuleType,
                                                               monkeypatch: pytest.MonkeyPatch) -> None:
        class Match:
            def __init__(self, line: str) -> None:
                self.line = line

            def __bool__(self) -> bool:
                return self.line.startswith("!")

            def group(self, n: int) -> Any:
                return (n, self.line)

        class Pattern:
            def match(self, line: str) -> Match:
                return Match(line)

        for module in (native, twin):
            monkeypatch.setattr(module, "_SECTION_RE", re.compile(r"# (\w+)"))
            assert module._sections("# one\n## two\n```\n# three") == [
                ("", ""), ("one", "# one\n## two\n```\n# three")]
            monkeypatch.setattr(module, "_SECTION_RE", Pattern())
            assert module._sections("a\n!b\n```\n!c\n~~~\n!d") == [
                ("", "a"), ((1, "!b"), "!b\n```\n!c\n~~~"), ((1, "!d"), "!d")]
            monkeypatch.delattr(module, "_SECTION_RE")
            assert module._sections("  ```\n## a\nb") == [("", "  ```\n## a\nb")]
            with pytest.raises(NameError, match="^name '_SECTION_RE' is not defined$"):
                module._sections("```\n## a\n~~~\nb")


# Section map ------------------------------------------------------------------

def cite(path: Any, start: Any, end: Any, symbol: Any = None, **more: Any) -> dict[str, Any]:
    c: dict[str, Any] = {"path": path, "line_start": start, "line_end": end, **more}
    if symbol is not None:
        c["symbol"] = symbol
    return c


class TestSectionMap:
    def test_files_symbols_and_listing(self, impl: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
        log = record(impl, monkeypatch, "_text_hash")
        body = ("lead-in without citations\n## Loading\nReads [[src/load.c:10-20|load_all]] and "
                "[[src/load.c:30]] via [[src/io.c:1-5]], again [[src/load.c:10-20]].")
        citations = [cite("src/load.c", 10, 20, "load_all"), cite("src/load.c", 30, 30),
                     cite("src/io.c", 1, 5)]
        result = impl.section_map(body, citations, {"src/io.c": "h1"})
        listing = "src/io.c\0h1\nsrc/load.c\0"
        assert [args for _, args, _ in log.calls] == [(listing,)]
        assert result == [{"heading": "Loading", "files": ["src/io.c", "src/load.c"], "symbols": ["load_all"],
                           "hash": _text_hash(listing)}]
        assert list(result[0]) == ["heading", "files", "symbols", "hash"]

    class Name:
        def __str__(self) -> str:
            return "b.c"

    @pytest.mark.parametrize(("body", "stored", "hashes", "expected"), [
        # No stored citations: headed sections only, with the hash of nothing.
        ("lead [[a.c:1]]\n## A\n[[a.c:1]]\n## B", [], {}, [("A", [], [], ""), ("B", [], [], "")]),
        ("## A\n[[a.c:1]]", [cite("a.c", 1, 1)], {}, [("A", ["a.c"], [], "a.c\0")]),
        ("## A\n[[a.c:1]]", [cite("a.c", 1, 1)], {"a.c": "h", "b.c": "x"}, [("A", ["a.c"], [], "a.c\0h")]),
        ("see [[a.c:1-2]] only", [cite("a.c", 1, 2, "f")], {}, [("", ["a.c"], ["f"], "a.c\0")]),
        ("see [[b.c:1-2]] [[a.c:1]]\n## H", [cite("a.c", 1, 2, "f")], {}, [("H", [], [], "")]),
        ("no headings", [], {}, []),
        ("## S\n[[\u65e5.c:1]] [[b.c:2]] [[\u00e9.c:3]]",
         [cite("\u65e5.c", 1, 1), cite("b.c", 2, 2), cite("\u00e9.c", 3, 3)],
         {"\u65e5.c": "\U0001f600", "b.c": "\u00e9"},
         [("S", ["b.c", "\u00e9.c", "\u65e5.c"], [], "b.c\0\u00e9\n\u00e9.c\0\n\u65e5.c\0\U0001f600")]),
        ("## S\n```\n## not a heading [[x.c:1]]\n```", [cite("x.c", 1, 1)], {}, [("S", ["x.c"], [], "x.c\0")]),
        # The later of two records with one key wins; keys take str() and int().
        ("## S\n[[a.c:1-2]] [[b.c:1-3]] [[a.c:1-2]] [[c.c:4]]",
         [cite("a.c", 1, 2, "first"), cite("a.c", "1", 2.9, "second"), cite(Name(), True, 3, ""),
          cite("c.c", 4, 4, 0)], {"b.c": 7},
         [("S", ["a.c", "b.c", "c.c"], ["second"], "a.c\0\nb.c\x007\nc.c\0")]),
    ])
    def test_entries(self, impl: ModuleType, body: str, stored: list[dict[str, Any]], hashes: dict[str, Any],
                     expected: list[tuple[str, list[str], list[str], str]]) -> None:
        assert impl.section_map(body, stored, hashes) == [
            {"heading": h, "files": f, "symbols": s, "hash": _text_hash(listing)}
            for h, f, s, listing in expected]

    def test_keys_and_texts_of_any_kind(self, native: ModuleType, twin: ModuleType,
                                        monkeypatch: pytest.MonkeyPatch) -> None:
        class Backwards(str):
            def __lt__(self, other: object) -> bool:
                return str.__gt__(self, other)  # type: ignore[operator]

            __hash__ = str.__hash__

        class Shown:
            def __init__(self, text: str) -> None:
                self.text = text

            def __str__(self) -> str:
                return Backwards(self.text)

        big = 10**30
        plain = [cite("a.c", 1, 1, "s1"), cite("a.c", 2, 2, "s2"), cite("\u00e9.c", big, big + 1, "s3"),
                 cite("a.c", 1, 1, "s4")]
        odd = [cite(Shown("b.c"), 1, 2, Shown("x")), cite("c.c", 3, 3, Shown("y")),
               cite("d.c", 4, 4, Shown("z"))]
        probes = [("a.c", 1, 1), ("a.c", 1.0, True), ("\u00e9.c", big, big + 1), ("b.c", 1, 2),
                  [("a.c", 2, 2)][0], ("c.c", 3, 3), ("d.c", 4, 4), ("a.c", 2, 3), ("zz", 9, 9)]
        for stored in (plain, odd + plain, plain + odd):
            for probe_set in (probes[:3], probes):
                results = []
                for module in (native, twin):
                    monkeypatch.setattr(module, "prose_citations", lambda text, p=probe_set: p)
                    monkeypatch.setattr(module, "citation_key", lambda key: key)
                    results.append(outcome(lambda: module.section_map("## H", stored, {"a.c": 1})))
                assert results[0] == results[1]
                assert results[0][0] == "returned"
        lead_in, entry = results[0][1]
        assert (lead_in["heading"], entry["heading"]) == ("", "H") and lead_in["files"] == entry["files"]
        assert set(entry["files"]) == {"a.c", "b.c", "c.c", "d.c", "\u00e9.c"}
        # Texts of a kind of their own sort by their own order, through a set.
        assert sorted(map(str, entry["symbols"])) == ["s2", "s3", "s4", "x", "y", "z"] != entry["symbols"]

    def test_collaborators_in_order(self, native: ModuleType, twin: ModuleType,
                                    monkeypatch: pytest.MonkeyPatch) -> None:
        body = "x [[a.c:1]]\n## A\n[[a.c:1]] [[b.c:2|g]]\n## B\n"
        logs = []
        for module in (native, twin):
            log = record(module, monkeypatch, "_sections", "prose_citations", "citation_key", "_text_hash")
            module.section_map(body, [cite("a.c", 1, 1), cite("b.c", 2, 2, "g")], {"a.c": "1"})
            logs.append(log.calls)
        assert logs[0] == logs[1]
        assert [name for name, _, _ in logs[0]] == [
            "_sections", "prose_citations", "citation_key", "_text_hash",
            "prose_citations", "citation_key", "citation_key", "_text_hash", "prose_citations", "_text_hash"]

    class Hashes:
        def get(self, key: str, default: Any = None) -> Any:
            return key.upper()

    @pytest.mark.parametrize(("citations", "rebound"), [
        ([cite("a.c", None, 1)], {}),
        ([cite("a.c", "x", 1)], {}),
        ([{"line_start": 1, "line_end": 1}], {"citation_key": lambda c: ("", 1, 1)}),
        ([cite("a.c", 1, 1)], {"citation_key": list}),
        ([cite("a.c", 1, 1)], {"_sections": lambda body: [["", "[[a.c:1]]"], ("H", "t")]}),
        ([cite("a.c", 1, 1)], {"_sections": lambda body: iter([("", "x"), ("H",)])}),
        ([cite("a.c", 1, 1)], {"_sections": lambda body: [("A", "[[a.c:1]]", 3)]}),
        ([cite("a.c", 1, 1)], {"_sections": lambda body: [5]}),
        ([cite("a.c", 1, 1)], {"_sections": lambda body: [(0, "[[a.c:1]]"), (None, "y")]}),
        ([], {"citation_key": None}),
        ([], {"_text_hash": None}),
    ])
    def test_failures_and_stand_ins_as_the_twin(self, native: ModuleType, twin: ModuleType,
                                                monkeypatch: pytest.MonkeyPatch, citations: list[Any],
                                                rebound: dict[str, Any]) -> None:
        results = []
        for module in (native, twin):
            for name, value in rebound.items():
                if value is None:
                    monkeypatch.delattr(module, name)
                else:
                    monkeypatch.setattr(module, name, value)
            for body in ("## H\n[[a.c:1]]", "## A\nnothing cited", "no heading"):
                results.append(outcome(lambda: module.section_map(body, citations, self.Hashes())))
        assert results[:3] == results[3:]


# Random bodies ------------------------------------------------------------------

FRAGMENTS = ["## ", "##\t", "###", "##", "#", " ", "\t", "\n", "\n", "\n", "\r", "\x0b", "\u3000", "\xa0",
             "```", "~~~", "``", "a", "B c", "\u00e9", "\u2028", "\U0001f600", "[[a.c:1-2]]", "[[b.c:3|f]]",
             "[[a.c:1]]", "[[c.c:2-2|g h]]"]
bodies = st.lists(st.sampled_from(FRAGMENTS), max_size=40).map("".join)
citations = st.lists(st.builds(cite, st.sampled_from(["a.c", "b.c", "c.c"]), st.integers(1, 3),
                               st.integers(1, 3), st.sampled_from([None, "f", "g h", ""])), max_size=6)


@given(body=bodies)
def test_every_line_lands_in_one_section_in_order(native: ModuleType, body: str) -> None:
    sections = native._sections(body)
    lead, rest = sections[0], sections[1:]
    assert lead[0] == ""
    lead_lines = [] if rest and lead[1] == "" and body.split("\n")[0] != "" else lead[1].split("\n")
    lines = lead_lines + [line for _, text in rest for line in text.split("\n")]
    assert lines == body.split("\n")
    for heading, text in rest:
        match = native._SECTION_RE.match(text.split("\n")[0])
        assert match and match.group(1) == heading


@given(body=bodies, stored=citations)
def test_native_agrees_with_the_twin(native: ModuleType, twin: ModuleType, body: str,
                                     stored: list[dict[str, Any]]) -> None:
    assert native._sections(body) == twin._sections(body)
    with pytest.MonkeyPatch.context() as monkeypatch:
        logs = []
        for module in (native, twin):
            log = record(module, monkeypatch, "_sections", "prose_citations", "citation_key", "_text_hash")
            logs.append((module.section_map(body, stored, {"a.c": "ha", "c.c": "hc"}), log.calls))
        assert logs[0] == logs[1]
