"""The store side of the plan of record on a recording host: skeleton rows,
stale selection, synthesis marking, the section cache and the change report."""

from __future__ import annotations

import contextlib
import copy
import json
from collections.abc import Iterator
from types import ModuleType
from typing import Any

import pytest
from hypothesis import given
from hypothesis import strategies as st

from malde_ostrel.workers.wiki.steering import STEERING_SENTINEL
from malde_ostrel.workers.wiki.types import PagePlan

from .recording import outcome

STALE_MARK = {"__stale__": "pending"}


class Recorder:
    def __init__(self) -> None:
        self.calls: list[tuple[Any, ...]] = []


class FakeDb:
    def __init__(self, log: Recorder, suppress: bool = False) -> None:
        self.log, self.suppress = log, suppress

    def transaction(self) -> Any:
        log, suppress = self.log, self.suppress

        class Transaction:
            def __enter__(self) -> None:
                log.calls.append(("begin",))

            def __exit__(self, kind: Any, value: Any, tb: Any) -> bool:
                log.calls.append(("end", kind and kind.__name__))
                return suppress

        return Transaction()

    def execute(self, sql: str, params: tuple[Any, ...]) -> None:
        self.log.calls.append(("execute", sql, params))


class FakeRepository:
    def __init__(self, log: Recorder, suppress: bool = False) -> None:
        self.log = log
        self.db = FakeDb(log, suppress)

    def upsert_wiki_page(self, *args: Any, **kwargs: Any) -> None:
        self.log.calls.append(("upsert", args, kwargs))


def host(impl: ModuleType, existing: dict[str, Any] | None = None, suppress: bool = False,
         hashes: dict[str, str] | None = None) -> Any:
    log = Recorder()
    current = dict(hashes or {})

    class Host(impl.PlanRecordMixin):  # type: ignore[name-defined,misc]
        branch = "main"

        def __init__(self) -> None:
            self.log = log
            self.repository = FakeRepository(log, suppress)
            self._existing = existing or {}

        def _hashes_with_steering(self, files: list[str]) -> dict[str, str]:
            log.calls.append(("hash+steering", list(files)))
            return {**{f: current.get(f, "") for f in files}, STEERING_SENTINEL: "s1"}

        def _source_hashes(self, paths: list[str]) -> dict[str, Any]:
            log.calls.append(("hash", list(paths)))
            return {p: current.get(p) for p in paths}

    return Host()


def plan(page_id: str, *files: str, **fields: Any) -> PagePlan:
    return PagePlan(page_id=page_id, source_files=list(files), **fields)


class TestSkeleton:
    def test_rows_written_and_counted(self, impl: ModuleType) -> None:
        h = host(impl, existing={"module-stored": {}})
        plans = [plan("module-a", "a.c", title="A", description="", importance="", related_pages=["x"]),
                 plan("P", children=["P-a", "P-b"], related_pages=["other"], title="P"),
                 plan("custom-faq", "a.c"), plan("overview", "a.c", level="overview"),
                 plan("module-empty"), plan("module-stored", "s.c")]
        assert h._persist_plan_skeleton(plans) == 2
        begin, first, second, end = h.log.calls
        assert begin == ("begin",) and end == ("end", None)
        assert first == ("upsert", ("main", "module-a", "A"), {
            "description": "", "importance": "medium", "level": "module", "parent_section": "Code",
            "rel_path": "pages/module-a.md", "source_files": ["a.c"], "source_hashes": STALE_MARK,
            "related_pages": ["x"], "status": "stale", "page_type": ""})
        assert list(first[2]) == ["description", "importance", "level", "parent_section", "rel_path",
                                  "source_files", "source_hashes", "related_pages", "status", "page_type"]
        assert second[2]["related_pages"] == ["P-a", "P-b"] and second[2]["source_files"] == []
        assert first[2]["source_hashes"] is not second[2]["source_hashes"]

    def test_empty_plan_list_opens_one_transaction(self, impl: ModuleType) -> None:
        h = host(impl)
        assert h._persist_plan_skeleton([]) == 0
        assert h.log.calls == [("begin",), ("end", None)]

    @pytest.mark.parametrize("suppress", [False, True])
    def test_failure_inside_the_loop_exits_the_transaction(self, impl: ModuleType, suppress: bool,
                                                           monkeypatch: pytest.MonkeyPatch) -> None:
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
        assert [c[0] for c in h.log.calls] == ["begin", "upsert", "end"]
        assert h.log.calls[-1] == ("end", "RuntimeError")

    def test_not_a_context_manager(self, native: ModuleType, twin: ModuleType) -> None:
        results = []
        for impl in (native, twin):
            h = host(impl)
            h.repository.db.transaction = lambda: object()
            results.append(outcome(lambda h=h: h._persist_plan_skeleton([])))
        assert results[0] == results[1] and results[0][1] is TypeError


