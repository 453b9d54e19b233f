"""Checking and repairing a wiki's store and audit log, keeping backups.

Every repair first copies what it changes to a file beside it named
``<name>.bak-<time>``:

* an empty (0-byte) store is set aside, and the next plan starts a new one;
* a store SQLite cannot read is set aside and its readable rows, archive
  and journal are copied into a new one;
* a row whose list or mapping field does not decode is reset in that field
  and marked to write;
* pending file work of a stopped run is finished;
* lines of the plan log that are not a record move to ``plan-log.jsonl.bad``;
* bodies left beside their place by a stopped save are reported.
"""

from __future__ import annotations

import shutil
import sqlite3
from datetime import datetime
from pathlib import Path

from malde_ostrel.workers.wiki.tool.auditlog import read_runs
from malde_ostrel.workers.wiki.tool.journal import Journal, write_atomic
from malde_ostrel.workers.wiki.tool.locking import store_lock
from malde_ostrel.workers.wiki.tool.reports import DoctorReport
from malde_ostrel.workers.wiki.tool.store import Database, Repository, StoreError

_TABLES = ("wiki_pages", "plan_commits", "archive", "journal", "revisions")


def backup_of(path: Path) -> Path:
    stamp = datetime.now().strftime("%Y%m%d-%H%M%S-%f")
    return path.with_name(f"{path.name}.bak-{stamp}")


def doctor(store: Path, wiki_dir: Path, branch: str) -> DoctorReport:
    report = DoctorReport(str(store), [], [], None)
    if store.exists():
        with store_lock(store):
            _check_store(store, report)
            _check_bodies(store, wiki_dir / "pages", branch, report)
    else:
        report.problems.append(f"no page store at {store} yet (the first plan makes it)")
    _check_log(wiki_dir, report)
    pages = wiki_dir / "pages"
    for temp in sorted(pages.glob(".*.tmp")) if pages.is_dir() else []:
        report.problems.append(
            f"{temp}: the body of a save that did not finish; copy what you need from it, then delete it"
        )
    return report


def _check_store(store: Path, report: DoctorReport) -> None:
    if store.stat().st_size == 0:
        backup = backup_of(store)
        store.replace(backup)
        report.backup = str(backup)
        report.problems.append(f"page store {store} is empty (0 bytes)")
        report.repairs.append(f"set it aside as {backup}; the next plan starts a new store")
        return
    try:
        with Database.open(store) as db:
            ok = db.execute("PRAGMA integrity_check").fetchone()[0] == "ok"
            if ok:
                _check_rows(store, db, report)
                done = Journal(db).replay()
                if done:
                    report.repairs.append(f"finished {done} pending file change(s) of a stopped run")
                return
            reason = "integrity check failed"
    except (StoreError, sqlite3.DatabaseError) as exc:
        reason = str(exc)
    report.problems.append(f"page store {store} is damaged: {reason}")
    _salvage(store, report)


def _check_bodies(store: Path, pages: Path, branch: str, report: DoctorReport) -> None:
    try:
        with Database.open(store) as db:
            rows = Repository(db).rows(branch)
    except (StoreError, sqlite3.DatabaseError):
        return  # reported above
    for page_id, row in rows.items():
        if row.get("content_hash") and not (pages / f"{page_id}.md").exists():
            report.problems.append(
                f"page {page_id}: its saved text {pages / (page_id + '.md')} is missing; "
                "look for it in `ostrel-wiki archive`, or save the page again"
            )


def _check_rows(store: Path, db: Database, report: DoctorReport) -> None:
    repo = Repository(db)
    bad: list[tuple[str, str]] = []
    for branch, page_id, _ in repo.raw_rows():
        try:
            repo.row(branch, page_id)
        except StoreError:
            bad.append((branch, page_id))
    if not bad:
        return
    backup = backup_of(store)
    db.execute("VACUUM INTO ?", (str(backup),))
    report.backup = str(backup)
    with db.transaction():
        for branch, page_id in bad:
            fields = repo.repair_row(branch, page_id)
            report.problems.append(f"page {page_id} of branch {branch}: malformed {', '.join(fields)}")
            report.repairs.append(f"reset {', '.join(fields)} of {page_id} ({branch}); the page is marked to write")


def _salvage(store: Path, report: DoctorReport) -> None:
    """Set the damaged file aside and copy what can be read into a new store."""
    backup = backup_of(store)
    shutil.copy2(store, backup)
    report.backup = str(backup)
    for suffix in ("-wal", "-shm"):
        side = store.with_name(store.name + suffix)
        if side.exists():
            shutil.copy2(side, backup.with_name(backup.name + suffix))
    fresh = store.with_name(store.name + ".new")
    fresh.unlink(missing_ok=True)
    copied: dict[str, int] = {}
    with Database.open(fresh) as db:
        try:
            old = sqlite3.connect(f"file:{backup}?mode=ro", uri=True)
        except sqlite3.Error:
            old = None
        for table in _TABLES if old is not None else ():
            assert old is not None
            copied[table] = _copy_table(old, db, table)
        if old is not None:
            old.close()
    for suffix in ("-wal", "-shm"):
        store.with_name(store.name + suffix).unlink(missing_ok=True)
    fresh.replace(store)
    rows = ", ".join(f"{n} {t}" for t, n in copied.items() if n) or "nothing"
    report.repairs.append(f"set the damaged store aside as {backup}; a new store holds what could be read ({rows})")


def _copy_table(old: sqlite3.Connection, db: Database, table: str) -> int:
    try:
        names = [row[1] for row in old.execute(f"PRAGMA table_info({table})")]
        rowids = [r[0] for r in old.execute(f"SELECT rowid FROM {table}")]
    except sqlite3.Error:
        return 0
    wanted = [row[1] for row in db.execute(f"PRAGMA table_info({table})")]
    names = [n for n in names if n in wanted]
    copied = 0
    for rowid in rowids:
        try:
            raw = old.execute(f"SELECT {', '.join(names)} FROM {table} WHERE rowid = ?", (rowid,)).fetchone()
            db.execute(
                f"INSERT OR REPLACE INTO {table} ({', '.join(names)}) VALUES ({', '.join('?' * len(names))})", raw
            )
            copied += 1
        except sqlite3.Error:
            continue
    return copied


def _check_log(wiki_dir: Path, report: DoctorReport) -> None:
    log = wiki_dir / "plan-log.jsonl"
    _, bad = read_runs(log)
    if not bad:
        return
    lines = log.read_bytes().split(b"\n")
    kept = [line for number, line in enumerate(lines, 1) if number not in bad]
    dropped = [line for number, line in enumerate(lines, 1) if number in bad]
    aside = log.with_name(log.name + ".bad")
    with aside.open("ab") as file:
        file.write(b"".join(line + b"\n" for line in dropped))
    write_atomic(log, b"\n".join(kept))
    report.problems.append(f"{log}: {len(bad)} unreadable line(s) ({', '.join(map(str, bad))})")
    report.repairs.append(f"moved them to {aside}")
