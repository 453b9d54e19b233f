"""A collaborator that rebinds, renames or mutates what the module reads, at
its first call: the steps after it see the change, as a literal reading of the
steps does."""

from __future__ import annotations

import gc
import re
from collections.abc import Callable
from types import ModuleType
from typing import Any

import pytest

from malde_ostrel.workers.wiki.types import PagePlan

from .records import ids, plan, reasons, row, store


def at_first_call(real: Callable[..., Any], effect: Callable[[], None]) -> Callable[..., Any]:
    calls = []

    def collaborator(*args: Any, **kwargs: Any) -> Any:
        calls.append(args)
        if len(calls) == 1:
            effect()
        return real(*args, **kwargs)

    return collaborator


class Hooked(dict[str, Any]):
    """A stored row whose first read runs `effect`."""

    def __init__(self, effect: Callable[[], None], **fields: Any) -> None:
        super().__init__(fields)
        self.effect: Callable[[], None] | None = effect

    def get(self, key: str, default: Any = None) -> Any:
        if self.effect is not None:
            effect, self.effect = self.effect, None
            effect()
        return super().get(key, default)


class Growing(PagePlan):
    """A plan whose `source_files` setter adds a file to the list it is given."""

    armed = False

    def __setattr__(self, name: str, value: Any) -> None:
        if name == "source_files" and Growing.armed:
            value.append("n/extra.c")
        super().__setattr__(name, value)


class Sweeper(str):
    """A recorded path whose comparison with the steering sentinel rebinds it."""

    module: ModuleType | None = None

    def __eq__(self, other: object) -> bool:
        if Sweeper.module is not None:
            Sweeper.module.STEERING_SENTINEL, Sweeper.module = "later.c", None
        return str.__eq__(self, other)

    __hash__ = str.__hash__


def pinned_levels_in_step_10(m: ModuleType, patch: pytest.MonkeyPatch) -> Any:
    # The first amend (a steering retirement) makes "overview" a code-unit level,
    # so the stored overview is no longer retired as a non-code page.
    widen = lambda: setattr(m, "PINNED_LEVELS", frozenset({"module", "overview"}))  # noqa: E731
    patch.setattr(m, "amend", at_first_call(m.amend, widen))
    existing = {"custom-old": row("custom-old", level="note"), "overview": row("overview", level="overview")}
    _, amendments, _ = m.pin_plan([], existing, set())
    return reasons(amendments), [("retire", "custom-old", "removed from steering")]


def catch_all_pattern_in_demotion(m: ModuleType, patch: pytest.MonkeyPatch) -> Any:
    # Once the pattern no longer matches "module-additional", its file is pinned
    # and the fresh family holding it loses its parent.
    hooked = Hooked(lambda: setattr(m, "_CATCH_ALL_RE", re.compile("^none$")), **row("module-b", "b.c"))
    existing = store(row("module-a", "a.c"), hooked, row("module-additional", "x.c"))
    fresh = [plan("fam", children=["fam-1"], parent_section="S"), plan("fam-1", "x.c")]
    return (ids(m._demote_unrecorded_families(fresh, existing)), fresh[1].parent_section), (["fam-1"], "S")


def pinned_levels_in_demotion(m: ModuleType, patch: pytest.MonkeyPatch) -> Any:
    # Once "package" is no code-unit level, the stored package pins nothing.
    hooked = Hooked(lambda: setattr(m, "PINNED_LEVELS", frozenset({"module"})), **row("module-b", "b.c"))
    existing = store(row("module-a", "a.c"), hooked, row("pkg", "x.c", level="package"))
    fresh = [plan("fam", children=["fam-1"]), plan("fam-1", "x.c")]
    return ids(m._demote_unrecorded_families(fresh, existing)), ["fam", "fam-1"]


def kept_plan_renamed_before_extension(m: ModuleType, patch: pytest.MonkeyPatch) -> Any:
    # amend renames the new page it records; the later plan of the old id then
    # finds no kept plan of that id to extend, and its record is still written.
    fresh = [plan("module-n", "n/1.c", "n/2.c"), plan("module-n", "n/3.c", "n/4.c")]
    patch.setattr(m, "amend", at_first_call(m.amend, lambda: setattr(fresh[0], "page_id", "module-m")))
    live = {"old.c", "n/1.c", "n/2.c", "n/3.c", "n/4.c"}
    plans, amendments, _ = m.pin_plan(fresh, {"module-old": row("module-old", "old.c")}, live)
    got = sorted((p.page_id, tuple(p.source_files)) for p in plans), reasons(amendments)
    extended = [("add", "module-n", "new subsystem (2 files)"), ("extend", "module-n", "2 new source file(s) absorbed")]
    return got, ([("module-m", ("n/1.c", "n/2.c")), ("module-old", ("old.c",))], extended)


def count_after_the_setter(m: ModuleType, patch: pytest.MonkeyPatch) -> Any:
    # The setter grows the list it is given; the reason counts the list as it is then.
    fresh = [plan("module-old", "old.c"), Growing(page_id="module-n", source_files=["n/1.c", "n/2.c"])]
    patch.setattr(Growing, "armed", True)
    plans, amendments, _ = m.pin_plan(fresh, {"module-old": row("module-old", "old.c")}, {"old.c", "n/1.c", "n/2.c"})
    expected = [("add", "module-n", "new subsystem (3 files)")], ["n/1.c", "n/2.c", "n/extra.c"]
    return (reasons(amendments), fresh[1].source_files), expected


