"""Tests of the plan records and collaborators used by plan pinning."""

from __future__ import annotations

import pathlib
from typing import Any

import pytest

from malde_ostrel.workers.wiki.page_retirement import PageRetirementMixin
from malde_ostrel.workers.wiki.page_title import keep_agent_titles
from malde_ostrel.workers.wiki.replan_carry import ReplanRemap, amend, carry_superseded, inherit_prose
from malde_ostrel.workers.wiki.repo_facts import _norm, _text_hash, file_hash
from malde_ostrel.workers.wiki.sections import changed_files, stale_sections
from malde_ostrel.workers.wiki.types import PagePlan, citation_key, link_families
from malde_ostrel.workers.wiki.verify import prose_citations


def plan(page_id: str, *files: str, level: str = "module", title: str = "") -> PagePlan:
    return PagePlan(page_id=page_id, level=level, title=title, source_files=list(files))


class TestPlans:
    def test_keyword_only_with_fresh_defaults(self) -> None:
        with pytest.raises(TypeError):
            PagePlan("a")  # type: ignore[call-arg]
        a, b = PagePlan(page_id="a"), PagePlan(page_id="b")
        a.children.append("c")
        assert b.children == [] and b.related_pages == [] and not b.catch_all

    def test_stored_source_files_of_parent_and_leaf(self) -> None:
        assert PagePlan(page_id="p", source_files=["a.c"], children=["c"]).stored_source_files() == []
        leaf = plan("l", "a.c")
        leaf.stored_source_files().append("b.c")
        assert leaf.source_files == ["a.c"]

    def test_link_families_leaves_shared_parent_lists_alone(self) -> None:
        shared = ["c1", "c2", "gone"]
        parent = PagePlan(page_id="p", children=shared, related_pages=shared)
        inner_kids = ["c9"]
        c2 = PagePlan(page_id="c2", children=inner_kids, related_pages=inner_kids)
        c1 = plan("c1")
        c1.related_pages.append("p")
        plans = [c1, parent, c2]
        result = link_families(plans)
        assert result is not plans and all(a is b for a, b in zip(result, plans))
        assert c1.related_pages == ["p"]
        assert shared == ["c1", "c2", "gone"] and parent.children is parent.related_pages
        assert inner_kids == ["c9"]


class TestProseCarry:
    row: dict[str, Any] = {"source_files": ["a.c", "b.c", "dead.c"], "level": "package"}

    def test_superseded_child_goes_to_largest_overlap_once(self) -> None:
        remap = ReplanRemap()
        family = [plan("f1", "a.c"), plan("f2", "a.c", "b.c")]
        for _ in range(2):
            record = carry_superseded(remap, "old", self.row, family, {"a.c", "b.c"}, "why")
        assert record == {"action": "retire", "page_id": "old", "reason": "why",
                          "level": "package", "carried_to": "f2"}
        assert remap.merged == {"f2": ["old"]} and dict(remap) == {}

    def test_superseded_child_ties_and_fallbacks(self) -> None:
        remap = ReplanRemap()
        family = [plan("f1", "a.c"), plan("f2", "b.c"), plan("f3", "dead.c", "x")]
        assert carry_superseded(remap, "o", self.row, family, {"a.c", "b.c"}, "r")["carried_to"] == "f1"
        none = carry_superseded(remap, "n", {"level": ""}, [plan("g1", "z"), plan("g2")], set(), "r")
        assert none["carried_to"] == "g1" and none["level"] == "module"
        assert carry_superseded(remap, "e", {}, [], set(), "r")["carried_to"] is None

    def test_inherit_prose_maps_merges_and_records(self) -> None:
        existing: dict[str, dict[str, Any]] = {
            "keep": {"source_files": ["k.c"]},
            "old1": {"source_files": ["a.c", "b.c"]},  # tie s1/s2 -> s1
            "old2": {"source_files": ["a.c"]},
            "old3": {"source_files": ["gone.c", "c.c"]},
            "orphan": {"source_files": ["nowhere.c"]},
            "bare": {"source_files": None},
        }
        successors = [plan("s1", "a.c", "k.c"), plan("s2", "b.c", "c.c", level="package")]
        remap, amendments = ReplanRemap(), list[dict[str, Any]]()
        live = {"a.c", "b.c", "c.c", "k.c", "nowhere.c"}
        inherit_prose(remap, existing, successors, live, {"keep", "s1", "s2"}, amendments)
        assert dict(remap) == {"s1": "old1", "s2": "old3"} and remap.merged == {"s1": ["old2"]}
        assert [(a["page_id"], a["from"], a["level"]) for a in amendments] == [
            ("s1", "old1", "module"), ("s1", "old2", "module"), ("s2", "old3", "package")]
        assert amendments[0]["action"] == "remap"
        assert amendments[0]["reason"] == "prose carried from old1"
        assert ReplanRemap().merged == {}

    def test_amend_level_only_when_given(self) -> None:
        assert amend("add", "p", "r") == {"action": "add", "page_id": "p", "reason": "r"}
        assert list(amend("add", "p", "r", level="note"))[-1] == "level"


