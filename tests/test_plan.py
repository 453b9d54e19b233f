"""Plans: a plan rebuilt from a stored row, plan pinning (families, pass-through
records, the pinned assembly, new paths, the catch-all page, the replan and
empty-store paths), family demotion and the build order. Every test runs on
the native module and on the twin."""

from __future__ import annotations

import copy
from types import ModuleType
from typing import Any

import pytest

from malde_ostrel.workers.wiki.types import PagePlan

from .records import ids, plan, reasons, row, store


class TestPlanFromRow:
    def test_full_row(self, impl: ModuleType) -> None:
        stored = row("module-core", "b.c", "gone.c", "a.c", "b.c", title="Core", level="package", importance="high")
        stored.update(description="The core.", page_type="code", related_pages=["x"], status="fresh")
        stored["source_hashes"] = {"a.c": "1"}
        before = copy.deepcopy(stored)
        got = impl._plan_from_row(stored, {"a.c", "b.c"})
        assert got == PagePlan(page_id="module-core", title="Core", level="package", importance="high", type="code",
                               description="The core.", source_files=["a.c", "b.c", "b.c"], topic=got.topic)  # fmt: skip
        assert stored == before

    @pytest.mark.parametrize("files", [None, [], "absent"])
    def test_empty_values_take_the_fallbacks(self, impl: ModuleType, files: Any) -> None:
        stored = {"page_id": "p", "title": "", "level": None, "importance": "", "page_type": None}
        if files != "absent":
            stored["source_files"] = files
        got = impl._plan_from_row(stored, {"a"})
        assert got == PagePlan(page_id="p", title="p", description="The p page (0 files).", topic=got.topic)

    def test_description_and_topic_count_live_files_under_the_title(
        self, impl: ModuleType, monkeypatch: pytest.MonkeyPatch
    ) -> None:
        monkeypatch.setattr(impl, "unit_topic", lambda title, files: (title, list(files)))
        got = impl._plan_from_row(row("p", "c", "a", "b", "d", title="Parser"), {"a", "b", "c"})
        assert got.description == "The Parser page (3 files)."
        assert got.topic == ("Parser", ["a", "b", "c"])
        got = impl._plan_from_row({"page_id": "p", "title": 7}, set())
        assert (got.title, got.description, got.topic) == (7, "The 7 page (0 files).", (7, []))

    @pytest.mark.parametrize("suffix", ["", "-4", "-\u0664", "\n", "-x", "-", "-4\n\n", "-core"])
    def test_catch_all_flag(self, impl: ModuleType, suffix: str) -> None:
        got = impl._plan_from_row({"page_id": "module-additional" + suffix}, set()).catch_all
        assert got is (suffix in ("", "-4", "-\u0664", "\n"))