class TestStaleSelection:
    def test_forced_and_empty_store_take_every_page_without_hashing(self, impl: ModuleType) -> None:
        plans = [plan("a", "a.c"), plan("b"), plan("a")]
        for existing, force in (({"a": {}}, True), ({}, False)):
            h = host(impl)
            assert h._select_stale(plans, existing, force) == {"a", "b"}
            assert h.log.calls == []

    def test_rows_compared_by_their_own_hashes(self, impl: ModuleType) -> None:
        current = {"a.c": "h1", "b.c": "h2"}
        existing = {
            "fresh": {"source_hashes": {"a.c": "h1", STEERING_SENTINEL: "s1"}},
            "edited": {"source_hashes": {"a.c": "old", STEERING_SENTINEL: "s1"}},
            "parent": {"source_files": ["b.c"], "source_hashes": {"b.c": "h2", STEERING_SENTINEL: "s1"}},
            "skeleton": {"source_hashes": STALE_MARK},
            "no-hashes": {},
        }
        h = host(impl, hashes=current)
        plans = [plan("fresh", "a.c"), plan("edited", "a.c"), plan("parent"), plan("skeleton", "a.c"),
                 plan("no-hashes"), plan("new", "a.c")]
        assert h._select_stale(plans, existing, False) == {"edited", "skeleton", "no-hashes"} | {"new"}
        assert ("hash+steering", ["b.c"]) in h.log.calls and ("hash+steering", []) in h.log.calls
        assert len(h.log.calls) == 5


class TestSynthesisMarking:
    def test_one_statement_with_sorted_distinct_ids(self, impl: ModuleType) -> None:
        h = host(impl)
        h._mark_synthesis_stale(iter(["b", "a", "b"]))
        (_, sql, params), = h.log.calls
        assert sql == "UPDATE wiki_pages SET source_hashes = ? WHERE branch = ? AND page_id IN (?,?)"
        assert params == ('{"__stale__": "pending"}', "main", "a", "b")

    def test_nothing_executed_for_no_ids_and_unorderable_ids_fail_first(self, impl: ModuleType) -> None:
        h = host(impl)
        assert h._mark_synthesis_stale([]) is None
        with pytest.raises(TypeError):
            h._mark_synthesis_stale(["a", 1])
        assert h.log.calls == []