class TestAgentTitles:
    def test_same_id_and_new_id(self) -> None:
        existing: dict[str, dict[str, Any]] = {
            "same": {"agent_title": "Chosen", "source_files": ["s.c"]},
            "plain": {"agent_title": "", "source_files": ["p.c"]},
            "renamed": {"agent_title": "Loader", "source_files": ["b.c", "a.c"]},
        }
        snapshot = repr(existing)
        plans = [plan("same", title="T"), plan("plain", title="T"),
                 plan("fresh", "a.c", "b.c", title="T"), plan("other", "a.c", title="T")]
        result = keep_agent_titles(plans, existing)
        assert result is not plans and all(a is b for a, b in zip(result, plans))
        assert [p.title for p in plans] == ["Chosen", "T", "Loader", "T"]
        assert repr(existing) == snapshot

    def test_ambiguous_match_keeps_planner_title(self) -> None:
        existing = {"x": {"agent_title": "X", "source_files": ["a.c"]},
                    "y": {"agent_title": "Y", "source_files": ["a.c"]}}
        fresh = plan("z", "a.c", title="T")
        keep_agent_titles([fresh], existing)
        assert fresh.title == "T"


class TestFreshness:
    def test_changed_files_classification(self) -> None:
        stored = {"same.c": "1", "mod.c": "1", "gone.c": "1", "emptied.c": "1"}
        current: dict[str, str | None] = {"same.c": "1", "mod.c": "2", "gone.c": None,
                                          "emptied.c": "", "new.c": "3", "never.c": None}
        planned = ["new.c", "mod.c", "gone.c", "emptied.c", "same.c", "never.c", "absent.c"]
        assert changed_files(stored, current, planned) == {
            "added": ["new.c"], "removed": ["emptied.c", "gone.c"], "modified": ["mod.c"]}

    def test_stale_sections(self) -> None:
        sections: list[dict[str, Any]] = [{"heading": "A", "files": ["a.c"]}, {"heading": "B"},
                                          {"heading": "C", "files": ["x.c", "b.c"]}]
        assert [s["heading"] for s in stale_sections(sections, {"b.c", "a.c"})] == ["A", "C"]

    @pytest.mark.parametrize(("raw", "norm"), [("./src/a.c", "src/a.c"), ("src\\w\\b.c", "src/w/b.c"),
                                               ("/abs//x/../y.c", "abs/y.c"), ("", "."), ("//", ".")])
    def test_norm(self, raw: str, norm: str) -> None:
        assert _norm(raw) == norm

    def test_hashes(self, tmp_path: pathlib.Path) -> None:
        assert len(_text_hash("\udc80")) == 16
        target = tmp_path / "f.txt"
        assert file_hash(target) is None
        target.write_text("abc", encoding="utf-8")
        # git's blob id of the bytes (`git hash-object` of a file holding "abc").
        assert file_hash(target) == "f2ba8f84ab5c1bce84a7b441cb1959cfc7093b7f"


class TestProseCitations:
    def test_forms_in_text_order(self) -> None:
        text = "Loads [[src/load.c:10-20|load_all]] then [[x.py:7]] and [[C:/w/y.c:5|ns::f]]."
        assert prose_citations(text) == [
            {"path": "src/load.c", "line_start": 10, "line_end": 20, "symbol": "load_all"},
            {"path": "x.py", "line_start": 7, "line_end": 7},
            {"path": "C:/w/y.c", "line_start": 5, "line_end": 5, "symbol": "ns::f"}]
        assert citation_key(prose_citations("[[m.c:2-3|f]]")[0]) == ("m.c", 2, 3)

    @pytest.mark.parametrize("text", ["[[a b.c:1]]", "[[a.c]]", "[[a.c:x]]", "[[a.c:1-]]", "[a.c:1]",
                                      "[[a.c:١٢]]", "[[a.c:1|]]", "[[a.c:1|x|y]]", "[[:1]]"])
    def test_malformed_are_ignored(self, text: str) -> None:
        assert prose_citations(text) == []


def test_retire_pages_deletes_each_retired_page_once() -> None:
    deleted: list[tuple[str, str]] = []

    class Host(PageRetirementMixin):
        def __init__(self) -> None:
            self.repository = self
            self.branch = "main"
            self._existing = {"a": {}, "b": {}}

        def delete_wiki_page(self, branch: str, page_id: str) -> None:
            deleted.append((branch, page_id))

    host = Host()
    records = [amend("retire", "a", "r"), amend("add", "b", "r"), amend("retire", "z", "r"),
               amend("retire", "a", "again")]
    assert host._retire_pages(records) == ["a", "z"]
    assert deleted == [("main", "a"), ("main", "z")] and list(host._existing) == ["b"]
