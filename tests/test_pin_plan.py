"""Plan pinning end to end: families, pass-through records, the pinned
assembly, the catch-all page, the replan and empty-store paths, error
propagation, and agreement of the native module with the twin."""

from __future__ import annotations

import copy
from types import ModuleType
from typing import Any

import pytest
from hypothesis import given
from hypothesis import strategies as st

from malde_ostrel.workers.wiki.types import PagePlan

from .recording import CallLog, outcome, record
from .snapshots import Snapshotter


def plan(page_id: str, *files: str, level: str = "module", **fields: Any) -> PagePlan:
    return PagePlan(page_id=page_id, level=level, source_files=list(files), **fields)


def row(page_id: str, *files: str, **fields: Any) -> dict[str, Any]:
    return {"page_id": page_id, "level": "module", "source_files": list(files), **fields}


def store(*rows: dict[str, Any]) -> dict[str, dict[str, Any]]:
    return {r["page_id"]: r for r in rows}


def ids(plans: list[PagePlan]) -> list[str]:
    return [p.page_id for p in plans]


def reasons(amendments: list[dict[str, Any]]) -> list[tuple[str, str, str]]:
    return [(a["action"], a["page_id"], a["reason"]) for a in amendments]


class TestPinnedAssembly:
    def test_worked_example(self, impl: ModuleType) -> None:
        existing = store(row("module-core", "core/a.c", "core/b.c"),
                         row("module-additional", "x.c", title="Other code"))
        live = {"core/a.c", "core/b.c", "x.c", "api/h.c", "api/i.c", "tools/t.c"}
        fresh = [plan("module-core", "core/a.c", "core/b.c"), plan("module-api", "api/h.c", "api/i.c"),
                 plan("module-tools", "tools/t.c")]
        before = copy.deepcopy(existing)
        plans, amendments, remap = impl.pin_plan(fresh, existing, live)
        assert ids(plans) == ["module-core", "module-api", "module-additional"]
        assert plans[0] is fresh[0] and plans[1] is fresh[1]
        catch_all = plans[2]
        assert (catch_all.title, catch_all.source_files, catch_all.catch_all) == ("Other code", ["tools/t.c", "x.c"], True)
        assert catch_all.description == "Remaining modules and files (2 files)."
        assert catch_all.topic == "additional modules utilities helpers t.c x.c"
        assert (catch_all.level, catch_all.importance) == ("module", "low")
        assert reasons(amendments) == [("add", "module-api", "new subsystem (2 files)")]
        assert dict(remap) == {} and remap.merged == {}
        assert existing == before and live == {"core/a.c", "core/b.c", "x.c", "api/h.c", "api/i.c", "tools/t.c"}

    def test_kept_pages_files_gone_and_extension(self, impl: ModuleType) -> None:
        existing = store(row("module-a", "a/1.c"), row("module-b", "b/1.c"), row("module-c", "c/1.c"))
        live = {"a/1.c", "c/1.c", "c/2.c", "c/3.c"}
        fresh = [plan("module-c", "c/1.c", "c/2.c", "c/3.c")]
        plans, amendments, _ = impl.pin_plan(fresh, existing, live)
        by_id = {p.page_id: p for p in plans}
        assert sorted(by_id) == ["module-a", "module-c"]
        assert by_id["module-a"].source_files == ["a/1.c"]   # rebuilt from its row
        assert by_id["module-c"] is fresh[0] and fresh[0].source_files == ["c/1.c", "c/2.c", "c/3.c"]
        assert reasons(amendments) == [("retire", "module-b", "all source files gone")]

    def test_extend_adds_files_to_the_kept_page(self, impl: ModuleType) -> None:
        existing = store(row("module-a", "a/1.c"), row("module-z", "z.c"))
        live = {"a/1.c", "a/2.c", "a/3.c", "z.c"}
        # The fresh "module-a" is a catch-all plan, so the stored page is kept
        # as rebuilt and another fresh plan under the same id extends it.
        fresh = [plan("module-a", "a/1.c", catch_all=True), plan("module-a", "a/2.c", "a/3.c")]
        plans, amendments, _ = impl.pin_plan(fresh, existing, live)
        kept = next(p for p in plans if p.page_id == "module-a")
        assert kept is fresh[1] and kept.source_files == ["a/2.c", "a/3.c"]
        assert reasons(amendments) == []
        existing = store(row("module-a", "a/1.c"))
        fresh = [plan("module-a", "a/1.c", "a/2.c", "a/3.c", catch_all=True), plan("module-b", "a/9.c")]
        plans, amendments, _ = impl.pin_plan(fresh, existing, live | {"a/9.c"})
        assert ids(plans) == ["module-a", "module-additional"]
        assert plans[1].source_files == ["a/2.c", "a/3.c", "a/9.c", "z.c"]

    def test_first_fresh_plan_claims_a_new_file(self, impl: ModuleType) -> None:
        existing = store(row("module-old", "old.c"))
        live = {"old.c", "n/1.c", "n/2.c", "n/3.c"}
        fresh = [plan("module-old", "old.c"), plan("module-n1", "n/1.c", "n/2.c"),
                 plan("module-n2", "n/2.c", "n/3.c")]
        plans, amendments, _ = impl.pin_plan(fresh, existing, live)
        assert ids(plans) == ["module-old", "module-n1", "module-additional"]
        assert plans[2].source_files == ["n/3.c"]
        assert reasons(amendments) == [("add", "module-n1", "new subsystem (2 files)")]

    def test_stored_catch_all_kept_and_retired(self, impl: ModuleType) -> None:
        existing = store(row("module-core", "c.c"),
                         row("module-additional-2", *[f"d{i}/f{i:02}.c" for i in range(14)], title="Misc"))
        live = {"c.c", *[f"d{i}/f{i:02}.c" for i in range(14)]}
        plans, amendments, _ = impl.pin_plan([plan("module-core", "c.c")], existing, live)
        misc = plans[-1]
        assert (misc.page_id, misc.title, misc.level, misc.importance) == ("module-additional-2", "Misc", "module", "low")
        assert misc.description == "Remaining modules and files (14 files)."
        first_twelve = sorted(f"d{i}/f{i:02}.c" for i in range(14))[:12]
        assert misc.topic.split()[4:] == [path.split("/")[1] for path in first_twelve]
        existing["module-additional-2"]["source_files"] = ["gone.c"]
        plans, amendments, _ = impl.pin_plan([plan("module-core", "c.c")], existing, {"c.c"})
        assert ids(plans) == ["module-core"]
        assert reasons(amendments) == [("retire", "module-additional-2", "catch-all has no remaining files")]

    def test_build_order_puts_code_pages_last_by_score(self, impl: ModuleType) -> None:
        existing = store(row("module-a", "a.c"), row("module-b", "b.c"))
        fresh = [plan("module-a", "a.c", importance_score=0.2), plan("overview", level="overview"),
                 plan("module-b", "b.c", importance_score=0.9)]
        plans, amendments, _ = impl.pin_plan(fresh, existing, {"a.c", "b.c"})
        assert ids(plans) == ["overview", "module-b", "module-a"]
        assert reasons(amendments) == [("add", "overview", "new overview page")]
        assert amendments[0]["level"] == "overview"


