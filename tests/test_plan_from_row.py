"""Rebuilding a plan from a stored row: live files, fallbacks, the generated
description, the catch-all flag, evaluation order and error propagation."""

from __future__ import annotations

from types import ModuleType
from typing import Any

import pytest
from hypothesis import given
from hypothesis import strategies as st

from .recording import fields, outcome, record


class TestFields:
    def test_full_row_is_copied_and_files_filtered_and_sorted(self, impl: ModuleType) -> None:
        row = {
            "page_id": "module-core", "title": "Core", "level": "package", "importance": "high",
            "description": "The core.", "page_type": "code", "source_files": ["b.c", "gone.c", "a.c", "b.c"],
            "related_pages": ["x"], "status": "fresh", "source_hashes": {"a.c": "1"},
        }
        plan = impl._plan_from_row(row, {"a.c", "b.c"})
        assert (plan.page_id, plan.title, plan.level, plan.importance, plan.description, plan.type) == (
            "module-core", "Core", "package", "high", "The core.", "code")
        assert plan.source_files == ["a.c", "b.c", "b.c"]
        assert plan.children == [] and plan.related_pages == [] and plan.parent_section is None
        assert plan.catch_all is False
        assert row["source_files"] == ["b.c", "gone.c", "a.c", "b.c"]

    @pytest.mark.parametrize("files", [None, [], "absent"])
    def test_no_files_and_empty_fallbacks(self, impl: ModuleType, files: Any) -> None:
        row: dict[str, Any] = {"page_id": "p", "title": "", "level": None, "importance": "",
                               "page_type": None, "description": ""}
        if files != "absent":
            row["source_files"] = files
        plan = impl._plan_from_row(row, {"a"})
        assert (plan.title, plan.level, plan.importance, plan.type) == ("p", "module", "medium", "")
        assert plan.description == "The p page (0 files)." and plan.source_files == []

    def test_description_counts_live_files_and_uses_formatted_title(
            self, impl: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
        monkeypatch.setattr(impl, "unit_topic", lambda title, files: None)
        plan = impl._plan_from_row({"page_id": "p", "title": "Parser", "source_files": ["a", "b", "c", "d"]},
                                   {"a", "b", "c"})
        assert plan.description == "The Parser page (3 files)."
        plan = impl._plan_from_row({"page_id": "p", "title": 7}, set())
        assert (plan.title, plan.description) == (7, "The 7 page (0 files).")

    @pytest.mark.parametrize(("page_id", "expected"), [
        ("module-additional", True), ("module-additional-4", True), ("module-additional-\u0664", True),
        ("module-additional\n", True), ("module-additional-x", False), ("module-core", False),
        ("module-additional-", False), ("module-additional-4\n\n", False),
    ])
    def test_catch_all_flag_is_a_bool(self, impl: ModuleType, page_id: str, expected: bool) -> None:
        assert impl._plan_from_row({"page_id": page_id}, set()).catch_all is expected

    def test_catch_all_on_text_subclass_and_custom_mapping(self, impl: ModuleType) -> None:
        class Id(str):
            pass

        class Row(dict[str, Any]):
            def get(self, key: str, default: Any = None) -> Any:
                return super().get(key, default)

        plan = impl._plan_from_row(Row(page_id=Id("module-additional-2")), set())
        assert plan.catch_all is True


class TestOrderAndCollaborators:
    def test_topic_after_description_and_plan_built_by_name(self, impl: ModuleType,
                                                             monkeypatch: pytest.MonkeyPatch) -> None:
        log = record(impl, monkeypatch, "unit_topic", "PagePlan")
        impl._plan_from_row({"page_id": "p", "source_files": ["b", "a"]}, {"a", "b"})
        (name1, args1, kw1), (name2, args2, kw2) = log.calls
        assert (name1, args1, kw1) == ("unit_topic", ("p", ["a", "b"]), {})
        assert name2 == "PagePlan" and args2 == ()
        assert list(kw2) == ["page_id", "title", "level", "importance", "description", "topic",
                             "source_files", "catch_all", "type"]
        assert kw2["source_files"] is args1[1]

    def test_row_reads_in_order(self, impl: ModuleType) -> None:
        reads: list[tuple[Any, ...]] = []

        class Row(dict[str, Any]):
            def get(self, *args: Any) -> Any:
                reads.append(("get", *args))
                return super().get(*args)

            def __getitem__(self, key: str) -> Any:
                reads.append(("item", key))
                return super().__getitem__(key)

        impl._plan_from_row(Row(page_id="p"), set())
        assert reads == [("get", "source_files"), ("get", "title"), ("item", "page_id"),
                         ("item", "page_id"), ("get", "level"), ("get", "importance"),
                         ("get", "description"), ("get", "page_id", ""), ("get", "page_type")]


class TestErrors:
    def test_missing_page_id(self, impl: ModuleType) -> None:
        with pytest.raises(KeyError, match="page_id"):
            impl._plan_from_row({"title": "T"}, set())
        with pytest.raises(KeyError, match="page_id"):
            impl._plan_from_row({}, set())

    @pytest.mark.parametrize(("row", "live", "error"), [
        ({"page_id": "p", "source_files": 5}, set(), TypeError),
        ({"page_id": "p", "source_files": [[1]]}, set(), TypeError),
        ({"page_id": b"module-additional"}, set(), TypeError),
        ({"page_id": 3, "title": "t"}, set(), TypeError),
        ("not a mapping", set(), AttributeError),
        ({"page_id": "p", "source_files": ["a", 1]}, {"a", 1}, TypeError),
    ])
    def test_bad_values_propagate(self, impl: ModuleType, row: Any, live: Any, error: type) -> None:
        with pytest.raises(error):
            impl._plan_from_row(row, live)

    def test_collaborator_errors_propagate(self, impl: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
        def broken(*args: Any, **kwargs: Any) -> Any:
            raise RuntimeError("planner down")

        for name in ("unit_topic", "PagePlan"):
            with monkeypatch.context() as patch:
                patch.setattr(impl, name, broken)
                with pytest.raises(RuntimeError, match="planner down"):
                    impl._plan_from_row({"page_id": "p"}, set())


texts = st.text(alphabet="ab-/.\n0123456789", max_size=8)
values = st.one_of(st.none(), st.just(""), texts, st.integers(0, 3))
rows = st.fixed_dictionaries(
    {"page_id": st.one_of(texts, st.sampled_from(["module-additional", "module-additional-3"]))},
    optional={"title": values, "level": values, "importance": values, "description": values,
              "page_type": values,
              "source_files": st.one_of(st.none(), st.lists(texts, max_size=6))},
)


@given(row=rows, live=st.sets(texts, max_size=6))
def test_native_and_twin_agree(native: ModuleType, twin: ModuleType, row: dict[str, Any],
                               live: set[str]) -> None:
    results = []
    for module in (native, twin):
        with pytest.MonkeyPatch.context() as patch:
            log = record(module, patch, "unit_topic", "PagePlan")
            result = outcome(lambda: fields(module._plan_from_row(dict(row), set(live))))
            results.append((result, log.calls))
    assert results[0] == results[1]
