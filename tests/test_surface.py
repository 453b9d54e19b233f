"""The module's surface: names, binding order, values, signatures, the class,
argument errors as CPython words them, and name lookup at call time."""

from __future__ import annotations

import inspect
import logging
import re
import subprocess
import sys
import textwrap
import types
from pathlib import Path
from types import ModuleType
from typing import Any

import pytest

from malde_ostrel.workers.wiki import page_retirement, steering

from .conftest import NATIVE

BINDING_ORDER = [
    "annotations", "json", "logging", "re", "Iterable", "Sequence", "datetime", "Path", "Any",
    "PageRetirementMixin", "unit_topic", "keep_agent_titles",
    "ReplanRemap", "amend", "carry_superseded", "inherit_prose",
    "_norm", "_text_hash", "changed_files", "stale_sections",
    "STEERING_SENTINEL", "SteeringMixin",
    "PagePlan", "citation_key", "link_families", "section_of",
    "prose_citations", "NOTE_LEVEL", "OTHER_CODE_TYPE", "PINNED_LEVELS",
    "logger", "_MIN_NEW_PAGE_FILES", "_PLAN_LOG_NAME", "_CATCH_ALL_RE",
    "_plan_from_row", "pin_plan", "_demote_unrecorded_families", "_by_importance",
    "_PLAN_LOG_MAX_LINES", "_PLAN_LOG_KEEP_LINES",
    "append_plan_log", "drift_signal",
    "PlanRecordMixin",
    "_STALE_SENTINEL", "_SECTION_RE",
    "_sections", "section_map",
]

FUNCTIONS = {
    "pin_plan": (
        "(fresh_plans: 'list[PagePlan]', existing: 'dict[str, dict[str, Any]]', "
        "live_paths: 'set[str]', *, replan: 'bool' = False) "
        "-> 'tuple[list[PagePlan], list[dict[str, Any]], ReplanRemap]'",
        "Reconcile fresh structural plans against the stored plan of record.",
    ),
    "_demote_unrecorded_families": (
        "(fresh_plans: 'list[PagePlan]', existing: 'dict[str, dict[str, Any]]') -> 'list[PagePlan]'",
        "Fresh split families that would document files a stored page already pins, unsplit.",
    ),
    "_by_importance": (
        "(plans: 'list[PagePlan]') -> 'list[PagePlan]'",
        "The plans with the code pages last, most important first (build and reading order).",
    ),
    "_plan_from_row": (
        "(row: 'dict[str, Any]', live_paths: 'set[str]') -> 'PagePlan'",
        "Rebuild a PagePlan from a stored wiki page row (pinned identity).",
    ),
    "append_plan_log": (
        "(wiki_dir: 'Path', amendments: 'list[dict[str, Any]]', *, replan: 'bool') -> 'None'",
        "Append this run's amendments to the branch's plan audit log.",
    ),
    "drift_signal": (
        "(amendments: 'list[dict[str, Any]]', plan_size: 'int') -> 'str | None'",
        "Human-readable drift warning when structure churns, else None.",
    ),
    "_sections": (
        "(body: 'str') -> 'list[tuple[str, str]]'",
        "``(heading, text)`` of each ``##`` section of a body, outside code fences; the text",
    ),
    "section_map": (
        "(body: 'str', citations: 'Sequence[dict[str, Any]]', file_hashes: 'dict[str, str]') "
        "-> 'list[dict[str, Any]]'",
        "``[{heading, files, symbols, hash}]``: what each section of a body cites.",
    ),
}