class TestFamilies:
    def stored_family(self) -> dict[str, dict[str, Any]]:
        return store(row("P", related_pages=["P-a", "P-b", "missing"]), row("P-a", "a.c"), row("P-b", "b.c"))

    def test_re_chunked_family_carries_superseded_children(self, impl: ModuleType,
                                                           monkeypatch: pytest.MonkeyPatch) -> None:
        log = record(impl, monkeypatch, "carry_superseded")
        fresh = [plan("P", children=["P-a", "P-c"]), plan("P-a", "a.c"), plan("P-c", "b.c", "c.c")]
        plans, amendments, remap = impl.pin_plan(fresh, self.stored_family(), {"a.c", "b.c", "c.c"})
        (_, args, _), = log.calls
        assert args[1] == "P-b" and args[5] == "module re-chunked; superseded child"
        assert args[3] == [fresh[1], fresh[2]]
        assert remap.merged == {"P-c": ["P-b"]}
        assert ids(plans) == ids(fresh)
        assert reasons(amendments)[1:] == [("add", "P-c", "new module page")]

    def test_collapsed_family_pins_the_parent_id(self, impl: ModuleType) -> None:
        fresh = [plan("P", "a.c", "b.c")]
        plans, amendments, remap = impl.pin_plan(fresh, self.stored_family(), {"a.c", "b.c"})
        assert plans == [fresh[0]]
        assert reasons(amendments) == [
            ("retire", "P-a", "module no longer oversized; decomposition collapsed"),
            ("retire", "P-b", "module no longer oversized; decomposition collapsed")]
        assert remap.merged == {"P": ["P-a", "P-b"]}

    def test_family_left_alone_is_rebuilt_with_one_list(self, impl: ModuleType) -> None:
        existing = self.stored_family()
        existing["P"].update(title="", description="", importance="high")
        plans, amendments, _ = impl.pin_plan([plan("other", "o.c")], existing, {"a.c", "o.c"})
        parent = next(p for p in plans if p.page_id == "P")
        assert parent.children == ["P-a"] and parent.children is parent.related_pages
        assert (parent.title, parent.description, parent.source_files) == ("P", "The P page.", [])
        assert parent.importance == "high"
        assert ("retire", "P-b", "all source files gone") in reasons(amendments)

    def test_family_with_no_surviving_children_retires(self, impl: ModuleType) -> None:
        plans, amendments, _ = impl.pin_plan([plan("other", "o.c")], self.stored_family(), {"o.c"})
        assert reasons(amendments) == [("retire", "P-a", "all source files gone"),
                                       ("retire", "P-b", "all source files gone"),
                                       ("retire", "P", "all decomposed children retired")]

    def test_unrecorded_family_colliding_with_pinned_files_is_demoted(self, impl: ModuleType) -> None:
        existing = store(row("module-src", "s/1.c", "s/2.c"))
        fresh = [plan("module-pkg", children=["module-pkg-a", "module-pkg-b", "absent"], parent_section="Pkg"),
                 plan("module-pkg-a", "s/1.c"), plan("module-pkg-b", "t/1.c")]
        result = impl._demote_unrecorded_families(fresh, existing)
        assert result == fresh[1:] and result[0] is fresh[1]
        assert fresh[1].parent_section == fresh[2].parent_section == "Pkg"

    @pytest.mark.parametrize("case", ["stored parent", "no collision", "non-code parent", "nothing pinned"])
    def test_family_stays_whole(self, impl: ModuleType, case: str) -> None:
        existing = store(row("module-src", "s/1.c"), row("custom-x", "t/1.c"), row("module-additional", "t/1.c"))
        parent = plan("module-pkg", children=["module-pkg-a"])
        part = plan("module-pkg-a", "s/1.c")
        if case == "stored parent":
            existing["module-pkg"] = row("module-pkg", "s/9.c")
        elif case == "no collision":
            part.source_files = ["t/1.c"]
        elif case == "non-code parent":
            parent.level = "overview"
        else:
            del existing["module-src"]
        fresh = [parent, part]
        result = impl._demote_unrecorded_families(fresh, existing)
        assert result == fresh and part.parent_section is None
        assert (result is fresh) == (case == "nothing pinned")