def stored_keys_changed_while_walked(m: ModuleType, patch: pytest.MonkeyPatch) -> Any:
    # amend deletes the row being judged and adds another: the walk refuses to go on.
    existing = {"module-empty": row("module-empty"), "module-b": row("module-b", "b.c")}

    def swap() -> None:
        del existing["module-empty"]
        existing["module-new"] = row("module-new", "n.c")

    patch.setattr(m, "amend", at_first_call(m.amend, swap))
    try:
        m.pin_plan([plan("module-b", "b.c")], existing, {"b.c"})
    except RuntimeError as error:
        return str(error), "dictionary keys changed during iteration"
    return "returned", "dictionary keys changed during iteration"


def build_order_list_cleared(m: ModuleType, patch: pytest.MonkeyPatch) -> Any:
    # Reading a level empties every list that holds the plan, the order's own copy included.
    class Clearing(PagePlan):
        def __getattribute__(self, name: str) -> Any:
            if name == "level" and object.__getattribute__(self, "page_id") == "b":
                for holder in gc.get_referrers(self):
                    if isinstance(holder, list):
                        holder.clear()
            return object.__getattribute__(self, name)

    plans = [plan("a", importance_score=0.1), Clearing(page_id="b", importance_score=0.9), plan("c", level="overview")]
    return ids(m._by_importance(list(plans))), ["c", "b", "a"]


def norm_rebound_in_page_changes(m: ModuleType, patch: pytest.MonkeyPatch) -> Any:
    # The first _norm rebinds the name: the next path goes through the new one.
    seen: list[Any] = []
    report = {"removed": [], "modified": []}
    patch.setattr(
        m, "changed_files", lambda stored, current, planned: seen.append((dict(stored), set(planned))) or report
    )
    patch.setattr(m, "_norm", at_first_call(m._norm, lambda: setattr(m, "_norm", lambda p: "N/" + p)))
    row_ = {"content_hash": "c", "source_hashes": {"a.c": "h"}}
    host(m)._page_changes(plan("p", "a.c", "b.c"), row_)
    return seen, [({"a.c": "h"}, {"a.c", "N/b.c"})]


def steering_sentinel_rebound_in_page_changes(m: ModuleType, patch: pytest.MonkeyPatch) -> Any:
    # A recorded path's comparison with the sentinel rebinds it: the next entry is
    # compared with the new sentinel and left out.
    seen: list[Any] = []
    report = {"removed": [], "modified": []}
    patch.setattr(m, "changed_files", lambda stored, current, planned: seen.append(sorted(stored)) or report)
    patch.setattr(m, "STEERING_SENTINEL", m.STEERING_SENTINEL)
    patch.setattr(Sweeper, "module", m)
    row_ = {"content_hash": "c", "source_hashes": {Sweeper("a.c"): "h", "later.c": "h", "b.c": "h"}}
    host(m)._page_changes(plan("p"), row_)
    return seen, [["a.c", "b.c"]]


def member_before_the_plan_compared(m: ModuleType, patch: pytest.MonkeyPatch) -> Any:
    # A member is settled by identity in one step; only the plan that is no
    # member asks the members, and the first of them counts the question.
    class Counting(PagePlan):
        calls = 0

        def __eq__(self, other: object) -> bool:
            Counting.calls += 1
            return self is other

        __hash__ = object.__hash__

    fresh = [Counting(page_id="module-c", source_files=["c.c"]), *(plan(f"module-{i}", f"{i}.c") for i in range(9)),
             plan("overview", level="overview")]  # fmt: skip
    m.pin_plan(fresh, {}, {"c.c", *(f"{i}.c" for i in range(9))})
    return Counting.calls, 1


def host(m: ModuleType) -> Any:
    class Host(m.PlanRecordMixin):  # type: ignore[name-defined,misc]
        def _source_hashes(self, paths: list[str]) -> dict[str, str]:
            return {path: "h" for path in paths}

    return Host()


CASES = [pinned_levels_in_step_10, catch_all_pattern_in_demotion, pinned_levels_in_demotion,
         kept_plan_renamed_before_extension, count_after_the_setter, stored_keys_changed_while_walked,
         build_order_list_cleared, norm_rebound_in_page_changes, steering_sentinel_rebound_in_page_changes,
         member_before_the_plan_compared]  # fmt: skip


@pytest.mark.parametrize("case", CASES, ids=[case.__name__ for case in CASES])
def test_change_at_first_call_is_seen_by_later_steps(
    impl: ModuleType, monkeypatch: pytest.MonkeyPatch, case: Callable[..., Any]
) -> None:
    for name in ("PINNED_LEVELS", "_CATCH_ALL_RE", "_norm", "STEERING_SENTINEL"):
        monkeypatch.setattr(impl, name, getattr(impl, name))  # restored afterwards
    actual, expected = case(impl, monkeypatch)
    assert actual == expected