class TestNamespace:
    def test_binding_order(self, impl: ModuleType) -> None:
        # In a new process: a test that deletes and restores a name moves it.
        result = run_python(f"""
            import {impl.__name__} as m
            print(*[n for n in vars(m) if not (n.startswith('__') and n.endswith('__'))])
            """)
        assert result.stdout.split() == BINDING_ORDER, result.stderr

    def test_constants_and_imports(self, impl: ModuleType) -> None:
        import __future__
        import collections.abc
        import datetime
        import json
        import pathlib
        import typing

        assert impl.annotations is __future__.annotations
        assert impl.json is json and impl.logging is logging and impl.re is re
        assert impl.Iterable is collections.abc.Iterable and impl.Sequence is collections.abc.Sequence
        assert impl.datetime is datetime.datetime and impl.Path is pathlib.Path and impl.Any is typing.Any
        assert impl.PageRetirementMixin is page_retirement.PageRetirementMixin
        assert (impl._MIN_NEW_PAGE_FILES, impl._PLAN_LOG_NAME) == (2, "plan-log.jsonl")
        assert (impl._PLAN_LOG_MAX_LINES, impl._PLAN_LOG_KEEP_LINES) == (2000, 1000)
        assert impl._STALE_SENTINEL == "__stale__"
        assert impl.logger is logging.getLogger(impl.__name__)

    def test_patterns(self, impl: ModuleType) -> None:
        assert impl._CATCH_ALL_RE.pattern == r"^module-additional(-\d+)?$"
        assert impl._SECTION_RE.pattern == r"^##[ \t]+(\S.*?)[ \t#]*$"
        assert impl._CATCH_ALL_RE.flags == impl._SECTION_RE.flags == re.UNICODE
        catch_all = impl._CATCH_ALL_RE
        for page_id in ["module-additional", "module-additional-12"]:
            assert catch_all.match(page_id)
        for page_id in ["module-additional-", "module-additional-x", "module-additional2",
                        "xmodule-additional"]:
            assert not catch_all.match(page_id)
        section = impl._SECTION_RE
        for line, heading in [("## Overview", "Overview"), ("##\tOverview ##", "Overview"),
                              ("## C#", "C")]:
            m = section.match(line)
            assert m and m.group(1) == heading
        for line in ["##Overview", "### Overview", " ## Overview", "##   "]:
            assert not section.match(line)

    def test_module_doc_summarises_the_rules(self, impl: ModuleType) -> None:
        doc = impl.__doc__
        assert doc and doc.startswith("Plan of record: reconcile fresh structural plans")
        for word in ["add", "retire", "replan", "amendment"]:
            assert word in doc


class TestFunctions:
    @pytest.mark.parametrize("name", sorted(FUNCTIONS))
    def test_looks_like_a_python_function(self, impl: ModuleType, name: str) -> None:
        signature, first_doc_line = FUNCTIONS[name]
        fn = getattr(impl, name)
        assert fn.__name__ == fn.__qualname__ == name
        assert fn.__module__ == impl.__name__
        assert fn.__doc__.splitlines()[0] == first_doc_line
        assert str(inspect.signature(fn)) == signature
        assert list(fn.__annotations__)[-1] == "return"
        assert repr(fn).startswith(f"<function {name} at 0x")
        assert callable(fn) and fn.__globals__ is vars(impl)

    def test_native_and_twin_signatures_agree(self, native: ModuleType, twin: ModuleType) -> None:
        for name in FUNCTIONS:
            a, b = getattr(native, name), getattr(twin, name)
            assert inspect.signature(a) == inspect.signature(b)
            assert a.__annotations__ == b.__annotations__
            assert (a.__defaults__, a.__kwdefaults__) == (b.__defaults__, b.__kwdefaults__)
            assert a.__doc__ == b.__doc__

    BAD_CALLS: list[tuple[tuple[Any, ...], dict[str, Any]]] = [
        ((), {}),
        (({},), {}),
        (({}, set(), 3), {}),
        (({}, set(), 3, 4), {}),
        (({},), {"row": {}}),
        (({}, set()), {"live": 1}),
        (({}, set()), {"row": 1}),
        ((), {"live_paths": set()}),
        ((1, 2, 3), {"row": {}}),
    ]

    @pytest.mark.parametrize(("args", "kwargs"), BAD_CALLS)
    def test_argument_errors_word_for_word(self, native: ModuleType, twin: ModuleType,
                                           args: tuple[Any, ...], kwargs: dict[str, Any]) -> None:
        messages = []
        for module in (native, twin):
            with pytest.raises(TypeError) as caught:
                module._plan_from_row(*args, **kwargs)
            messages.append(str(caught.value))
        assert messages[0] == messages[1]

    def test_replan_of_the_plan_log_is_required_and_keyword_only(self, impl: ModuleType,
                                                                   tmp_path: Path) -> None:
        with pytest.raises(TypeError) as caught:
            impl.append_plan_log(tmp_path, [{"action": "add"}])
        assert str(caught.value) == (
            "append_plan_log() missing 1 required keyword-only argument: 'replan'")
        refused = r"^append_plan_log\(\) takes 2 positional arguments but 3 were given$"
        with pytest.raises(TypeError, match=refused):
            impl.append_plan_log(tmp_path, [{"action": "add"}], True)
        assert list(tmp_path.iterdir()) == []

    def test_keyword_arguments_bind(self, impl: ModuleType) -> None:
        plan = impl._plan_from_row(live_paths={"a"}, row={"page_id": "p", "source_files": ["a"]})
        assert plan.source_files == ["a"]

    def test_binds_as_a_method(self, impl: ModuleType) -> None:
        class Holder(dict[str, Any]):
            rebuild = impl._plan_from_row

        assert Holder.__dict__["rebuild"] is impl._plan_from_row
        assert Holder.rebuild is impl._plan_from_row
        holder = Holder(page_id="p", source_files=["x"])
        bound = holder.rebuild
        assert isinstance(bound, types.MethodType) and bound.__self__ is holder
        assert str(inspect.signature(bound)) == "(live_paths: 'set[str]') -> 'PagePlan'"
        assert holder.rebuild({"x"}).source_files == ["x"]
        with pytest.raises(TypeError, match=r"takes 2 positional arguments but 3 were given"):
            holder.rebuild({"x"}, 1)

    def test_attributes_are_writable_like_a_functions(self, native: ModuleType) -> None:
        fn = native._plan_from_row
        fn.custom = 1
        assert fn.__dict__["custom"] == 1
        del fn.custom
        with pytest.raises(TypeError):
            fn.__name__ = 3
        import pickle

        assert pickle.loads(pickle.dumps(fn)) is fn


