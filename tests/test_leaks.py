"""Every native entry point, on its normal and its raising paths, run many
times: the interpreter's allocated blocks must stay flat."""

from __future__ import annotations

import inspect
from collections.abc import Callable
from types import ModuleType
from typing import Any

import pytest

from .leakcheck import TOLERANCE, growth, measurable

pytestmark = pytest.mark.skipif(not measurable(), reason="allocator does not count blocks")


def raising(*args: Any, **kwargs: Any) -> Any:
    raise RuntimeError("collaborator failed")


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
    }


PROBES = [
    "plan_from_row", "plan_from_row by keyword", "plan_from_row missing key", "plan_from_row bad files",
    "plan_from_row bad id", "too many arguments", "unexpected keyword", "duplicate argument",
    "missing arguments", "signature", "bound method",
]


def test_every_probe_is_run(native: ModuleType) -> None:
    assert sorted(probes(native)) == sorted(PROBES)


@pytest.mark.parametrize("probe", PROBES)
def test_entry_point_does_not_leak(native: ModuleType, probe: str) -> None:
    assert growth(probes(native)[probe]) < TOLERANCE


@pytest.mark.parametrize("name", ["unit_topic", "PagePlan", "_CATCH_ALL_RE"])
def test_failing_collaborators_do_not_leak(native: ModuleType, monkeypatch: pytest.MonkeyPatch,
                                           name: str) -> None:
    monkeypatch.setattr(native, name, raising if name != "_CATCH_ALL_RE" else None)
    row = {"page_id": "p", "source_files": ["a"]}
    assert growth(lambda: native._plan_from_row(row, {"a"})) < TOLERANCE
    monkeypatch.delattr(native, name)
    assert growth(lambda: native._plan_from_row(row, {"a"})) < TOLERANCE
