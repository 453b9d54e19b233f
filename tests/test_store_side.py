"""The store side of the plan of record on a host that records every call:
skeleton rows, stale selection, synthesis marking, the section cache and the
change report."""

from __future__ import annotations

from types import ModuleType
from typing import Any

import pytest

from malde_ostrel.workers.wiki.steering import STEERING_SENTINEL
from malde_ostrel.workers.wiki.types import PagePlan

from .records import plan

STALE_MARK = {"__stale__": "pending"}


def host(impl: ModuleType, existing: Any = None, hashes: dict[str, str] | None = None, suppress: bool = False) -> Any:
    """A generator object that is its own store and records every call."""
    current = dict(hashes or {})

    class Host(impl.PlanRecordMixin):  # type: ignore[name-defined,misc]
        branch, log, _existing = "main", [], existing or {}

        def __init__(self) -> None:
            self.repository = self.db = self

        def transaction(self) -> Any:
            return self

        def __enter__(self) -> None:
            self.log.append(("begin",))

        def __exit__(self, kind: Any, *exc: Any) -> bool:
            self.log.append(("end", kind and kind.__name__))
            return suppress

        def execute(self, sql: str, params: tuple[Any, ...]) -> None:
            self.log.append(("execute", sql, params))

        def upsert_wiki_page(self, *args: Any, **kwargs: Any) -> None:
            self.log.append(("upsert", args, kwargs))

        def _hashes_with_steering(self, files: list[str]) -> dict[str, str]:
            self.log.append(("hash+steering", list(files)))
            return {**{f: current.get(f, "") for f in files}, STEERING_SENTINEL: "s1"}

        def _source_hashes(self, paths: list[str]) -> dict[str, Any]:
            self.log.append(("hash", list(paths)))
            return {p: current.get(p) for p in paths}

    return Host()