class TestPassThroughAndPaths:
    def test_empty_store_returns_the_fresh_plan(self, impl: ModuleType) -> None:
        fresh = [plan("module-a", "a.c"), plan("overview", level="overview"), plan("custom-faq", "a.c")]
        plans, amendments, _ = impl.pin_plan(fresh, {}, {"a.c"})
        assert plans == fresh and all(p is q for p, q in zip(plans, fresh))
        assert reasons(amendments) == [("add", "overview", "new overview page"),
                                       ("add", "custom-faq", "new module page")]

    def test_steering_and_non_code_retirements(self, impl: ModuleType) -> None:
        existing = store(row("module-a", "a.c"), row("custom-faq", level="guide"),
                         row("overview", level="overview"), row("note-1", level="note"),
                         row("custom-keep", "a.c"))
        fresh = [plan("module-a", "a.c"), plan("custom-keep", "a.c")]
        _, amendments, _ = impl.pin_plan(fresh, existing, {"a.c"})
        assert reasons(amendments) == [("retire", "custom-faq", "removed from steering"),
                                       ("retire", "custom-faq", "guide page no longer planned"),
                                       ("retire", "overview", "overview page no longer planned")]

    def test_replan_maps_old_pages_and_skips_demotion(self, impl: ModuleType,
                                                      monkeypatch: pytest.MonkeyPatch) -> None:
        log = record(impl, monkeypatch, "_demote_unrecorded_families", "inherit_prose")
        existing = store(row("module-old", "a.c", "b.c"))
        fresh = [plan("module-new", "a.c", "b.c"), plan("module-old-gone", level="overview")]
        plans, amendments, remap = impl.pin_plan(fresh, existing, {"a.c", "b.c"}, replan=True)
        assert log.names() == ["inherit_prose"]
        assert plans == fresh and dict(remap) == {"module-new": "module-old"}
        assert [a["action"] for a in amendments] == ["add", "remap"]

    def test_empty_parent_row_is_retired_in_the_first_phase(self, impl: ModuleType) -> None:
        existing = store(row("module-a", "a.c"), row("module-p", related_pages=["nowhere"]))
        _, amendments, _ = impl.pin_plan([plan("module-a", "a.c")], existing, {"a.c"})
        assert reasons(amendments) == [("retire", "module-p", "decomposition changed; empty parent")]


