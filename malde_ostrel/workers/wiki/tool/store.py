"""The page store: one row per wiki page and branch, in one SQLite file.

``Database`` owns the connection: write-ahead logging so that readers in other
connections never wait on a writer, autocommit outside explicit transactions,
and ``transaction()`` for atomic groups of writes (nestable through savepoints).
``Repository`` reads and writes the ``wiki_pages`` rows; list and mapping
columns are held as JSON text and handed back decoded, and a field that does
not decode to its kind is reported as a ``StoreError`` naming the page.

Beside the rows the store keeps, per branch, the commit the plan was last made
at (``plan_commits``), the texts of pages that left the plan (``archive``), and
the texts pages held before a save, carry or restore replaced them
(``revisions``, numbered from 1 per page), and a journal of the file work that follows a committed transaction (``journal``:
audit log records to append, page files to move into place), so that a run
killed after its commit is finished by the next run, once.
"""

from __future__ import annotations

import functools
import itertools
import json
import json.scanner
import sqlite3
from collections.abc import Iterator, Sequence
from contextlib import contextmanager
from pathlib import Path
from types import TracebackType
from typing import Any, Final

SCHEMA_VERSION: Final = 3
BUSY_TIMEOUT_MS: Final = 5000

# Time of a write, as SQLite makes it: ISO 8601 in UTC with milliseconds.
_NOW_SQL: Final = "strftime('%Y-%m-%dT%H:%M:%fZ', 'now')"

# Statements that take a file from version N to N + 1, at index N.
_MIGRATIONS: Final[tuple[tuple[str, ...], ...]] = (
    (
        """
        CREATE TABLE wiki_pages (
            branch         TEXT NOT NULL,
            page_id        TEXT NOT NULL,
            title          TEXT NOT NULL DEFAULT '',
            description    TEXT NOT NULL DEFAULT '',
            importance     TEXT NOT NULL DEFAULT 'medium',
            level          TEXT NOT NULL DEFAULT 'module',
            parent_section TEXT,
            rel_path       TEXT NOT NULL DEFAULT '',
            source_files   TEXT NOT NULL DEFAULT '[]',
            source_hashes  TEXT NOT NULL DEFAULT '{}',
            related_pages  TEXT NOT NULL DEFAULT '[]',
            status         TEXT NOT NULL DEFAULT 'stale',
            page_type      TEXT NOT NULL DEFAULT '',
            content_hash   TEXT NOT NULL DEFAULT '',
            build_cache    TEXT NOT NULL DEFAULT '{}',
            agent_title    TEXT NOT NULL DEFAULT '',
            updated_at     TEXT NOT NULL,
            PRIMARY KEY (branch, page_id)
        )
        """,
        # Writes made through raw SQL (the stale mark) get their time too.
        f"""
        CREATE TRIGGER wiki_pages_touch AFTER UPDATE ON wiki_pages
        WHEN NEW.updated_at IS OLD.updated_at
        BEGIN
            UPDATE wiki_pages SET updated_at = {_NOW_SQL}
            WHERE branch = NEW.branch AND page_id = NEW.page_id;
        END
        """,
    ),
    (
        "CREATE TABLE plan_commits (branch TEXT PRIMARY KEY, commit_id TEXT NOT NULL)",
        """
        CREATE TABLE archive (
            id          INTEGER PRIMARY KEY,
            branch      TEXT NOT NULL,
            page_id     TEXT NOT NULL,
            title       TEXT NOT NULL DEFAULT '',
            body        TEXT NOT NULL,
            files       TEXT NOT NULL DEFAULT '[]',
            reason      TEXT NOT NULL DEFAULT '',
            carried_to  TEXT,
            open        INTEGER NOT NULL DEFAULT 1,
            archived_at TEXT NOT NULL
        )
        """,
        # Rows with files never list related pages (those name a parent's children).
        "UPDATE wiki_pages SET related_pages = '[]' "
        "WHERE source_files NOT IN ('[]', '') AND related_pages NOT IN ('[]', '')",
        """
        CREATE TABLE journal (
            id      INTEGER PRIMARY KEY,
            kind    TEXT NOT NULL,
            target  TEXT NOT NULL,
            payload TEXT NOT NULL
        )
        """,
    ),
    (
        # Every text a page held before something replaced it, as its bytes.
        """
        CREATE TABLE revisions (
            id          INTEGER PRIMARY KEY,
            branch      TEXT NOT NULL,
            page_id     TEXT NOT NULL,
            body        BLOB NOT NULL,
            saved       INTEGER NOT NULL DEFAULT 0,
            replaced_by TEXT NOT NULL DEFAULT '',
            replaced_at TEXT NOT NULL
        )
        """,
        "CREATE INDEX revisions_of_page ON revisions (branch, page_id, id)",
    ),
)
assert len(_MIGRATIONS) == SCHEMA_VERSION