class TestPinnedAssembly:
    def test_worked_example(self, impl: ModuleType) -> None:
        existing = store(row("module-core", "core/a.c", "core/b.c"),
                         row("module-additional", "x.c", title="Other code"))  # fmt: skip
        live = {"core/a.c", "core/b.c", "x.c", "api/h.c", "api/i.c", "tools/t.c"}
        fresh = [plan("module-core", "core/a.c", "core/b.c"), plan("module-api", "api/h.c", "api/i.c"),
                 plan("module-tools", "tools/t.c")]  # fmt: skip
        before = copy.deepcopy((existing, live))
        plans, amendments, remap = impl.pin_plan(fresh, existing, live)
        assert ids(plans) == ["module-core", "module-api", "module-additional"]
        assert plans[0] is fresh[0] and plans[1] is fresh[1]
        assert plans[2] == PagePlan(
            page_id="module-additional", title="Other code", importance="low", type=impl.OTHER_CODE_TYPE,
            description="Remaining modules and files (2 files).", topic="additional modules utilities helpers t.c x.c",
            source_files=["tools/t.c", "x.c"], catch_all=True)  # fmt: skip
        assert reasons(amendments) == [("add", "module-api", "new subsystem (2 files)")]
        assert dict(remap) == {} and remap.merged == {}
        assert (existing, live) == before

    def test_kept_rebuilt_retired_and_fresh_under_a_stored_id(self, impl: ModuleType) -> None:
        existing = store(*(row(f"module-{d}", f"{d}/1.c") for d in "abc"), row("module-d", "gone.c"))
        live = {"a/1.c", "c/1.c", "c/2.c", "c/3.c", "d/1.c", "x/stray.c"}
        fresh = [plan("module-c", "c/1.c", "c/2.c", "c/3.c"), plan("module-d", "d/1.c")]
        plans, amendments, _ = impl.pin_plan(fresh, existing, live)
        by_id = {p.page_id: p for p in plans}
        assert sorted(by_id) == ["module-a", "module-additional", "module-c", "module-d"]
        # A live path that no plan holds goes to a new catch-all page.
        stray = by_id["module-additional"]
        assert (stray.title, stray.source_files) == ("Other code", ["x/stray.c"])
        assert by_id["module-a"].source_files == ["a/1.c"] and by_id["module-a"] not in fresh
        assert by_id["module-c"] is fresh[0] and fresh[0].source_files == ["c/1.c", "c/2.c", "c/3.c"]
        assert by_id["module-d"] is fresh[1]
        assert reasons(amendments) == [("retire", "module-b", "all source files gone")]

    def test_a_second_plan_under_a_kept_id_extends_it(self, impl: ModuleType) -> None:
        # Two fresh plans share the stored id: the later one is the kept page,
        # the earlier one's new files are absorbed into it.
        existing = store(row("module-a", "a/1.c"), row("module-z", "z.c"))
        live = {"a/1.c", "a/2.c", "a/3.c", "z.c"}
        fresh = [plan("module-a", "a/1.c", "a/2.c", "a/3.c", title="early"), plan("module-a", "a/1.c", title="late")]
        plans, amendments, _ = impl.pin_plan(fresh, existing, live)
        assert ids(plans) == ["module-a", "module-z"]
        assert plans[0] is fresh[1] and fresh[1].source_files == ["a/1.c", "a/2.c", "a/3.c"]
        assert reasons(amendments) == [("extend", "module-a", "2 new source file(s) absorbed")]
        # A fresh catch-all plan under the stored id does not replace the stored page.
        plans, amendments, _ = impl.pin_plan([plan("module-a", "a/2.c", "a/3.c", catch_all=True)], existing, live)
        assert ids(plans) == ["module-a", "module-z", "module-additional"] and amendments == []
        assert (plans[0].source_files, plans[2].source_files) == (["a/1.c"], ["a/2.c", "a/3.c"])

    def test_new_page_ids_are_kept_once(self, impl: ModuleType) -> None:
        existing = store(row("module-old", "old.c"))
        live = {"old.c", "n/1.c", "n/2.c", "n/3.c", "n/4.c", "n/5.c"}
        fresh = [plan("module-old", "old.c"), plan("module-n", "n/2.c", "n/1.c"),
                 plan("module-n", "n/3.c", "n/4.c", "n/1.c"), plan("module-m", "n/4.c", "n/5.c")]  # fmt: skip
        plans, amendments, _ = impl.pin_plan(fresh, existing, live)
        assert ids(plans) == ["module-old", "module-n", "module-additional"]
        assert plans[1] is fresh[1] and fresh[1].source_files == ["n/1.c", "n/2.c", "n/3.c", "n/4.c"]
        assert plans[2].source_files == ["n/5.c"]
        assert reasons(amendments) == [("add", "module-n", "new subsystem (2 files)"),
                                       ("extend", "module-n", "2 new source file(s) absorbed")]  # fmt: skip

    @pytest.mark.parametrize(("count", "catch_all"), [(1, False), (2, False), (3, True)])
    def test_new_paths_make_a_page_from_two_files(self, impl: ModuleType, count: int, catch_all: bool) -> None:
        new_files = [f"n/{i}.c" for i in range(count, 0, -1)]
        fresh = [plan("module-old", "old.c"), plan("module-n", "old.c", *new_files, catch_all=catch_all)]
        plans, amendments, _ = impl.pin_plan(fresh, store(row("module-old", "old.c")), {"old.c", *new_files})
        made = count == 2 and not catch_all
        assert ids(plans) == ["module-old", "module-n" if made else "module-additional"]
        assert reasons(amendments) == ([("add", "module-n", "new subsystem (2 files)")] if made else [])
        assert plans[-1].source_files == sorted(new_files)

    def test_stored_catch_all_kept_and_retired(self, impl: ModuleType) -> None:
        files = [f"d{i}/f{i:02}.c" for i in range(14)]
        existing = store(row("module-core", "c.c"), row("module-additional-2", *files, title="Misc"))
        # Its files stay its own even when a fresh plan holds two of them.
        fresh = [plan("module-core", "c.c"), plan("module-n", *files[:2])]
        plans, amendments, _ = impl.pin_plan(fresh, existing, {"c.c", *files})
        assert ids(plans) == ["module-core", "module-additional-2"]
        misc = plans[-1]
        assert (misc.page_id, misc.title, misc.level, misc.importance) == ("module-additional-2", "Misc", "module",
                                                                           "low")  # fmt: skip
        assert misc.description == "Remaining modules and files (14 files)." and amendments == []
        assert misc.topic.split()[4:] == [path.split("/")[1] for path in sorted(files)[:12]]
        existing["module-additional-2"]["source_files"] = ["gone.c"]
        plans, amendments, _ = impl.pin_plan([plan("module-core", "c.c")], existing, {"c.c"})
        assert ids(plans) == ["module-core"]
        assert reasons(amendments) == [("retire", "module-additional-2", "catch-all has no remaining files")]

    def test_code_pages_last_by_score(self, impl: ModuleType) -> None:
        existing = store(row("module-a", "a.c"), row("module-b", "b.c"))
        fresh = [plan("module-a", "a.c", importance_score=0.2), plan("overview", level="overview"),
                 plan("module-b", "b.c", importance_score=0.9)]  # fmt: skip
        plans, amendments, _ = impl.pin_plan(fresh, existing, {"a.c", "b.c"})
        assert ids(plans) == ["overview", "module-b", "module-a"]
        assert reasons(amendments) == [("add", "overview", "new overview page")]
        assert amendments[0]["level"] == "overview"
        scored = [plan("c", importance_score=1), plan("n", level="overview", importance_score=5),
                  plan("d", importance_score=3)]  # fmt: skip
        assert ids(impl._by_importance(scored)) == ["n", "d", "c"]


