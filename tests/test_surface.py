"""The module's surface: names in binding order, constants and patterns,
functions and methods that behave like Python's own, the class, and names
looked up at call time."""

from __future__ import annotations

import inspect
import logging
import pickle
import re
import subprocess
import sys
import types
from types import ModuleType
from typing import Any

import pytest

from malde_ostrel.workers.wiki import page_retirement, steering
from malde_ostrel.workers.wiki.types import PagePlan

BINDING_ORDER = """
annotations json logging re Iterable Sequence datetime Path Any PageRetirementMixin unit_topic
keep_agent_titles ReplanRemap amend carry_superseded inherit_prose _norm _text_hash changed_files
stale_sections STEERING_SENTINEL SteeringMixin PagePlan citation_key link_families section_of
prose_citations NOTE_LEVEL OTHER_CODE_TYPE PINNED_LEVELS logger _MIN_NEW_PAGE_FILES _PLAN_LOG_NAME
_CATCH_ALL_RE _plan_from_row pin_plan _demote_unrecorded_families _by_importance _PLAN_LOG_MAX_LINES
_PLAN_LOG_KEEP_LINES append_plan_log drift_signal PlanRecordMixin _STALE_SENTINEL _SECTION_RE
_sections section_map
""".split()
FUNCTIONS = ["pin_plan", "_demote_unrecorded_families", "_by_importance", "_plan_from_row",
             "append_plan_log", "drift_signal", "_sections", "section_map"]  # fmt: skip
METHODS = ["_persist_plan_skeleton", "_select_stale", "_mark_synthesis_stale", "_section_cache", "_page_changes"]


def test_binding_order(impl: ModuleType) -> None:
    # In a new process: a test that deletes and restores a name moves it.
    code = f"import {impl.__name__} as m; print(*[n for n in vars(m) if not n.startswith('__')])"
    result = subprocess.run([sys.executable, "-P", "-c", code], capture_output=True, text=True, timeout=120)
    assert result.stdout.split() == BINDING_ORDER, result.stderr


def test_constants_and_imports(impl: ModuleType) -> None:
    import __future__

    import datetime
    import json
    import pathlib

    assert impl.annotations is __future__.annotations and impl.json is json and impl.re is re
    assert impl.datetime is datetime.datetime and impl.Path is pathlib.Path and impl.logging is logging
    assert impl.PageRetirementMixin is page_retirement.PageRetirementMixin
    assert (impl._MIN_NEW_PAGE_FILES, impl._PLAN_LOG_NAME, impl._STALE_SENTINEL) == (2, "plan-log.jsonl", "__stale__")
    assert (impl._PLAN_LOG_MAX_LINES, impl._PLAN_LOG_KEEP_LINES) == (2000, 1000)
    assert impl.logger is logging.getLogger(impl.__name__)
    assert impl._CATCH_ALL_RE.flags == impl._SECTION_RE.flags == re.UNICODE
    assert impl.__doc__.startswith("Plan of record: reconcile fresh structural plans")


@pytest.mark.parametrize("name", FUNCTIONS)
def test_functions_look_like_python_functions(impl: ModuleType, name: str) -> None:
    fn = getattr(impl, name)
    assert fn.__name__ == fn.__qualname__ == name and fn.__module__ == impl.__name__
    assert repr(fn).startswith(f"<function {name} at 0x") and fn.__globals__ is vars(impl)
    assert list(fn.__annotations__)[-1] == "return" and fn.__doc__
    assert pickle.loads(pickle.dumps(fn)) is fn


def test_function_binds_as_a_method_and_by_keyword(impl: ModuleType) -> None:
    class Holder(dict[str, Any]):
        rebuild = impl._plan_from_row

    assert Holder.__dict__["rebuild"] is impl._plan_from_row
    holder = Holder(page_id="p", source_files=["x"])
    assert isinstance(holder.rebuild, types.MethodType) and holder.rebuild.__self__ is holder
    assert str(inspect.signature(holder.rebuild)) == "(live_paths: 'set[str]') -> 'PagePlan'"
    assert holder.rebuild({"x"}).source_files == ["x"]
    assert impl._plan_from_row(live_paths={"a"}, row={"page_id": "p", "source_files": ["a"]}).source_files == ["a"]
    with pytest.raises(TypeError, match=r"^append_plan_log\(\) missing 1 required keyword-only argument: 'replan'$"):
        impl.append_plan_log(None, [{}])


