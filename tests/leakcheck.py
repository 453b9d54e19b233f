"""A leak probe: run an action many times after a warm-up and report how many
memory blocks the interpreter gained."""

from __future__ import annotations

import gc
import sys
from collections.abc import Callable
from typing import Any

WARM_UP = 200
ROUNDS = 3000
# A leak of one object per call shows as at least a block per round (1,000 or
# more); a few hundred come and go with caches, interned texts and free lists.
TOLERANCE = 250


def _swallow(action: Callable[[], Any]) -> None:
    try:
        action()
    except Exception:  # noqa: BLE001 - error paths are what is probed
        pass


def growth(action: Callable[[], Any], rounds: int = ROUNDS, warm_up: int = WARM_UP) -> int:
    if not measurable():
        # Under the sanitizers blocks are not counted: the probes still run,
        # a few times, so every raising path is exercised there too.
        for _ in range(10):
            _swallow(action)
        return 0
    for _ in range(warm_up):
        _swallow(action)
    gc.collect()
    before = sys.getallocatedblocks()
    for _ in range(rounds):
        _swallow(action)
    gc.collect()
    return sys.getallocatedblocks() - before


def measurable() -> bool:
    """False where block counts say nothing (the raw malloc of sanitizer runs)."""
    return sys.getallocatedblocks() > 0