# Row columns in table order, without ``branch`` (rows are read per branch).
_COLUMNS: Final = (
    "page_id",
    "title",
    "description",
    "importance",
    "level",
    "parent_section",
    "rel_path",
    "source_files",
    "source_hashes",
    "related_pages",
    "status",
    "page_type",
    "content_hash",
    "build_cache",
    "agent_title",
    "updated_at",
)
# The JSON columns and the kind of value each must decode to.
_JSON_KINDS: Final[dict[str, type]] = {
    "source_files": list,
    "source_hashes": dict,
    "related_pages": list,
    "build_cache": dict,
}
_JSON_COLUMNS: Final = frozenset(_JSON_KINDS)
# Columns a caller may set by keyword; keys and the write time are the store's.
_WRITABLE: Final = frozenset(_COLUMNS) - {"page_id", "title", "updated_at"}


class StoreError(Exception):
    """The page store file cannot be used by this code."""


DOCTOR_HINT: Final = "run `ostrel-wiki doctor` to check and repair it (it keeps a backup)"


def damaged(path: Path, exc: sqlite3.DatabaseError) -> StoreError:
    """The one-line report of a store file SQLite cannot read."""
    return StoreError(f"page store {path} is damaged ({exc}); {DOCTOR_HINT}")


class Database:
    """One connection to a page store file."""

    def __init__(self, connection: sqlite3.Connection, path: Path) -> None:
        self.path = path
        self._conn = connection
        self._savepoints = itertools.count(1)

    @classmethod
    def open(cls, path: Path | str) -> Database:
        """Open (creating it and its directories if need be) and migrate a store file."""
        path = Path(path)
        if str(path) != ":memory:":
            path.parent.mkdir(parents=True, exist_ok=True)
        conn = sqlite3.connect(path, timeout=BUSY_TIMEOUT_MS / 1000, isolation_level=None)
        try:
            conn.execute(f"PRAGMA busy_timeout = {BUSY_TIMEOUT_MS}")
            conn.execute("PRAGMA journal_mode = WAL")
            conn.execute("PRAGMA foreign_keys = ON")
            _migrate(conn, path)
        except sqlite3.DatabaseError as exc:
            conn.close()
            raise damaged(path, exc) from exc
        except BaseException:
            conn.close()
            raise
        return cls(conn, path)

    @property
    def changes(self) -> int:
        """Rows written through this connection so far (a counter to compare)."""
        return self._conn.total_changes

    def execute(self, sql: str, params: Sequence[Any] = ()) -> sqlite3.Cursor:
        """Run one statement with ``?`` parameters; outside a transaction it commits at once."""
        return self._conn.execute(sql, params)

    @contextmanager
    def transaction(self) -> Iterator[Database]:
        """Group writes atomically: commit on normal exit, roll back on any exception.

        The outermost use takes the write lock at once (``BEGIN IMMEDIATE``), so a
        transaction never fails half-way for want of it; a nested use is a
        savepoint whose failure undoes only its own writes.
        """
        if self._conn.in_transaction:
            name = f"sp_{next(self._savepoints)}"
            self._conn.execute(f"SAVEPOINT {name}")
            try:
                yield self
            except BaseException:
                # A failed statement may have rolled the whole transaction back.
                if self._conn.in_transaction:
                    self._conn.execute(f"ROLLBACK TO {name}")
                    self._conn.execute(f"RELEASE {name}")
                raise
            self._conn.execute(f"RELEASE {name}")
            return
        self._conn.execute("BEGIN IMMEDIATE")
        try:
            yield self
            self._conn.execute("COMMIT")
        except BaseException:
            if self._conn.in_transaction:
                self._conn.execute("ROLLBACK")
            raise

    @property
    def in_transaction(self) -> bool:
        return self._conn.in_transaction

    def close(self) -> None:
        """Close the connection; an open transaction is rolled back."""
        self._conn.close()

    def __enter__(self) -> Database:
        return self

    def __exit__(
        self, exc_type: type[BaseException] | None, exc: BaseException | None, tb: TracebackType | None
    ) -> None:
        self.close()


