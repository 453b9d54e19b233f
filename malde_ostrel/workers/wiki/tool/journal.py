"""File work that follows a store transaction, kept in the store until done.

A run that changes the store and then the files (a page body moved into
place, an audit record appended to the plan log) records that file work as
journal entries in the same transaction as its rows. ``replay`` then does each
entry and deletes it in one transaction of its own, so a run killed after its
commit leaves the entries for the next run, and every entry is done once:
moves and writes can be repeated, and a log record carries a run id that is
looked for before it is appended.
"""

from __future__ import annotations

import json
import os
import sqlite3
from datetime import datetime
from pathlib import Path
from typing import Any, Final

from malde_ostrel.workers.wiki.tool.store import Database

PLAN_LOG_NAME: Final = "plan-log.jsonl"
LOG_MAX_LINES: Final = 2000
LOG_KEEP_LINES: Final = 1000

MOVE: Final = "move"
WRITE: Final = "write"
REMOVE: Final = "remove"
LOG: Final = "log"


def new_run_id() -> str:
    return os.urandom(8).hex()


def fsync_dir(directory: Path) -> None:
    try:
        fd = os.open(directory, os.O_RDONLY)
    except OSError:
        return
    try:
        os.fsync(fd)
    except OSError:
        pass
    finally:
        os.close(fd)


def temp_beside(target: Path, data: bytes) -> Path:
    """``data`` written and flushed to disk in a new file beside ``target``."""
    target.parent.mkdir(parents=True, exist_ok=True)
    temp = target.with_name(f".{target.name}.{os.getpid()}.{os.urandom(4).hex()}.tmp")
    try:
        with temp.open("xb") as file:
            file.write(data)
            file.flush()
            os.fsync(file.fileno())
    except BaseException:
        temp.unlink(missing_ok=True)
        raise
    return temp


def write_atomic(target: Path, data: bytes) -> None:
    """Replace ``target`` by ``data``: a reader sees the old file or the new one."""
    temp = temp_beside(target, data)
    try:
        os.replace(temp, target)
    except BaseException:
        temp.unlink(missing_ok=True)
        raise
    fsync_dir(target.parent)


def append_record(log: Path, record: dict[str, Any]) -> None:
    """Append one audit record (once: a record whose run id the log holds is
    not appended again), then trim the log past ``LOG_MAX_LINES`` lines."""
    line = json.dumps(record, ensure_ascii=False).encode("utf-8") + b"\n"
    log.parent.mkdir(parents=True, exist_ok=True)
    try:
        old = log.read_bytes()
    except FileNotFoundError:
        old = b""
    marker = f'"run": "{record["run"]}"'.encode()
    if marker in old:
        return
    lines = old.split(b"\n")
    if lines and lines[-1] == b"":
        lines.pop()
    if len(lines) + 1 > LOG_MAX_LINES:
        kept = b"".join(part + b"\n" for part in lines[len(lines) + 1 - LOG_KEEP_LINES :])
        write_atomic(log, kept + line)
        return
    with log.open("ab") as file:
        if old and not old.endswith(b"\n"):
            file.write(b"\n")  # a line cut short by a crash stays a line of its own
        file.write(line)
        file.flush()
        os.fsync(file.fileno())


class Journal:
    """The pending file work of one store."""

    def __init__(self, db: Database) -> None:
        self.db = db

    def _add(self, kind: str, target: Path, payload: str) -> None:
        self.db.execute("INSERT INTO journal (kind, target, payload) VALUES (?, ?, ?)", (kind, str(target), payload))

    def move(self, temp: Path, target: Path) -> None:
        self._add(MOVE, target, str(temp))

    def write(self, target: Path, text: str) -> None:
        self._add(WRITE, target, text)

    def remove(self, target: Path) -> None:
        self._add(REMOVE, target, "")

    def log(self, log: Path, record: dict[str, Any]) -> None:
        self._add(LOG, log, json.dumps(record, ensure_ascii=False))

    def log_run(self, log: Path, amendments: list[dict[str, Any]], *, replan: bool = False, **marks: Any) -> None:
        """Journal one run's line of the audit log: its time, whether it
        replanned, ``marks`` (``build=True``), its records and a new run id."""
        at = datetime.now().isoformat(timespec="seconds")
        self.log(log, {"at": at, "replan": replan, **marks, "amendments": amendments, "run": new_run_id()})

    def pending(self) -> int:
        return int(self.db.execute("SELECT count(*) FROM journal").fetchone()[0])

    def replay(self) -> int:
        """Do every pending entry in order, each with its deletion in one
        transaction; the number done. A failing entry stays pending."""
        done = 0
        while True:
            with self.db.transaction():
                raw = self.db.execute("SELECT id, kind, target, payload FROM journal ORDER BY id LIMIT 1").fetchone()
                if raw is None:
                    return done
                entry, kind, target, payload = raw
                _perform(str(kind), Path(target), str(payload))
                self.db.execute("DELETE FROM journal WHERE id = ?", (entry,))
            done += 1


def finish(journal: Journal) -> str | None:
    """Do the pending file work of a committed change; what stopped it (the
    work stays pending for the next run), or None when it is all done."""
    try:
        journal.replay()
    except OSError as exc:
        where = f"{exc.filename}: " if exc.filename else ""
        return f"{where}{exc.strerror or exc}"
    except sqlite3.Error as exc:
        # The file work may be done and only its entry left: done again, it does nothing.
        return f"page store {journal.db.path}: {exc}"
    return None


def _perform(kind: str, target: Path, payload: str) -> None:
    if kind == MOVE:
        temp = Path(payload)
        if temp.exists():  # else done by a run that was stopped before its deletion
            os.replace(temp, target)
            fsync_dir(target.parent)
    elif kind == WRITE:
        write_atomic(target, payload.encode("utf-8", "surrogatepass"))
    elif kind == REMOVE:
        target.unlink(missing_ok=True)
    elif kind == LOG:
        append_record(target, json.loads(payload))
