"""Python code run from inside a native call (a key's ``__eq__``, a property
of the host) that replaces or empties what the call is reading: the native
module must neither crash nor read freed memory, and must answer as a Python
function does. Run under the sanitizers by ./scripts/test."""

from __future__ import annotations

import ast
import gc
import inspect
from collections.abc import Callable, Iterator
from pathlib import Path
from types import ModuleType
from typing import Any

import pytest

# The function attributes that a hostile key may replace.
FIELDS = ("__defaults__", "__kwdefaults__", "__annotations__")


@pytest.fixture
def pin_plan(native: ModuleType) -> Iterator[Any]:
    fn = native.pin_plan
    saved = {field: getattr(fn, field) for field in FIELDS}
    yield fn
    for field, value in saved.items():
        setattr(fn, field, value)


class Trap:
    """A key hashing like ``name`` whose comparison, once armed, runs ``spring``."""

    armed = False

    def __init__(self, name: str, spring: Callable[[], None]) -> None:
        self.name, self.spring = name, spring

    def __hash__(self) -> int:
        return hash(self.name)

    def __eq__(self, other: object) -> bool:
        if Trap.armed:
            Trap.armed = False
            self.spring()
        return False


def with_trap(mapping: dict[str, Any], name: str, spring: Callable[[], None]) -> dict[Any, Any]:
    """The mapping with a trap in front of ``name``: looking ``name`` up meets the trap first."""
    return {Trap(name, spring): None, **mapping}


@pytest.mark.parametrize("replaced", FIELDS)
@pytest.mark.parametrize("emptied", [False, True], ids=["to-none", "to-empty"])
def test_signature_is_made_from_the_values_it_started_with(pin_plan: Any, replaced: str, emptied: bool) -> None:
    pin_plan.__defaults__ = ({}, set())
    expected = str(inspect.signature(pin_plan))
    value = type(getattr(pin_plan, replaced))() if emptied else None
    pin_plan.__annotations__ = with_trap(
        pin_plan.__annotations__, "existing", lambda: setattr(pin_plan, replaced, value)
    )
    Trap.armed = True
    assert str(pin_plan.__signature__) == expected
    assert not Trap.armed


def test_call_binds_the_keyword_defaults_it_started_with(pin_plan: Any) -> None:
    pin_plan.__kwdefaults__ = with_trap(
        pin_plan.__kwdefaults__, "replan", lambda: setattr(pin_plan, "__kwdefaults__", None)
    )
    Trap.armed = True
    plans, amendments, _ = pin_plan([], {}, set())
    assert (plans, amendments, Trap.armed) == ([], [], False)


def test_call_binds_the_defaults_it_started_with(pin_plan: Any) -> None:
    class Keyword(str):
        def __eq__(self, other: object) -> bool:
            pin_plan.__defaults__ = None
            return str.__eq__(self, other)

        __hash__ = str.__hash__

    pin_plan.__defaults__ = ({}, set())
    plans, amendments, _ = pin_plan([], **{Keyword("existing"): {}})
    assert (plans, amendments) == ([], [])


def test_mark_synthesis_stale_reads_ids_as_the_list_holds_them(native: ModuleType, twin: ModuleType) -> None:
    """The host's ``branch`` empties the sorted id list through the collector;
    both runs then bind the ids the list still holds (none)."""

    def run(impl: ModuleType) -> list[tuple[str, tuple[Any, ...]]]:
        calls: list[tuple[str, tuple[Any, ...]]] = []
        marker = "page-marked-" + impl.__name__.rsplit(".", 1)[-1]

        class Db:
            def execute(self, sql: str, params: tuple[Any, ...]) -> None:
                calls.append((sql, params))

        class Host(impl.PlanRecordMixin):  # type: ignore[name-defined,misc]
            repository = type("Repository", (), {"db": Db()})()

            @property
            def branch(self) -> str:
                for holder in gc.get_referrers(marker):
                    if isinstance(holder, list):
                        holder.clear()
                return "main"

        Host()._mark_synthesis_stale(["b", marker, "a"])
        return calls

    sql = "UPDATE wiki_pages SET source_hashes = ? WHERE branch = ? AND page_id IN (?,?,?)"
    assert run(native) == run(twin) == [(sql, ('{"__stale__": "pending"}', "main"))]


@pytest.mark.parametrize("shift", [0, 50, 62])
def test_stored_keys_that_differ_in_their_high_bits_index_like_a_dict(
    native: ModuleType, twin: ModuleType, shift: int
) -> None:
    """Line numbers i << shift, signed and past 64 bits, and True for 1."""
    lines = [i << shift for i in range(-40, 40)] + [True, 1 << 64]
    ends = (1, 1 << shift, True)
    citations = [{"path": "a.py", "line_start": n, "line_end": m, "symbol": f"s{n}.{m}"} for n in lines for m in ends]
    cited = " ".join(f"[[a.py:{n}-{m}]]" for n in (0, 1, 5 << shift, 1 << 64) for m in (1, 1 << shift))
    body = f"lead [[a.py:1-1]]\n## S\n{cited} [[a.py:2-2]]"
    entries = native.section_map(body, citations, {})
    assert entries == twin.section_map(body, citations, {})
    assert len(entries) == 2 and all(entry["symbols"] for entry in entries)


def test_stub_declares_the_twins_annotations(twin: ModuleType) -> None:
    """The twin is the one source of the annotation texts; the native module
    takes them from it when built, and the stub must repeat them."""
    stub = ast.parse(Path(twin.__file__).with_name("plan_record.pyi").read_text(encoding="utf-8"))
    mixin = next(node for node in stub.body if isinstance(node, ast.ClassDef))
    declared = {}
    for owner, body in ((twin, stub.body), (twin.PlanRecordMixin, mixin.body)):
        for node in body:
            if isinstance(node, ast.FunctionDef):
                arguments = node.args.args + node.args.kwonlyargs
                texts = {a.arg: ast.unparse(a.annotation) for a in arguments if a.annotation}
                texts["return"] = ast.unparse(node.returns) if node.returns else ""
                declared[node.name] = (texts, getattr(owner, node.name).__annotations__)
            elif isinstance(node, ast.AnnAssign) and owner is twin.PlanRecordMixin:
                assert ast.unparse(node.annotation) == owner.__annotations__[ast.unparse(node.target)]
    assert len(declared) == 13
    for name, (texts, declared_texts) in declared.items():
        assert texts == declared_texts, name
