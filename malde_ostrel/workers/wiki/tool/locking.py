"""One writer at a time per page store: an advisory lock on a file beside it.

Runs that change the store (plan, save, restore, doctor) hold the lock from
before they read the stored rows until their file work is done, so concurrent
runs serialise whole. The store's own write transactions guard the rows even
where the lock cannot be taken (a read-only directory).
"""

from __future__ import annotations

import fcntl
import os
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path


def lock_path(store: Path) -> Path:
    return store.with_name(store.name + ".lock")


@contextmanager
def store_lock(store: Path) -> Iterator[bool]:
    """Hold the store's lock (waiting for it); yields False when the lock file
    cannot be made, and the caller goes on under the store's own locking."""
    try:
        store.parent.mkdir(parents=True, exist_ok=True)
        fd = os.open(lock_path(store), os.O_RDWR | os.O_CREAT, 0o644)
    except OSError:
        yield False
        return
    try:
        fcntl.flock(fd, fcntl.LOCK_EX)
        yield True
    finally:
        os.close(fd)  # releases the lock