def _user_version(conn: sqlite3.Connection) -> int:
    version = conn.execute("PRAGMA user_version").fetchone()[0]
    return int(version)


def _check_version(version: int, path: Path) -> None:
    if version > SCHEMA_VERSION:
        raise StoreError(
            f"page store {path} has schema version {version}, but this code knows "
            f"versions up to {SCHEMA_VERSION}; use a newer release to open it"
        )


def _migrate(conn: sqlite3.Connection, path: Path) -> None:
    """Bring the file's schema to ``SCHEMA_VERSION``, all steps in one transaction."""
    version = _user_version(conn)
    _check_version(version, path)
    if version == SCHEMA_VERSION:
        return
    conn.execute("BEGIN IMMEDIATE")
    try:
        # Another connection may have migrated the file while we waited for the lock.
        version = _user_version(conn)
        _check_version(version, path)
        for step in range(version, SCHEMA_VERSION):
            for statement in _MIGRATIONS[step]:
                conn.execute(statement)
        conn.execute(f"PRAGMA user_version = {SCHEMA_VERSION}")
        conn.execute("COMMIT")
    except BaseException:
        if conn.in_transaction:
            conn.execute("ROLLBACK")
        raise


class Repository:
    """The wiki page rows of every branch."""

    def __init__(self, db: Database) -> None:
        self.db = db

    def upsert_wiki_page(self, branch: str, page_id: str, title: str, **columns: Any) -> None:
        """Insert a page row, or update the title and the given columns of the stored one.

        List and mapping columns take Python values (stored as JSON text). The
        write time is set on every call.
        """
        unknown = sorted(set(columns) - _WRITABLE)
        if unknown:
            raise ValueError(f"unknown wiki page column(s): {', '.join(unknown)}")
        if columns.get("source_files") and columns.get("related_pages"):
            # A row's related pages are the children of a family parent, which
            # owns no files; a page with files (a family part carrying a
            # back-link to its parent) records none, or it would read as a parent.
            columns["related_pages"] = []
        values = [title, *(_encode(name, value) for name, value in columns.items())]
        self.db.execute(_upsert_sql(("title", *columns)), (branch, page_id, *values))

    def rows(self, branch: str, *, columns: Sequence[str] | None = None) -> dict[str, dict[str, Any]]:
        """The branch's page rows by page id, in page id order; with
        ``columns``, rows of just those columns and the page id."""
        names = _COLUMNS if columns is None else ("page_id", *(c for c in columns if c in _COLUMNS))
        cursor = self.db.execute(
            f"SELECT {', '.join(names)} FROM wiki_pages WHERE branch = ? ORDER BY page_id", (branch,)
        )
        kinds = _kinds(names)
        decoded = [self._decode(branch, raw, names, kinds) for raw in cursor.fetchall()]
        return {row["page_id"]: row for row in decoded}

    def page_ids(self, branch: str) -> set[str]:
        """The ids of the branch's pages."""
        cursor = self.db.execute("SELECT page_id FROM wiki_pages WHERE branch = ?", (branch,))
        return {str(page_id) for (page_id,) in cursor}

    def row(self, branch: str, page_id: str) -> dict[str, Any] | None:
        """One page row, or None when the branch has no such page."""
        raw = self.db.execute(
            f"SELECT {', '.join(_COLUMNS)} FROM wiki_pages WHERE branch = ? AND page_id = ?", (branch, page_id)
        ).fetchone()
        return None if raw is None else self._decode(branch, raw)

    def delete_wiki_page(self, branch: str, page_id: str) -> None:
        self.db.execute("DELETE FROM wiki_pages WHERE branch = ? AND page_id = ?", (branch, page_id))

    def branches(self) -> list[str]:
        """The branches that have at least one page, in order."""
        cursor = self.db.execute("SELECT DISTINCT branch FROM wiki_pages ORDER BY branch")
        return [str(branch) for (branch,) in cursor]

    def _decode(
        self,
        branch: str,
        raw: Sequence[Any],
        names: Sequence[str] = _COLUMNS,
        kinds: Sequence[tuple[str, type]] = tuple(_JSON_KINDS.items()),
    ) -> dict[str, Any]:
        """A row of the columns ``names``, its JSON columns (``kinds``: those
        of ``names``) decoded."""
        row: dict[str, Any] = dict(zip(names, raw, strict=True))
        for name, kind in kinds:
            value = decode_json(row[name])
            if not isinstance(value, kind):
                raise StoreError(
                    f"page store {self.db.path}: page {row['page_id']} of branch {branch} "
                    f"has a malformed {name} field; {DOCTOR_HINT}"
                )
            row[name] = value
        return row

    def raw_rows(self) -> list[tuple[str, str, dict[str, Any]]]:
        """Every row of every branch undecoded: (branch, page id, columns)."""
        cursor = self.db.execute(f"SELECT branch, {', '.join(_COLUMNS)} FROM wiki_pages")
        return [(raw[0], raw[1], dict(zip(_COLUMNS, raw[1:], strict=True))) for raw in cursor]

    def repair_row(self, branch: str, page_id: str) -> list[str]:
        """Reset the JSON fields of one row that do not decode to their kind, and
        mark the page to write; the names of the fields reset."""
        raw = self.db.execute(
            f"SELECT {', '.join(_JSON_COLUMNS)} FROM wiki_pages WHERE branch = ? AND page_id = ?", (branch, page_id)
        ).fetchone()
        bad = [
            name
            for name, value in zip(_JSON_COLUMNS, raw or (), strict=False)
            if not isinstance(decode_json(value), _JSON_KINDS[name])
        ]
        for name in bad:
            value: Any = _JSON_KINDS[name]()
            if name == "source_hashes":
                value = {STALE_MARK_KEY: "pending"}
            self.db.execute(
                f"UPDATE wiki_pages SET {name} = ? WHERE branch = ? AND page_id = ?",
                (json.dumps(value), branch, page_id),
            )
        return bad

    # ------------------------------------------------------------ plan commits

    def plan_commit(self, branch: str) -> str | None:
        """The commit the branch's plan was last made at, if known."""
        raw = self.db.execute("SELECT commit_id FROM plan_commits WHERE branch = ?", (branch,)).fetchone()
        return None if raw is None else str(raw[0])

    def set_plan_commit(self, branch: str, commit: str) -> None:
        self.db.execute(
            "INSERT INTO plan_commits (branch, commit_id) VALUES (?, ?) "
            "ON CONFLICT (branch) DO UPDATE SET commit_id = excluded.commit_id "
            "WHERE commit_id IS NOT excluded.commit_id",
            (branch, commit),
        )

    # ------------------------------------------------------------ archive

    def archive_text(
        self, branch: str, page_id: str, title: str, body: str, files: list[str], reason: str, carried_to: str | None
    ) -> int:
        """Keep the text of a page that left the plan; its archive id."""
        cursor = self.db.execute(
            "INSERT INTO archive (branch, page_id, title, body, files, reason, carried_to, "
            f"open, archived_at) VALUES (?, ?, ?, ?, ?, ?, ?, 1, {_NOW_SQL})",
            (branch, page_id, title, body, json.dumps(files), reason, carried_to),
        )
        return int(cursor.lastrowid or 0)

    def archived(self, branch: str) -> list[dict[str, Any]]:
        """The branch's archived texts, oldest first."""
        cursor = self.db.execute(
            "SELECT id, page_id, title, body, files, reason, carried_to, open, archived_at "
            "FROM archive WHERE branch = ? ORDER BY id",
            (branch,),
        )
        names = ("id", "page_id", "title", "body", "files", "reason", "carried_to", "open", "at")
        entries = [dict(zip(names, raw, strict=True)) for raw in cursor]
        for entry in entries:
            files = decode_json(entry["files"])
            entry["files"] = [str(f) for f in files] if isinstance(files, list) else []
            entry["open"] = bool(entry["open"])
        return entries

    def settle_archive(
        self,
        branch: str,
        *,
        carried_to: str | None = None,
        entry: int | None = None,
        to: str | None = None,
        still_open: bool = False,
    ) -> None:
        """Close the entries carried into ``carried_to`` (its page was written
        again), or close one entry, recording where it went (``still_open``:
        it went there as a draft, open until that page is written)."""
        if entry is not None:
            self.db.execute(
                "UPDATE archive SET open = ?, carried_to = ? WHERE branch = ? AND id = ?",
                (int(still_open), to, branch, entry),
            )
        elif carried_to is not None:
            self.db.execute("UPDATE archive SET open = 0 WHERE branch = ? AND carried_to = ?", (branch, carried_to))

    # ------------------------------------------------------------ revisions

    def keep_revision(self, branch: str, page_id: str, body: bytes, *, saved: bool, replaced_by: str) -> int:
        """Keep a text the page held (``saved``: the one its row records) as
        its next revision; the revision's number."""
        self.db.execute(
            "INSERT INTO revisions (branch, page_id, body, saved, replaced_by, replaced_at) "
            f"VALUES (?, ?, ?, ?, ?, {_NOW_SQL})",
            (branch, page_id, body, int(saved), replaced_by),
        )
        return self.revision_count(branch, page_id)

    def revision_count(self, branch: str, page_id: str) -> int:
        raw = self.db.execute(
            "SELECT count(*) FROM revisions WHERE branch = ? AND page_id = ?", (branch, page_id)
        ).fetchone()
        return int(raw[0])

    def revisions(self, branch: str, page_id: str, n: int | None = None) -> list[dict[str, Any]]:
        """The page's revisions, oldest (number 1) first; with ``n``, that one alone."""
        sql = "SELECT body, saved, replaced_by, replaced_at FROM revisions WHERE branch = ? AND page_id = ? ORDER BY id"
        if n is not None and n < 1:
            return []
        if n is None:
            cursor = self.db.execute(sql, (branch, page_id))
        else:
            cursor = self.db.execute(sql + " LIMIT 1 OFFSET ?", (branch, page_id, n - 1))
        return [
            {"n": i, "body": bytes(body), "saved": bool(saved), "replaced_by": str(by), "at": str(at)}
            for i, (body, saved, by, at) in enumerate(cursor, n or 1)
        ]