class TestErrors:
    def test_collaborator_failure_returns_nothing(self, impl: ModuleType,
                                                  monkeypatch: pytest.MonkeyPatch) -> None:
        calls: list[str] = []

        def failing(*args: Any, **kwargs: Any) -> Any:
            calls.append(args[0])
            raise RuntimeError("store gone")

        monkeypatch.setattr(impl, "amend", failing)
        existing = store(row("module-a", "a.c"), row("module-b", "b.c"))
        with pytest.raises(RuntimeError, match="store gone"):
            impl.pin_plan([plan("module-a", "a.c")], existing, {"a.c"})
        assert calls == ["retire"]

    def test_missing_page_id_where_it_is_read(self, impl: ModuleType) -> None:
        existing = {"module-a": {"level": "module", "source_files": ["a.c"]}}
        with pytest.raises(KeyError, match="page_id"):
            impl.pin_plan([plan("module-b", "b.c")], existing, {"a.c", "b.c"})
        existing = {"module-additional": {"page_id": "module-additional", "source_files": ["x.c"]}}
        plans, _, _ = impl.pin_plan([plan("module-b", "b.c")], existing, {"b.c"})
        assert ids(plans) == ["module-additional"]

    @pytest.mark.parametrize("bad", [
        ([1], {}, set()), ([plan("m", children=5)], {}, set()),
        ([], {"p": {"related_pages": 3}}, set()), ([], {3: {}}, set()), ([], [], set()),
    ])
    def test_bad_values_raise_the_same_error(self, native: ModuleType, twin: ModuleType, bad: Any) -> None:
        results = [outcome(lambda m=m: m.pin_plan(*copy.deepcopy(bad))) for m in (native, twin)]
        assert results[0] == results[1] and results[0][0] == "raised"

    def test_replan_is_keyword_only(self, impl: ModuleType) -> None:
        with pytest.raises(TypeError, match=r"^pin_plan\(\) takes 3 positional arguments but 4 were given$"):
            impl.pin_plan([], {}, set(), True)


# -- native and twin agree on random inputs ---------------------------------

IDS = ["module-a", "module-b", "module-c", "P", "P-a", "P-b", "custom-x", "overview",
       "module-additional", "module-additional-2", "note-1"]
PATHS = ["a.c", "b.c", "c.c", "d/e.c", "d/f.c", "g.c", "h/i.c"]
LEVELS = ["module", "package", "overview", "note"]

row_values = st.fixed_dictionaries(
    {},
    optional={
        "page_id": st.sampled_from(IDS),
        "title": st.sampled_from(["", "T", None]),
        "level": st.sampled_from([*LEVELS, "", None]),
        "source_files": st.one_of(st.none(), st.lists(st.sampled_from(PATHS), max_size=4)),
        "related_pages": st.one_of(st.none(), st.lists(st.sampled_from(IDS), max_size=3)),
        "description": st.sampled_from(["", "D"]),
        "page_type": st.sampled_from(["", "code"]),
    },
)


@st.composite
def stores(draw: st.DrawFn) -> dict[str, dict[str, Any]]:
    keys = draw(st.lists(st.sampled_from(IDS), unique=True, max_size=7))
    result = {}
    for key in keys:
        r = draw(row_values)
        if draw(st.booleans()):
            r["page_id"] = key
        result[key] = r
    return result


fresh_plan = st.builds(
    lambda page_id, level, files, children, catch_all, score, section: PagePlan(
        page_id=page_id, level=level, source_files=files, children=children, catch_all=catch_all,
        importance_score=score, parent_section=section),
    st.sampled_from(IDS), st.sampled_from(LEVELS), st.lists(st.sampled_from(PATHS), max_size=4),
    st.one_of(st.just([]), st.lists(st.sampled_from(IDS), max_size=3)), st.booleans(),
    st.sampled_from([0.0, 0.5, 1.0]), st.sampled_from([None, "S1", "S2"]),
)

COLLABORATORS = ("ReplanRemap", "amend", "carry_superseded", "inherit_prose", "keep_agent_titles",
                 "link_families", "unit_topic", "PagePlan")


def run_recorded(module: ModuleType, fresh: list[PagePlan], existing: dict[str, Any],
                 live: set[str], replan: bool) -> tuple[Any, ...]:
    fresh, existing, live = copy.deepcopy((fresh, existing, live))
    snap = Snapshotter(fresh)
    with pytest.MonkeyPatch.context() as patch:
        log = CallLog()
        for name in COLLABORATORS:
            target = getattr(module, name)

            def recorder(*args: Any, __name: str = name, __target: Any = target, **kwargs: Any) -> Any:
                log.calls.append((__name, snap(args), snap(kwargs)))
                return __target(*args, **kwargs)

            patch.setattr(module, name, recorder)
        result = outcome(lambda: snap(module.pin_plan(fresh, existing, live, replan=replan)))
    return result, log.calls, snap(fresh), snap(existing), sorted(live)


@given(fresh=st.lists(fresh_plan, max_size=7), existing=stores(),
       live=st.sets(st.sampled_from(PATHS)), replan=st.booleans())
def test_native_and_twin_agree(native: ModuleType, twin: ModuleType, fresh: list[PagePlan],
                               existing: dict[str, Any], live: set[str], replan: bool) -> None:
    assert run_recorded(native, fresh, existing, live, replan) == run_recorded(twin, fresh, existing, live, replan)