class TestSkeleton:
    def test_rows_written_and_counted(self, impl: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
        monkeypatch.setattr(impl, "section_of", lambda p: f"section of {p.page_id}")
        h = host(impl, existing={"module-stored": {}})
        plans = [plan("module-a", "a.c", title="A", description=None, importance="", related_pages=["x"]),
                 plan("P", level="package", children=["P-a", "P-b"], related_pages=["other"], title="P", type="t"),
                 plan("custom-faq", "a.c"), plan("overview", "a.c", level="overview"), plan("module-empty"),
                 plan("module-stored", "s.c")]  # fmt: skip
        assert h._persist_plan_skeleton(plans) == 2
        begin, first, second, end = h.log
        assert begin == ("begin",) and end == ("end", None)
        assert first[:2] == ("upsert", ("main", "module-a", "A"))
        assert list(first[2].items()) == [
            ("description", ""), ("importance", "medium"), ("level", "module"),
            ("parent_section", "section of module-a"), ("rel_path", "pages/module-a.md"), ("source_files", ["a.c"]),
            ("source_hashes", STALE_MARK), ("related_pages", ["x"]), ("status", "stale"), ("page_type", ""),
        ]  # fmt: skip
        assert second[2]["related_pages"] == ["P-a", "P-b"] and second[2]["source_files"] == []
        assert (second[2]["level"], second[2]["importance"], second[2]["page_type"]) == ("package", "medium", "t")

    @pytest.mark.parametrize("suppress", [False, True])
    def test_failure_inside_the_loop_exits_the_transaction(
        self, impl: ModuleType, suppress: bool, monkeypatch: pytest.MonkeyPatch
    ) -> None:
        def section_of(p: PagePlan) -> str:
            if p.page_id == "module-b":
                raise RuntimeError("no section")
            return "Code"

        monkeypatch.setattr(impl, "section_of", section_of)
        h = host(impl, suppress=suppress)
        plans = [plan("module-a", "a.c"), plan("module-b", "b.c"), plan("module-c", "c.c")]
        if suppress:
            assert h._persist_plan_skeleton(plans) == 1
        else:
            with pytest.raises(RuntimeError, match="no section"):
                h._persist_plan_skeleton(plans)
        assert [c[0] for c in h.log] == ["begin", "upsert", "end"] and h.log[-1] == ("end", "RuntimeError")
        assert host(impl)._persist_plan_skeleton([]) == 0


class TestStaleSelection:
    def test_forced_and_empty_store_take_every_page_without_hashing(self, impl: ModuleType) -> None:
        plans = [plan("a", "a.c"), plan("b"), plan("a")]
        for existing, force in (({"a": {}}, True), ({}, False), ({}, True)):
            h = host(impl)
            assert h._select_stale(plans, existing, force) == {"a", "b"}
            assert h._select_stale([], existing, force) == set() and h.log == []

    def test_rows_compared_by_their_own_hashes(self, impl: ModuleType) -> None:
        existing = {"fresh": {"source_hashes": {"a.c": "h1", STEERING_SENTINEL: "s1"}},
                    "edited": {"source_hashes": {"a.c": "old", STEERING_SENTINEL: "s1"}},
                    "parent": {"source_files": ["b.c"], "source_hashes": {"b.c": "h2", STEERING_SENTINEL: "s1"}},
                    "skeleton": {"source_hashes": STALE_MARK}, "no-hashes": {}}  # fmt: skip
        h = host(impl, hashes={"a.c": "h1", "b.c": "h2"})
        plans = [plan("fresh", "a.c"), plan("edited", "a.c"), plan("parent"), plan("skeleton", "a.c"),
                 plan("no-hashes"), plan("new", "a.c")]  # fmt: skip
        assert h._select_stale(plans, existing, False) == {"edited", "skeleton", "no-hashes", "new"}
        assert ("hash+steering", ["b.c"]) in h.log and ("hash+steering", []) in h.log and len(h.log) == 5


class TestSynthesisMarking:
    def test_one_statement_with_sorted_distinct_ids(self, impl: ModuleType) -> None:
        h = host(impl)
        h._mark_synthesis_stale(iter(["b", "a", "b"]))
        sql = "UPDATE wiki_pages SET source_hashes = ? WHERE branch = ? AND page_id IN (?,?)"
        assert h.log == [("execute", sql, ('{"__stale__": "pending"}', "main", "a", "b"))]

    def test_nothing_executed_for_no_ids(self, impl: ModuleType) -> None:
        h = host(impl)
        assert h._mark_synthesis_stale([]) is None and h._mark_synthesis_stale(iter(())) is None
        with pytest.raises(TypeError):
            h._mark_synthesis_stale(["a", 1])
        assert h.log == []


class TestSectionCacheAndChanges:
    BODY = "intro\n## Load\nsee [[src/load.c:1-5]] and [[src/io.c:2-3]]\n## Other\nnone"
    CITATIONS = [{"path": "src/load.c", "line_start": 1, "line_end": 5, "symbol": "load_all"},
                 {"path": "src/io.c", "line_start": 2, "line_end": 3}, {"path": "src/io.c", "line_start": 9, "line_end": 9},
                 {"path": ""}, {"line_start": 1}]  # fmt: skip

    def test_section_cache(self, impl: ModuleType) -> None:
        h = host(impl, hashes={"src/io.c": "h1"})
        cache = h._section_cache(self.BODY, self.CITATIONS)
        assert list(cache) == ["sections", "file_hashes"]
        assert h.log == [("hash", ["src/io.c", "src/load.c"])]
        assert cache["file_hashes"] == {"src/io.c": "h1", "src/load.c": None}
        assert cache["sections"] == impl.section_map(self.BODY, self.CITATIONS, cache["file_hashes"])
        assert cache["sections"][0]["hash"] != impl.section_map(self.BODY, self.CITATIONS, {})[0]["hash"]
        h = host(impl)
        assert h._section_cache("## A", []) == {"sections": impl.section_map("## A", [], {}), "file_hashes": {}}
        assert h.log == [("hash", [])]

    def test_change_report(self, impl: ModuleType) -> None:
        cache = host(impl, hashes={"src/io.c": "h1", "src/load.c": "L"})._section_cache(self.BODY, self.CITATIONS)
        hashes = {"src/io.c": "stale", "own.c": "o", STEERING_SENTINEL: "s", **STALE_MARK}
        row = {"content_hash": "c", "build_cache": cache, "source_hashes": hashes}
        h = host(impl, hashes={"src/io.c": "h2", "own.c": "o", "new.c": "n"})
        report = h._page_changes(plan("p", "./new.c", "own.c"), row)
        assert list(report) == ["changed_files", "stale_sections"]
        assert report["changed_files"] == {"added": ["new.c"], "removed": ["src/load.c"], "modified": ["src/io.c"]}
        assert [s["heading"] for s in report["stale_sections"]] == ["Load"]
        assert h.log == [("hash", ["new.c", "own.c", "src/io.c", "src/load.c"])]

    @pytest.mark.parametrize(
        ("row_hash", "cache_hash", "modified"),
        [("old", "h1", []), ("h1", "old", ["a.c"]), ("h1", None, []), ("old", None, ["a.c"])],
    )
    def test_the_build_cache_hash_wins(
        self, impl: ModuleType, row_hash: str, cache_hash: str | None, modified: list[str]
    ) -> None:
        cache: dict[str, Any] = {"file_hashes": {"a.c": cache_hash}} if cache_hash else {}
        row = {"content_hash": "c", "source_hashes": {"a.c": row_hash}, "build_cache": cache}
        report = host(impl, hashes={"a.c": "h1"})._page_changes(plan("p", "a.c"), row)
        assert report == {"changed_files": {"added": [], "removed": [], "modified": modified}, "stale_sections": []}

    @pytest.mark.parametrize("row", [None, {}, {"content_hash": ""}, {"content_hash": None, "x": 1}])
    def test_never_written_pages_report_nothing(self, impl: ModuleType, row: Any) -> None:
        h = host(impl)
        assert h._page_changes(plan("p", "a.c"), row) == {} and h.log == []

    @pytest.mark.parametrize(("key", "value"), [("source_hashes", "abc"), ("file_hashes", ["a"])])
    def test_recorded_hashes_must_be_mappings(self, impl: ModuleType, key: str, value: Any) -> None:
        row: dict[str, Any] = {"content_hash": "c", "build_cache": {}}
        (row["build_cache"] if key == "file_hashes" else row)[key] = value
        name = type(value).__name__
        with pytest.raises(TypeError, match=rf"^'{name}' object is not a mapping$"):
            host(impl)._page_changes(plan("p"), row)