class StoredPlans:
    """The derived plans of one branch kept in the store, one at a time, under
    the key of their inputs (see ``plan_cache``).  The table is made by the
    first write: a store without it holds none, and a release that does not
    know it leaves it alone.  Read-only users never write."""

    def __init__(self, db: Database, branch: str, *, write: bool) -> None:
        self.db = db
        self.branch = branch
        self.write = write

    def get(self, key: str) -> str | None:
        known = self.db.execute("SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = 'derived_plans'")
        if known.fetchone() is None:
            return None
        raw = self.db.execute(
            "SELECT plan FROM derived_plans WHERE branch = ? AND key = ?", (self.branch, key)
        ).fetchone()
        return raw[0] if raw is not None and isinstance(raw[0], str) else None

    def put(self, key: str, value: str) -> None:
        if not self.write:
            return
        self.db.execute(
            "CREATE TABLE IF NOT EXISTS derived_plans (branch TEXT PRIMARY KEY, key TEXT NOT NULL, plan TEXT NOT NULL)"
        )
        self.db.execute(
            "INSERT INTO derived_plans (branch, key, plan) VALUES (?, ?, ?) "
            "ON CONFLICT (branch) DO UPDATE SET key = excluded.key, plan = excluded.plan",
            (self.branch, key, value),
        )