class TestFamilies:
    def stored_family(self, *more: dict[str, Any]) -> dict[str, dict[str, Any]]:
        return store(row("P", related_pages=["P-a", "P-b", "missing"]), row("P-a", "a.c"), row("P-b", "b.c"), *more)

    def test_re_chunked_family_carries_superseded_children(self, impl: ModuleType) -> None:
        fresh = [plan("P", children=["P-a", "P-c"]), plan("P-a", "a.c"), plan("P-c", "b.c", "c.c")]
        plans, amendments, remap = impl.pin_plan(fresh, self.stored_family(), {"a.c", "b.c", "c.c"})
        assert ids(plans) == ids(fresh) and remap.merged == {"P-c": ["P-b"]}
        assert reasons(amendments) == [("retire", "P-b", "module re-chunked; superseded child"),
                                       ("add", "P-c", "new module page")]  # fmt: skip

    @pytest.mark.parametrize("beside", [False, True])
    def test_collapsed_family_pins_the_parent_id(self, impl: ModuleType, beside: bool) -> None:
        # With another pinned page the pinned assembly runs: the parent must be kept there too.
        existing = self.stored_family(*([row("module-x", "x.c")] if beside else []))
        fresh = [plan("P", "a.c", "b.c"), *([plan("module-x", "x.c")] if beside else [])]
        plans, amendments, remap = impl.pin_plan(fresh, existing, {"a.c", "b.c", *(["x.c"] if beside else [])})
        assert ids(plans) == ids(fresh) and plans[0] is fresh[0]
        collapsed = "module no longer oversized; decomposition collapsed"
        assert reasons(amendments) == [("retire", kid, collapsed) for kid in ("P-a", "P-b")]
        assert remap.merged == {"P": ["P-a", "P-b"]}

    def test_family_left_alone_is_rebuilt_with_one_list(
        self, impl: ModuleType, monkeypatch: pytest.MonkeyPatch
    ) -> None:
        existing = self.stored_family(
            row("Q", level="package", title="Q t", description="Q d", related_pages=["Q-a"]), row("Q-a", "q.c")
        )
        existing["P"].update(title="", description="", importance="high", page_type="t")
        existing["P-a"]["source_files"] = ["a.c", "gone.c", "a.c"]
        monkeypatch.setattr(impl, "unit_topic", lambda title, files: (title, list(files)))
        plans, amendments, _ = impl.pin_plan([plan("other", "o.c")], existing, {"a.c", "o.c", "q.c"})
        q = next(p for p in plans if p.page_id == "Q")
        assert (q.title, q.description, q.level) == ("Q t", "Q d", "package")
        assert (q.importance, q.children) == ("medium", ["Q-a"])
        parent = next(p for p in plans if p.page_id == "P")
        assert parent.children == ["P-a"] and parent.children is parent.related_pages
        assert (parent.title, parent.description, parent.source_files) == ("P", "The P page.", [])
        assert (parent.level, parent.importance, parent.type) == ("module", "high", "t")
        assert parent.topic == ("P", ["a.c", "gone.c", "a.c"])
        assert ("retire", "P-b", "all source files gone") in reasons(amendments)

    def test_family_with_no_surviving_children_retires(self, impl: ModuleType) -> None:
        _, amendments, _ = impl.pin_plan([plan("other", "o.c")], self.stored_family(), {"o.c"})
        gone = [("retire", kid, "all source files gone") for kid in ("P-a", "P-b")]
        assert reasons(amendments) == [*gone, ("retire", "P", "all decomposed children retired")]

    def test_unrecorded_family_colliding_with_pinned_files_is_demoted(self, impl: ModuleType) -> None:
        existing = store(row("module-src", "s/1.c", "s/2.c"))
        fresh = [plan("module-pkg", children=["module-pkg-a", "module-pkg-b", "absent"], parent_section="Pkg"),
                 plan("module-pkg-a", "s/1.c"), plan("module-pkg-b", "t/1.c")]  # fmt: skip
        result = impl._demote_unrecorded_families(fresh, existing)
        assert result == fresh[1:] and result[0] is fresh[1]
        assert fresh[1].parent_section == fresh[2].parent_section == "Pkg"
        plans, _, _ = impl.pin_plan(fresh, existing, {"s/1.c", "s/2.c", "t/1.c"})
        assert "module-pkg" not in ids(plans)

    @pytest.mark.parametrize("case", ["stored parent", "no collision", "non-code parent", "nothing pinned"])
    def test_family_stays_whole(self, impl: ModuleType, case: str) -> None:
        existing = store(row("module-src", "s/1.c"), row("custom-x", "t/1.c"), row("module-additional", "t/1.c"),
                         row("o", "t/1.c", level="overview"))  # fmt: skip
        parent, part = plan("module-pkg", children=["module-pkg-a"]), plan("module-pkg-a", "s/1.c")
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
        assert all(p is q for p, q in zip(plans, fresh, strict=True))
        assert reasons(amendments) == [("add", "overview", "new overview page"),
                                       ("add", "custom-faq", "new module page")]  # fmt: skip

    def test_steering_and_non_code_retirements(self, impl: ModuleType) -> None:
        # A steering page (custom-old) never heads a stored family.
        existing = store(row("module-a", "a.c"), row("custom-faq", level="guide"), row("overview", level="overview"),
                         row("note-1", level="note"), row("custom-keep", "a.c"), row("custom-kept", "k.c"),
                         row("custom-old", related_pages=["module-a"]))  # fmt: skip
        fresh = [plan("module-a", "a.c"), plan("custom-keep", "a.c"), plan("custom-kept", "k.c", level="guide")]
        plans, amendments, _ = impl.pin_plan(fresh, existing, {"a.c", "k.c"})
        assert reasons(amendments) == [
            ("retire", "custom-faq", "removed from steering"), ("retire", "custom-old", "removed from steering"),
            ("retire", "custom-faq", "guide page no longer planned"),
            ("retire", "overview", "overview page no longer planned")]  # fmt: skip
        assert [a.get("level") for a in amendments] == [None, None, "guide", "overview"]
        assert sorted(ids(plans)) == ["custom-keep", "custom-kept", "module-a"]

    def test_replan_maps_old_pages_and_skips_demotion(self, impl: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
        monkeypatch.setattr(impl, "_demote_unrecorded_families", None)
        existing = store(row("module-old", "a.c", "b.c"))
        fresh = [plan("module-new", "a.c", "b.c"), plan("module-empty"), plan("overview", level="overview")]
        plans, amendments, remap = impl.pin_plan(fresh, existing, {"a.c", "b.c"}, replan=True)
        assert plans == fresh and dict(remap) == {"module-new": "module-old"}
        assert [a["action"] for a in amendments] == ["add", "remap"]

    def test_empty_parent_row_is_retired_in_the_first_phase(self, impl: ModuleType) -> None:
        existing = store(row("module-a", "a.c"), row("module-p", related_pages=["nowhere"]))
        _, amendments, _ = impl.pin_plan([plan("module-a", "a.c")], existing, {"a.c"})
        assert reasons(amendments) == [("retire", "module-p", "decomposition changed; empty parent")]

    def test_missing_page_id_fails_where_it_is_read(self, impl: ModuleType) -> None:
        with pytest.raises(KeyError, match="page_id"):
            impl.pin_plan([plan("module-b", "b.c")], {"module-a": {"source_files": ["a.c"]}}, {"a.c", "b.c"})
        with pytest.raises(TypeError, match=r"takes 3 positional arguments but 4 were given"):
            impl.pin_plan([], {}, set(), True)

    def test_plans_are_partitioned_by_equality(self, impl: ModuleType) -> None:
        class Loud(str):
            def __eq__(self, other: object) -> bool:
                raise RuntimeError("compared")

            __hash__ = str.__hash__

        # The overview plan is compared with the code plan of the same id.
        fresh = [plan("x", title=Loud("t")), plan("x", level="overview")]
        with pytest.raises(RuntimeError, match="compared"):
            impl.pin_plan(fresh, {}, set())