class TestSectionCacheAndChanges:
    BODY = "intro\n## Load\nsee [[src/load.c:1-5]] and [[src/io.c:2-3]]\n## Other\nnone"
    CITATIONS = [{"path": "src/load.c", "line_start": 1, "line_end": 5, "symbol": "load_all"},
                 {"path": "src/io.c", "line_start": 2, "line_end": 3}, {"path": ""}, {"line_start": 1}]

    def test_section_cache(self, impl: ModuleType) -> None:
        h = host(impl, hashes={"src/io.c": "h1"})
        cache = h._section_cache(self.BODY, self.CITATIONS)
        assert list(cache) == ["sections", "file_hashes"]
        assert h.log.calls == [("hash", ["src/io.c", "src/load.c"])]
        assert cache["file_hashes"] == {"src/io.c": "h1", "src/load.c": None}
        assert [s["heading"] for s in cache["sections"]] == ["Load", "Other"]
        assert cache["sections"][0]["files"] == ["src/io.c", "src/load.c"]

    def test_change_report(self, impl: ModuleType) -> None:
        h = host(impl, hashes={"src/io.c": "h1", "src/load.c": "L"})
        cache = h._section_cache(self.BODY, self.CITATIONS)
        row = {"content_hash": "c", "build_cache": cache,
               "source_hashes": {"src/io.c": "stale", "own.c": "o", STEERING_SENTINEL: "s", **STALE_MARK}}
        h = host(impl, hashes={"src/io.c": "h2", "own.c": "o", "new.c": "n"})
        report = h._page_changes(plan("p", "./new.c", "own.c"), row)
        assert list(report) == ["changed_files", "stale_sections"]
        assert report["changed_files"] == {"added": ["new.c"], "removed": ["src/load.c"], "modified": ["src/io.c"]}
        assert [s["heading"] for s in report["stale_sections"]] == ["Load"]
        assert h.log.calls == [("hash", ["new.c", "own.c", "src/io.c", "src/load.c"])]

    @pytest.mark.parametrize("row", [None, {}, {"content_hash": ""}, {"content_hash": None, "x": 1}])
    def test_never_written_pages_report_nothing(self, impl: ModuleType, row: Any) -> None:
        h = host(impl)
        assert h._page_changes(plan("p", "a.c"), row) == {}
        assert h.log.calls == []

    @pytest.mark.parametrize("key", ["source_hashes", "file_hashes"])
    def test_recorded_hashes_must_be_mappings(self, impl: ModuleType, key: str) -> None:
        row: dict[str, Any] = {"content_hash": "c", "build_cache": {}}
        if key == "source_hashes":
            row["source_hashes"] = "abc"
        else:
            row["build_cache"] = {"file_hashes": ["a"]}
        with pytest.raises(TypeError, match=r"^'(str|list)' object is not a mapping$"):
            host(impl)._page_changes(plan("p"), row)


# -- native and twin agree ---------------------------------------------------

PATHS = ["a.c", "b.c", "d/c.c", "./a.c"]
hash_maps = st.dictionaries(st.sampled_from([*PATHS, STEERING_SENTINEL, "__stale__"]),
                            st.sampled_from(["h1", "h2", "pending"]), max_size=4)
rows = st.fixed_dictionaries({}, optional={
    "source_files": st.lists(st.sampled_from(PATHS), max_size=3),
    "source_hashes": st.one_of(hash_maps, st.none()),
    "content_hash": st.sampled_from(["", "c", None]),
    "build_cache": st.one_of(st.none(), st.fixed_dictionaries({}, optional={
        "file_hashes": hash_maps,
        "sections": st.lists(st.fixed_dictionaries({"heading": st.just("H"),
                                                    "files": st.lists(st.sampled_from(PATHS))}), max_size=2)})),
})
plans_strategy = st.lists(st.builds(
    lambda pid, level, files, kids: PagePlan(page_id=pid, level=level, source_files=files, children=kids),
    st.sampled_from(["module-a", "module-b", "custom-c", "P"]), st.sampled_from(["module", "overview"]),
    st.lists(st.sampled_from(PATHS), max_size=3), st.lists(st.sampled_from(["x", "y"]), max_size=2)), max_size=5)


def store_side_run(impl: ModuleType, plans: list[PagePlan], existing: dict[str, Any],
                   current: dict[str, str], force: bool) -> Any:
    plans, existing = copy.deepcopy((plans, existing))
    results = []
    for action in (
        lambda h: h._persist_plan_skeleton(plans),
        lambda h: h._select_stale(plans, existing, force),
        lambda h: [h._page_changes(p, existing.get(p.page_id)) for p in plans],
    ):
        h = host(impl, existing=existing, hashes=current)
        results.append((outcome(lambda: action(h)), h.log.calls))
    return results


@given(plans=plans_strategy, existing=st.dictionaries(st.sampled_from(["module-a", "module-b", "P"]), rows),
       current=st.dictionaries(st.sampled_from(PATHS), st.sampled_from(["h1", "h2"])), force=st.booleans())
def test_native_and_twin_agree(native: ModuleType, twin: ModuleType, plans: list[PagePlan],
                               existing: dict[str, Any], current: dict[str, str], force: bool) -> None:
    assert store_side_run(native, plans, existing, current, force) == store_side_run(twin, plans, existing, current, force)
