"""Small host helpers with boundaries of their own: a leaving family's files,
kept titles, topics, path forms, file hashes and citations."""

from __future__ import annotations

import pathlib
from typing import Any

import pytest

from malde_ostrel.workers.wiki.page_sources import unit_topic
from malde_ostrel.workers.wiki.page_title import keep_agent_titles
from malde_ostrel.workers.wiki.repo_facts import _norm, file_hash
from malde_ostrel.workers.wiki.tool.carry import page_files
from malde_ostrel.workers.wiki.types import PagePlan
from malde_ostrel.workers.wiki.verify import prose_citations


def plan(page_id: str, *files: str, level: str = "module", title: str = "T") -> PagePlan:
    return PagePlan(page_id=page_id, level=level, title=title, source_files=list(files))


def test_a_family_parent_leaves_with_its_childrens_files() -> None:
    rows = {"p": {"related_pages": ["a", "b"]}, "a": {"source_files": ["y", "x"]}, "b": {"source_files": ["x"]}}
    assert [page_files(page, rows) for page in ("p", "a", "z")] == [["x", "y"], ["x", "y"], []]


def test_chosen_titles_follow_their_files_unless_ambiguous() -> None:
    # Two stored pages with the same files (x and y): no title is taken.
    titles = [("same", "Chosen", "s.c"), ("plain", "", "p.c"), ("renamed", "Loader", "b.c a.c"), ("x", "X", "z.c"),
              ("y", "Y", "z.c")]  # fmt: skip
    existing: dict[str, dict[str, Any]] = {p: {"agent_title": t, "source_files": f.split()} for p, t, f in titles}
    plans = [plan("same"), plan("plain"), plan("fresh", "a.c", "b.c"), plan("other", "a.c"), plan("z", "z.c")]
    keep_agent_titles(plans, existing)
    assert [p.title for p in plans] == ["Chosen", "T", "Loader", "T", "T"]


@pytest.mark.parametrize(
    ("files", "dirs"),
    [
        (["a/b/x.c", "a/b/y.c"], "a/b"),
        (["a/x.c", "a/b/y.c"], "a a/b"),  # one path a level deeper
        (["a/x.c", "b/a/y.c"], "a b/a"),
        (["a/b.c", "x\0a/c.c"], "a x\0a"),  # a NUL inside a path
        (["x.c", "a/y.c"], ". a"),
        (["/x.c", "./y.c"], "."),
        ([], ""),
    ],
)
def test_topic_is_title_and_distinct_directories(files: list[str], dirs: str) -> None:
    assert unit_topic("Core IO", files) == " ".join(["core io", *dirs.split()])


@pytest.mark.parametrize(
    ("raw", "norm"),
    [("./src/a.c", "src/a.c"), ("src\\w\\b.c", "src/w/b.c"), ("/abs//x/../y.c", "abs/y.c"), ("", "."), ("//", ".")],
)
def test_norm(raw: str, norm: str) -> None:
    assert _norm(raw) == norm


def test_file_hash_is_the_git_blob_id(tmp_path: pathlib.Path) -> None:
    assert file_hash(tmp_path / "f.txt") is None
    (tmp_path / "f.txt").write_text("abc", encoding="utf-8")
    assert file_hash(tmp_path / "f.txt") == "f2ba8f84ab5c1bce84a7b441cb1959cfc7093b7f"


def test_citation_forms_in_text_order() -> None:
    text = "Loads [[src/load.c:10-20|load_all]] then [[x.py:7]] and [[C:/w/y.c:5|ns::f]]."
    assert prose_citations(text) == [{"path": "src/load.c", "line_start": 10, "line_end": 20, "symbol": "load_all"},
                                     {"path": "x.py", "line_start": 7, "line_end": 7},
                                     {"path": "C:/w/y.c", "line_start": 5, "line_end": 5, "symbol": "ns::f"}]  # fmt: skip


@pytest.mark.parametrize("text", ["[[a b.c:1]]", "[[a.c]]", "[[a.c:x]]", "[[a.c:1-]]", "[a.c:1]", "[[a.c:١٢]]",
                                  "[[a.c:1|]]", "[[a.c:1|x|y]]", "[[:1]]"])  # fmt: skip
def test_malformed_citations_are_ignored(text: str) -> None:
    assert prose_citations(text) == []