def test_mixin_class(impl: ModuleType) -> None:
    cls = impl.PlanRecordMixin
    assert cls.__mro__[1:] == (page_retirement.PageRetirementMixin, steering.SteeringMixin, object)
    assert (cls.__qualname__, cls.__module__, type(cls)) == ("PlanRecordMixin", impl.__name__, type)
    assert cls.__doc__ == "The store side of the plan of record, mixed into ``WikiGenerator``."
    assert cls.__annotations__ == {"branch": "str", "pages_dir": "Path", "_existing": "dict[str, dict[str, Any]]"}
    assert [name for name in vars(cls) if not name.startswith("__")] == METHODS
    for name in METHODS:
        method = vars(cls)[name]
        assert (method.__qualname__, method.__name__) == (f"PlanRecordMixin.{name}", name)
        assert method.__module__ == impl.__name__ and "self" not in method.__annotations__

    host = type("Host", (cls,), {})()
    assert isinstance(host._select_stale, types.MethodType) and host._select_stale([], {}, True) == set()
    missing = r"^PlanRecordMixin._select_stale\(\) missing 1 required positional argument: 'force'$"
    with pytest.raises(TypeError, match=missing):
        host._select_stale([], {})


class TestCallTimeLookup:
    def test_rebound_patterns(self, impl: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
        monkeypatch.setattr(impl, "_CATCH_ALL_RE", re.compile("misc"))
        assert impl._plan_from_row({"page_id": "misc-1"}, set()).catch_all is True
        assert impl._plan_from_row({"page_id": "module-additional"}, set()).catch_all is False
        monkeypatch.setattr(impl, "_SECTION_RE", re.compile(r"# (\w+)"))
        assert impl._sections("# one\n## two") == [("", ""), ("one", "# one\n## two")]

    def test_missing_name_raises_name_error(self, impl: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
        # Steps that build no plan never read the name: the same results without it.
        def unpinned() -> Any:
            modules = [PagePlan(page_id=f"module-{i}", source_files=[f"{i}.c"]) for i in range(10)]
            plans = modules + [PagePlan(page_id=f"o{i}", level="overview") for i in range(10)]
            rows = {"module-1": {"page_id": "module-1", "source_files": ["1.c"]}}
            return impl.pin_plan(plans, {}, set()), impl._demote_unrecorded_families(plans, rows)

        expected = unpinned()
        monkeypatch.delattr(impl, "PagePlan")
        assert unpinned() == expected
        with pytest.raises(NameError, match="^name 'PagePlan' is not defined$") as caught:
            impl._plan_from_row({"page_id": "p"}, set())
        assert caught.value.name == "PagePlan"

    def test_record_class_called_as_python_calls_it(self, impl: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
        made: list[Any] = []

        class Returns(PagePlan):
            def __init__(self, **fields: Any) -> None:
                super().__init__(**fields)
                return 1  # type: ignore[return-value]  # noqa: PLE0101

        class Static(PagePlan):
            __init__ = staticmethod(lambda **fields: made.append(sorted(fields)))  # type: ignore[assignment]

        class New(PagePlan):
            def __new__(cls, **fields: Any) -> New:
                made.append("new")
                return super().__new__(cls)

        row, live = {"page_id": "p", "source_files": ["a.c"]}, {"a.c"}
        monkeypatch.setattr(impl, "PagePlan", Returns)
        with pytest.raises(TypeError, match=r"^__init__\(\) should return None, not 'int'$"):
            impl._plan_from_row(row, live)
        monkeypatch.setattr(impl, "PagePlan", Static)
        assert vars(impl._plan_from_row(row, live)) == {}
        fields = [
            "catch_all",
            "description",
            "importance",
            "level",
            "page_id",
            "source_files",
            "title",
            "topic",
            "type",
        ]
        monkeypatch.setattr(impl, "PagePlan", New)
        plan = impl._plan_from_row(row, live)
        assert made == [fields, "new"] and type(plan) is New and plan.source_files == ["a.c"]