class TestMixinClass:
    def test_class_shape(self, impl: ModuleType) -> None:
        cls = impl.PlanRecordMixin
        assert cls.__mro__[1:] == (page_retirement.PageRetirementMixin, steering.SteeringMixin, object)
        assert cls.__qualname__ == "PlanRecordMixin" and cls.__module__ == impl.__name__
        assert cls.__doc__ == "The store side of the plan of record, mixed into ``WikiGenerator``."
        assert cls.__annotations__ == {
            "branch": "str", "pages_dir": "Path", "_existing": "dict[str, dict[str, Any]]"}
        assert type(cls) is type

    def test_same_body_as_the_twin(self, native: ModuleType, twin: ModuleType) -> None:
        assert list(vars(native.PlanRecordMixin)) == list(vars(twin.PlanRecordMixin))

    METHODS = {
        "_persist_plan_skeleton": "(self, plans: 'list[PagePlan]') -> 'int'",
        "_select_stale": "(self, plans: 'list[PagePlan]', existing: 'dict[str, dict[str, Any]]', "
                         "force: 'bool') -> 'set[str]'",
        "_mark_synthesis_stale": "(self, page_ids: 'Iterable[str]') -> 'None'",
        "_section_cache": "(self, body: 'str', citations: 'list[dict[str, Any]]') -> 'dict[str, Any]'",
        "_page_changes": "(self, plan: 'PagePlan', row: 'dict[str, Any] | None') -> 'dict[str, Any]'",
    }

    def test_methods_in_order_and_shape(self, impl: ModuleType) -> None:
        cls = impl.PlanRecordMixin
        methods = [name for name in vars(cls) if not name.startswith("__")]
        assert methods == list(self.METHODS)
        for name, signature in self.METHODS.items():
            method = vars(cls)[name]
            assert method.__qualname__ == f"PlanRecordMixin.{name}" and method.__name__ == name
            assert method.__module__ == impl.__name__
            assert str(inspect.signature(method)) == signature
            assert list(method.__annotations__)[-1] == "return" and "self" not in method.__annotations__

    def test_methods_match_the_twin(self, native: ModuleType, twin: ModuleType) -> None:
        for name in self.METHODS:
            a, b = getattr(native.PlanRecordMixin, name), getattr(twin.PlanRecordMixin, name)
            assert (a.__doc__, a.__annotations__, a.__defaults__, a.__kwdefaults__) == (
                b.__doc__, b.__annotations__, b.__defaults__, b.__kwdefaults__)

    def test_methods_bind_to_instances(self, impl: ModuleType) -> None:
        class Host(impl.PlanRecordMixin):  # type: ignore[name-defined,misc]
            pass

        host = Host()
        bound = host._select_stale
        assert isinstance(bound, types.MethodType) and bound.__self__ is host
        assert str(inspect.signature(bound)).startswith("(plans: 'list[PagePlan]', existing")
        assert bound([], {}, True) == set()
        with pytest.raises(TypeError) as caught:
            host._select_stale([], {})
        assert str(caught.value) == ("PlanRecordMixin._select_stale() missing 1 required positional "
                                     "argument: 'force'")