STALE_MARK_KEY: Final = "__stale__"


def decode_json(text: Any) -> Any:
    """The value of a JSON text; None when it is not JSON text at all."""
    if not isinstance(text, str):
        return None
    # Most list and mapping columns are empty: json.loads("[]") or ("{}").
    if text == "[]":
        return []
    if text == "{}":
        return {}
    try:
        # One value from the start (what json.loads does, without its
        # per-call overhead); the rest of the text, if any, is its business.
        value, end = _scan_value(text, 0)
        if end == len(text):
            return value
    except (ValueError, StopIteration):
        pass
    try:
        return json.loads(text)
    except ValueError:
        return None


# What json.loads runs on a text, from a position: (value, where it ends).
_scan_value: Final = json.scanner.make_scanner(json.JSONDecoder())  # type: ignore[arg-type]  # it reads the fields


def _kinds(names: Sequence[str]) -> tuple[tuple[str, type], ...]:
    """The JSON columns among ``names`` and the kind each decodes to."""
    return tuple((name, kind) for name, kind in _JSON_KINDS.items() if name in names)


@functools.lru_cache(maxsize=64)
def _upsert_sql(names: tuple[str, ...]) -> str:
    """The statement that inserts a row or updates these columns of it."""
    updates = ", ".join(f"{name} = excluded.{name}" for name in [*names, "updated_at"])
    return (
        f"INSERT INTO wiki_pages (branch, page_id, {', '.join(names)}, updated_at) "
        f"VALUES (?, ?, {', '.join('?' * len(names))}, {_NOW_SQL}) "
        f"ON CONFLICT (branch, page_id) DO UPDATE SET {updates}"
    )


def _encode(name: str, value: Any) -> Any:
    return json.dumps(value) if name in _JSON_COLUMNS else value
