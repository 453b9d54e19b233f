"""The plan log, drift and section entry points, on their normal, raising and
warning paths, run many times: the interpreter's allocated blocks must stay
flat."""

from __future__ import annotations

import re
import sys
from collections.abc import Callable
from pathlib import Path
from types import ModuleType
from typing import Any

import pytest

from .leakcheck import TOLERANCE, growth



class QuietLogger:
    """Takes the warning and reads the exception being handled, as a logger
    does for `exc_info=True`, and keeps nothing."""

    def warning(self, message: str, *, exc_info: bool) -> None:
        sys.exc_info()


@pytest.fixture
def quiet(native: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(native, "logger", QuietLogger())
    # Small limits, so that the trim runs every few calls.
    monkeypatch.setattr(native, "_PLAN_LOG_MAX_LINES", 4)
    monkeypatch.setattr(native, "_PLAN_LOG_KEEP_LINES", 2)


def plan_log_probes(m: ModuleType, root: Path) -> dict[str, Callable[[], Any]]:
    fn = m.append_plan_log
    ok = root / "ok"
    blocker = root / "blocker"
    blocker.write_text("")
    bad_text = root / "bad"
    bad_text.mkdir()
    (bad_text / "plan-log.jsonl").write_bytes(b"\xff\n")
    stuck = root / "stuck"
    (stuck / "plan-log.jsonl.trim" / "x").mkdir(parents=True)
    (stuck / "plan-log.jsonl").write_text("a\nb\nc\nd\n")
    record = [{"action": "add", "page_id": "p\u00e9", "n": [1.5, None]}]
    return {
        "append": lambda: fn(ok, record, replan=True),
        "append nothing": lambda: fn(ok, [], replan=False),
        "append to a file path (warning)": lambda: fn(blocker, record, replan=False),
        "append unserialisable": lambda: fn(ok, [{"s": {1}}], replan=False),
        "append to invalid UTF-8": lambda: fn(bad_text, record, replan=False),
        "append with failing trim (warning)": lambda: fn(stuck, record, replan=False),
        "append without replan": lambda: fn(ok, record),
    }


def drift_probes(m: ModuleType) -> dict[str, Callable[[], Any]]:
    fn = m.drift_signal
    churn = [{"action": "add"}, {"action": "retire", "level": "package"}, {"action": "remap", "level": None}]
    return {
        "drift warning": lambda: fn(churn, 9),
        "drift none": lambda: fn(churn + [{"action": "extend"}], 30),
        "drift missing action": lambda: fn([{"level": "module"}], 1),
        "drift bad size": lambda: fn(churn, "x"),
    }


def section_probes(m: ModuleType) -> dict[str, Callable[[], Any]]:
    body = ("lead [[a.c:1-2]]\n## One \u00e9\n[[a.c:1-2|f]] [[b.c:3]]\n```\n## fenced [[c.c:1]]\n```\n"
            "## Two #\nnone\n")

    class Text(str):
        pass

    citations = [{"path": "a.c", "line_start": 1, "line_end": 2, "symbol": "f"},
                 {"path": "b.c", "line_start": 3, "line_end": 3},
                 {"path": "c.c", "line_start": 1, "line_end": 1}]
    class Shown:
        def __str__(self) -> str:
            return Text("b.c")

    odd = [{"path": Shown(), "line_start": 3, "line_end": 3, "symbol": Shown()},
           {"path": "a.c", "line_start": 10**30, "line_end": 1}]
    return {
        "sections": lambda: m._sections(body),
        "sections of a text subclass": lambda: m._sections(Text(body)),
        "sections of bytes": lambda: m._sections(b"## a"),
        "section map": lambda: m.section_map(body, citations, {"a.c": "h"}),
        "section map bad line": lambda: m.section_map(body, [{"path": "a.c", "line_start": None}], {}),
        "section map missing path": lambda: m.section_map(body, [{"line_start": 1, "line_end": 2}], {}),
        "section map odd keys and texts": lambda: m.section_map(body, citations + odd, {"b.c": Text("h")}),
    }


def probes(m: ModuleType, root: Path) -> dict[str, Callable[[], Any]]:
    return {**plan_log_probes(m, root), **drift_probes(m), **section_probes(m)}


PROBES = [
    "append", "append nothing", "append to a file path (warning)", "append unserialisable",
    "append to invalid UTF-8", "append with failing trim (warning)", "append without replan",
    "drift warning", "drift none", "drift missing action", "drift bad size",
    "sections", "sections of a text subclass", "sections of bytes",
    "section map", "section map bad line", "section map missing path", "section map odd keys and texts",
]


def test_every_probe_is_run(native: ModuleType, tmp_path: Path) -> None:
    assert sorted(probes(native, tmp_path)) == sorted(PROBES)


@pytest.mark.usefixtures("quiet")
@pytest.mark.parametrize("probe", PROBES)
def test_entry_point_does_not_leak(native: ModuleType, tmp_path: Path, probe: str) -> None:
    assert growth(probes(native, tmp_path)[probe]) < TOLERANCE


def raising(*args: Any, **kwargs: Any) -> Any:
    raise RuntimeError("collaborator failed")


class Odd:
    """A pattern whose matches are always true, with a group of its own."""

    def match(self, line: str) -> Any:
        return re.match("(.*)", line)


@pytest.mark.parametrize(("name", "value"), [
    ("prose_citations", raising), ("citation_key", raising), ("_text_hash", raising), ("_sections", raising),
    ("_sections", lambda body: [("a",)]), ("_SECTION_RE", Odd()), ("_SECTION_RE", None),
])
def test_replaced_collaborators_do_not_leak(native: ModuleType, monkeypatch: pytest.MonkeyPatch,
                                            name: str, value: Any) -> None:
    monkeypatch.setattr(native, name, value)
    body = "x\n## A\n[[a.c:1]]\n"
    stored = [{"path": "a.c", "line_start": 1, "line_end": 1}]
    assert growth(lambda: native.section_map(body, stored, {})) < TOLERANCE
    monkeypatch.delattr(native, name)
    assert growth(lambda: native.section_map(body, stored, {})) < TOLERANCE