class TestCallTimeLookup:
    def test_rebound_collaborator_is_used(self, impl: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
        monkeypatch.setattr(impl, "unit_topic", lambda title, files: ("topic", title, tuple(files)))
        plan = impl._plan_from_row({"page_id": "p", "source_files": ["a"]}, {"a"})
        assert plan.topic == ("topic", "p", ("a",))

    def test_rebound_pattern_is_used(self, impl: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
        monkeypatch.setattr(impl, "_CATCH_ALL_RE", re.compile("misc"))
        assert impl._plan_from_row({"page_id": "misc-1"}, set()).catch_all is True
        assert impl._plan_from_row({"page_id": "module-additional"}, set()).catch_all is False

    def test_missing_name_raises_name_error(self, impl: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
        monkeypatch.delattr(impl, "PagePlan")
        with pytest.raises(NameError, match="^name 'PagePlan' is not defined$") as caught:
            impl._plan_from_row({"page_id": "p"}, set())
        assert caught.value.name == "PagePlan"


def run_python(code: str) -> subprocess.CompletedProcess[str]:
    return subprocess.run([sys.executable, "-P", "-c", textwrap.dedent(code)],
                          capture_output=True, text=True, timeout=120)


class TestInitialisation:
    @pytest.mark.parametrize("sabotage, error", [
        ("sys.modules['malde_ostrel.workers.wiki.verify'] = None", "ModuleNotFoundError"),
        ("import malde_ostrel.workers.wiki.types as t; del t.section_of", "ImportError"),
        (r"""
         import re
         compile = re.compile
         re.compile = lambda p, *a: 1 / 0 if p == r'^##[ \t]+(\S.*?)[ \t#]*$' else compile(p, *a)
         """, "ZeroDivisionError"),
        ("""
         import malde_ostrel.workers.wiki.steering as s
         import malde_ostrel.workers.wiki.page_retirement as r
         s.SteeringMixin = type('Meta', (type,), {})('SteeringMixin', (), {})
         r.PageRetirementMixin = type('Other', (type,), {})('PageRetirementMixin', (), {})
         """, "TypeError"),
    ])
    def test_failed_initialisation_leaves_no_module(self, sabotage: str, error: str) -> None:
        result = run_python(f"""
            import sys
            {textwrap.indent(textwrap.dedent(sabotage), '            ').strip()}
            try:
                import {NATIVE}
            except Exception as e:
                print(type(e).__name__, '{NATIVE}' in sys.modules)
            else:
                print('imported')
            """)
        assert result.stdout.split() == [error, "False"], result.stderr

    def test_imports_in_subinterpreters(self) -> None:
        result = run_python(f"""
            import _xxsubinterpreters as interpreters
            code = '''
            import {NATIVE} as m
            assert m._plan_from_row({{"page_id": "p"}}, set()).page_id == "p"
            '''
            for isolated in (False, True):
                interp = interpreters.create(isolated=isolated)
                interpreters.run_string(interp, code)
                interpreters.destroy(interp)
            import {NATIVE} as m
            print(m._plan_from_row({{"page_id": "q"}}, set()).page_id)
            """)
        assert result.returncode == 0, result.stderr
        assert result.stdout.split() == ["q"]
