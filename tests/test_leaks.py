"""Every native entry point, on its normal and its raising paths, run many
times: the interpreter's allocated blocks must stay flat."""

from __future__ import annotations

import inspect
from collections.abc import Callable
from types import ModuleType
from typing import Any

import pytest

from .leakcheck import TOLERANCE, growth



def raising(*args: Any, **kwargs: Any) -> Any:
    raise RuntimeError("collaborator failed")


def pin_inputs() -> tuple[list[Any], dict[str, Any], set[str]]:
    from malde_ostrel.workers.wiki.types import PagePlan

    existing = {
        "module-a": {"page_id": "module-a", "source_files": ["a.c"]},
        "module-gone": {"page_id": "module-gone", "source_files": ["gone.c"]},
        "P": {"page_id": "P", "related_pages": ["P-a", "P-b"]},
        "P-a": {"page_id": "P-a", "source_files": ["pa.c"]},
        "P-b": {"page_id": "P-b", "source_files": ["pb.c"]},
        "Q": {"page_id": "Q", "related_pages": ["Q-a"]},
        "Q-a": {"page_id": "Q-a", "source_files": ["qa.c"]},
        "custom-old": {"page_id": "custom-old", "level": "guide"},
        "module-additional": {"page_id": "module-additional", "source_files": ["x.c"]},
    }
    fresh = [
        PagePlan(page_id="module-a", source_files=["a.c", "a2.c", "a3.c"]),
        PagePlan(page_id="module-n", source_files=["n1.c", "n2.c"]),
        PagePlan(page_id="module-one", source_files=["one.c"]),
        PagePlan(page_id="P", children=["P-a", "P-c"]),
        PagePlan(page_id="P-a", source_files=["pa.c"]),
        PagePlan(page_id="P-c", source_files=["pb.c"]),
        PagePlan(page_id="overview", level="overview"),
    ]
    live = {"a.c", "a2.c", "a3.c", "n1.c", "n2.c", "one.c", "pa.c", "pb.c", "qa.c", "x.c", "stray.c"}
    return fresh, existing, live


def probes(m: ModuleType) -> dict[str, Callable[[], Any]]:
    row = {"page_id": "module-additional-2", "title": "T", "source_files": ["b", "a", "gone"]}
    live = {"a", "b"}
    fn = m._plan_from_row
    return {
        "plan_from_row": lambda: fn(row, live),
        "plan_from_row by keyword": lambda: fn(row=row, live_paths=live),
        "plan_from_row missing key": lambda: fn({"title": "x"}, live),
        "plan_from_row bad files": lambda: fn({"page_id": "p", "source_files": 3}, live),
        "plan_from_row bad id": lambda: fn({"page_id": 3, "title": "t"}, live),
        "too many arguments": lambda: fn(row, live, 1),
        "unexpected keyword": lambda: fn(row, live, bogus=1),
        "duplicate argument": lambda: fn(row, row=row),
        "missing arguments": lambda: fn(),
        "signature": lambda: inspect.signature(fn),
        "bound method": lambda: type("C", (dict,), {"f": fn})(page_id="p").f(live),
        "pin_plan": lambda: m.pin_plan(*pin_inputs()),
        "pin_plan replan": lambda: m.pin_plan(*pin_inputs(), replan=True),
        "pin_plan missing page_id": lambda: m.pin_plan([], {"m": {"source_files": ["a"]}}, {"a"}),
        "pin_plan bad children": lambda: m.pin_plan([m.PagePlan(page_id="x", children=3)], {}, set()),
        "pin_plan bad store": lambda: m.pin_plan([], {"p": 3}, set()),
        "pin_plan keyword-only": lambda: m.pin_plan([], {}, set(), True),
        "demote": lambda: m._demote_unrecorded_families(*pin_inputs()[:2]),
        "by_importance": lambda: m._by_importance(pin_inputs()[0]),
        "by_importance bad score": lambda: m._by_importance([m.PagePlan(page_id="a", importance_score="x")]),
    }


PROBES = [
    "plan_from_row", "plan_from_row by keyword", "plan_from_row missing key", "plan_from_row bad files",
    "plan_from_row bad id", "too many arguments", "unexpected keyword", "duplicate argument",
    "missing arguments", "signature", "bound method",
    "pin_plan", "pin_plan replan", "pin_plan missing page_id", "pin_plan bad children", "pin_plan bad store",
    "pin_plan keyword-only", "demote", "by_importance", "by_importance bad score",
]


def test_every_probe_is_run(native: ModuleType) -> None:
    assert sorted(probes(native)) == sorted(PROBES)


@pytest.mark.parametrize("probe", PROBES)
def test_entry_point_does_not_leak(native: ModuleType, probe: str) -> None:
    assert growth(probes(native)[probe]) < TOLERANCE


