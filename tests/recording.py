"""Recording stand-ins for the module's collaborators, so that a test can
compare what the native module and the twin asked of them, call by call."""

from __future__ import annotations

from collections.abc import Callable
from types import ModuleType
from typing import Any

import pytest


class CallLog:
    def __init__(self) -> None:
        self.calls: list[tuple[str, tuple[Any, ...], dict[str, Any]]] = []

    def wrap(self, name: str, target: Callable[..., Any]) -> Callable[..., Any]:
        def recorder(*args: Any, **kwargs: Any) -> Any:
            self.calls.append((name, args, dict(kwargs)))
            return target(*args, **kwargs)

        return recorder

    def names(self) -> list[str]:
        return [name for name, _, _ in self.calls]


def record(module: ModuleType, monkeypatch: pytest.MonkeyPatch, *names: str) -> CallLog:
    """Rebind `names` in `module` to recorders around their current values."""
    log = CallLog()
    for name in names:
        monkeypatch.setattr(module, name, log.wrap(name, getattr(module, name)))
    return log


def fields(plan: Any) -> dict[str, Any]:
    """Every field of a plan record, for comparisons across implementations."""
    return dict(vars(plan))


def outcome(action: Callable[[], Any]) -> tuple[Any, ...]:
    """What a call came to: its result, or its exception's type and text."""
    try:
        return ("returned", action())
    except Exception as error:  # noqa: BLE001 - any failure is an outcome here
        return ("raised", type(error), str(error))
