"""Snapshots of plan-pinning inputs and outputs that can be compared across the
native module and the twin: plans by field, and by position where a result
holds one of the caller's own plan objects."""

from __future__ import annotations

from typing import Any

from malde_ostrel.workers.wiki.replan_carry import ReplanRemap
from malde_ostrel.workers.wiki.types import PagePlan


class Snapshotter:
    def __init__(self, originals: list[Any]) -> None:
        self.positions = {id(plan): i for i, plan in enumerate(originals)}

    def __call__(self, value: Any) -> Any:
        if isinstance(value, PagePlan):
            fields = {name: self(v) for name, v in vars(value).items()}
            position = self.positions.get(id(value))
            return ("fresh", position, fields) if position is not None else ("new", fields)
        if isinstance(value, ReplanRemap):
            return ("remap", {k: self(v) for k, v in value.items()}, self(value.merged))
        if isinstance(value, dict):
            return {k: self(v) for k, v in value.items()}
        if isinstance(value, (list, tuple)):
            return (type(value).__name__, [self(v) for v in value])
        if isinstance(value, (set, frozenset)):
            return ("set", sorted(map(repr, value)))
        return value