@pytest.mark.parametrize("name", [
    "unit_topic", "PagePlan", "_CATCH_ALL_RE", "amend", "carry_superseded", "inherit_prose",
    "keep_agent_titles", "link_families", "ReplanRemap", "_plan_from_row", "_by_importance",
    "_demote_unrecorded_families",
])
def test_failing_collaborators_do_not_leak(native: ModuleType, monkeypatch: pytest.MonkeyPatch,
                                           name: str) -> None:
    monkeypatch.setattr(native, name, raising if name != "_CATCH_ALL_RE" else None)
    row = {"page_id": "p", "source_files": ["a"]}

    def run() -> None:
        try:
            native._plan_from_row(row, {"a"})
        finally:
            native.pin_plan(*pin_inputs())

    def replan() -> None:
        native.pin_plan(*pin_inputs(), replan=True)

    assert growth(run, rounds=1000) < TOLERANCE
    assert growth(replan, rounds=1000) < TOLERANCE
    monkeypatch.delattr(native, name)
    assert growth(run, rounds=1000) < TOLERANCE


def store_side_probes(m: ModuleType) -> dict[str, Callable[[], Any]]:
    from contextlib import nullcontext

    from malde_ostrel.workers.wiki.types import PagePlan

    class Db:
        def transaction(self) -> Any:
            return nullcontext()

        def execute(self, sql: str, params: Any) -> None:
            pass

    class Repository:
        db = Db()

        def upsert_wiki_page(self, *args: Any, **kwargs: Any) -> None:
            pass

    class Host(m.PlanRecordMixin):  # type: ignore[name-defined,misc]
        branch = "main"
        repository = Repository()
        _existing: dict[str, Any] = {}

        def _hashes_with_steering(self, files: list[str]) -> dict[str, str]:
            return {f: "h" for f in files}

        def _source_hashes(self, paths: list[str]) -> dict[str, str]:
            return {p: "h" for p in paths}

    host = Host()
    plans = [PagePlan(page_id="module-a", source_files=["a.c"]), PagePlan(page_id="P", children=["x"])]
    existing = {"module-a": {"source_hashes": {"a.c": "old"}}}
    row = {"content_hash": "c", "source_hashes": {"a.c": "old", "__stale__": "pending"},
           "build_cache": {"file_hashes": {"b.c": "x"}, "sections": [{"heading": "H", "files": ["b.c"]}]}}
    body = "## H\n[[b.c:1-2]]"
    citations = [{"path": "b.c", "line_start": 1, "line_end": 2}]
    return {
        "skeleton": lambda: host._persist_plan_skeleton(plans),
        "skeleton failing": lambda: host._persist_plan_skeleton([PagePlan(page_id="module-a", source_files=3)]),
        "select": lambda: host._select_stale(plans, existing, False),
        "select forced": lambda: host._select_stale(plans, existing, True),
        "mark": lambda: host._mark_synthesis_stale(["b", "a"]),
        "mark unorderable": lambda: host._mark_synthesis_stale(["b", 1]),
        "section cache": lambda: host._section_cache(body, citations),
        "changes": lambda: host._page_changes(plans[0], row),
        "changes not a mapping": lambda: host._page_changes(plans[0], {"content_hash": "c", "source_hashes": "x"}),
        "method binding errors": lambda: host._select_stale(plans),
    }


@pytest.mark.parametrize("probe", ["skeleton", "skeleton failing", "select", "select forced", "mark",
                                   "mark unorderable", "section cache", "changes", "changes not a mapping",
                                   "method binding errors"])
def test_store_side_does_not_leak(native: ModuleType, probe: str) -> None:
    assert growth(store_side_probes(native)[probe], rounds=2000) < TOLERANCE


def test_every_injected_fault_leaves_nothing_behind(native: ModuleType) -> None:
    """The hostile cases, each with every collaborator call made to raise in
    turn: repeated, the whole sweep must leave the block count flat."""
    from hypothesis import given, settings

    from .test_hostile import Faults, Run, cases

    collected: list[Any] = []

    @settings(max_examples=150, derandomize=True, database=None, deadline=None)
    @given(case=cases)
    def collect(case: Any) -> None:
        collected.append(case)

    collect()
    sweeps: list[tuple[Any, tuple[str, int, int]]] = []
    for case in collected:
        normal = Run(native, case, Faults())
        sweeps += [(case, (name, k, 0)) for name, n in sorted(normal.faults.counts.items())
                   for k in range(1, n + 1)]
    assert len(sweeps) > 100

    def sweep() -> None:
        for case, target in sweeps:
            Run(native, case, Faults(target))

    assert growth(sweep, rounds=6, warm_up=2) < TOLERANCE
