"""The SQLite page store (schema, rows, transactions, a second connection) and the
generator's host side on it (saving a page, what goes stale), with the
store-side mixin of the native module and of the twin."""

from __future__ import annotations

import sqlite3
from collections.abc import Iterator
from pathlib import Path
from types import ModuleType
from typing import Any

import pytest

from malde_ostrel.workers.wiki import orchestrator
from malde_ostrel.workers.wiki.orchestrator import GeneratorBase, generator_class
from malde_ostrel.workers.wiki.repo_facts import _text_hash, file_hash
from malde_ostrel.workers.wiki.tool.store import SCHEMA_VERSION, Database, Repository, StoredPlans, StoreError
from malde_ostrel.workers.wiki.types import PagePlan


@pytest.fixture
def db(tmp_path: Path) -> Iterator[Database]:
    with Database.open(tmp_path / "state" / "wiki.db") as database:
        yield database


def test_schema_created_reopened_and_newer_or_foreign_refused(tmp_path: Path) -> None:
    path = tmp_path / "a" / "b" / "wiki.db"
    with Database.open(path) as db:
        names = ("user_version", "journal_mode", "foreign_keys", "busy_timeout")
        assert [db.execute(f"PRAGMA {n}").fetchone()[0] for n in names] == [SCHEMA_VERSION, "wal", 1, 5000]
        Repository(db).upsert_wiki_page("main", "p", "P")
    with Database.open(str(path)) as db:
        assert Repository(db).rows("main")["p"]["title"] == "P"
    newer = tmp_path / "newer.db"
    with sqlite3.connect(newer) as conn:
        conn.execute(f"PRAGMA user_version = {SCHEMA_VERSION + 1}")
    with pytest.raises(StoreError, match=f"version {SCHEMA_VERSION + 1}.*up to {SCHEMA_VERSION}"):
        Database.open(newer)
    with sqlite3.connect(newer) as conn:
        assert conn.execute("PRAGMA user_version").fetchone()[0] == SCHEMA_VERSION + 1
        assert conn.execute("SELECT count(*) FROM sqlite_master").fetchone()[0] == 0
    (tmp_path / "text.db").write_text("not a database, but long enough to have a header" * 4)
    with pytest.raises(StoreError, match="text.db"):
        Database.open(tmp_path / "text.db")


def test_a_store_of_the_previous_release_is_migrated_with_its_rows(tmp_path: Path) -> None:
    from malde_ostrel.workers.wiki.tool.store import _MIGRATIONS

    path = tmp_path / "old.db"
    with sqlite3.connect(path) as conn:  # the schema the previous release wrote
        for statement in (s for step in _MIGRATIONS[:2] for s in step):
            conn.execute(statement)
        conn.execute("PRAGMA user_version = 2")
        conn.execute("INSERT INTO wiki_pages (branch, page_id, title, updated_at) VALUES ('main', 'p', 'P', 'now')")
    with Database.open(path) as db:
        repo = Repository(db)
        assert repo.rows("main")["p"]["title"] == "P" and repo.revisions("main", "p") == []
        assert [repo.keep_revision("main", "p", t, saved=True, replaced_by="save") for t in (b"a", b"b")] == [1, 2]
        assert [(r["n"], r["body"]) for r in repo.revisions("main", "p")] == [(1, b"a"), (2, b"b")]
        assert repo.revisions("main", "p", 2)[0]["body"] == b"b" and repo.revisions("main", "p", 3) == []


def test_rows_round_trip_with_defaults_order_and_branches(db: Database) -> None:
    repo = Repository(db)
    cache = {"sections": [{"heading": "A", "files": ["a.c"]}], "file_hashes": {"a.c": None}}
    hashes = {"x/é.c": "1f", "gone.c": None}
    for pid in ("b", "a", "B"):
        repo.upsert_wiki_page("main", pid, pid.upper(), source_files=["x/é.c"], source_hashes=hashes,
                              related_pages=["c"], build_cache=cache)  # fmt: skip
    repo.upsert_wiki_page("dev", "a", "other branch")
    rows = repo.rows("main")
    assert list(rows) == ["B", "a", "b"] and rows["a"] == repo.row("main", "a")
    kept = [rows["a"][k] for k in ("source_files", "source_hashes", "related_pages", "build_cache")]
    assert kept == [["x/é.c"], hashes, [], cache]
    assert (rows["a"]["status"], repo.row("main", "zz"), repo.branches()) == ("stale", None, ["dev", "main"])
    repo.delete_wiki_page("main", "a")
    assert list(repo.rows("main")) == ["B", "b"] and list(repo.rows("dev")) == ["a"]
    # Only a row without files (a family parent) records related pages.
    repo.upsert_wiki_page("main", "p", "P", related_pages=["b"])
    row = repo.row("main", "p")
    assert row is not None and row["related_pages"] == ["b"]
    for bad in ({"colour": "red"}, {"updated_at": "x"}, {"status": "fresh", "Level": "x"}):
        for pid in ("p", "q"):
            with pytest.raises(ValueError, match="unknown wiki page column"):
                repo.upsert_wiki_page("main", pid, "Bad", **bad)
    assert repo.row("main", "p") == row and repo.row("main", "q") is None


def test_stored_plans_one_per_branch_written_by_writers_only(db: Database) -> None:
    reader, writer = StoredPlans(db, "main", write=False), StoredPlans(db, "main", write=True)
    reader.put("k", "plan")
    assert writer.get("k") is None  # no table yet
    writer.put("k", "plan")
    writer.put("k2", "plan 2")
    assert (reader.get("k"), reader.get("k2"), StoredPlans(db, "side", write=False).get("k2")) == (None, "plan 2", None)


def test_transactions_nest_and_a_second_connection_waits(db: Database) -> None:
    repo = Repository(db)
    with db.transaction():
        repo.upsert_wiki_page("main", "a", "A")
        with pytest.raises(KeyError):
            with db.transaction():
                repo.upsert_wiki_page("main", "b", "B")
                raise KeyError("inner")
        with db.transaction():
            repo.upsert_wiki_page("main", "c", "C")
    assert list(repo.rows("main")) == ["a", "c"]
    with pytest.raises(RuntimeError, match="outer"):
        with db.transaction():
            repo.delete_wiki_page("main", "a")
            with db.transaction():
                repo.upsert_wiki_page("main", "d", "D")
            raise RuntimeError("outer")
    assert list(repo.rows("main")) == ["a", "c"]
    with Database.open(db.path) as other:  # a second connection reads the last commit, and waits to write
        other.execute("PRAGMA busy_timeout = 50")
        with db.transaction():
            repo.upsert_wiki_page("main", "e", "E")
            assert list(Repository(other).rows("main")) == ["a", "c"]
            with pytest.raises(sqlite3.OperationalError, match="locked"), other.transaction():
                pass
        assert list(Repository(other).rows("main")) == ["a", "c", "e"]


@pytest.fixture
def repo_root(tmp_path: Path) -> Path:
    root = tmp_path / "repo"
    (root / "src").mkdir(parents=True)
    (root / "src" / "a.c").write_text("int a;\nint b;\n")
    (root / "src" / "b.c").write_text("int c;\n")
    return root


def generator(impl: ModuleType, root: Path, db: Database, steering: str | None = None) -> Any:
    cls = generator_class(impl.PlanRecordMixin)
    return cls(root, Repository(db), "main", root.parent / "wiki" / "main" / "pages", steering)


def test_native_mixin_is_not_shadowed_by_the_base(native: ModuleType) -> None:
    assert orchestrator.WikiGenerator.__mro__[1:3] == (GeneratorBase, native.PlanRecordMixin)
    for name in ("_section_cache", "_select_stale", "_page_changes", "_persist_plan_skeleton"):
        assert name not in vars(GeneratorBase)


def test_save_page_then_stale_checks(impl: ModuleType, repo_root: Path, db: Database) -> None:
    gen = generator(impl, repo_root, db, "steer")
    plan = PagePlan(page_id="module-src", title="Src", source_files=["src/a.c", "src/b.c"])
    parent = PagePlan(page_id="fam", title="Fam", children=["module-src"], related_pages=["x"])
    assert gen._persist_plan_skeleton([plan, parent]) == 2
    gen.reload()
    assert gen._select_stale([plan, parent], gen._existing, False) == {"module-src", "fam"}
    body = "# Src\nLead é.\n## Loading\nSee [[src/a.c:1-2|a]].\n## Other\n[[src/b.c:1]] [[gone.c:3]]\n"
    row = gen.save_page(plan, body)
    assert (gen.pages_dir / "module-src.md").read_text(encoding="utf-8") == body
    assert row == gen._existing["module-src"] == Repository(db).row("main", "module-src")
    assert (row["status"], row["content_hash"], row["rel_path"]) == ("fresh", _text_hash(body), "pages/module-src.md")
    assert row["source_hashes"] == gen._hashes_with_steering(plan.source_files)
    a_hash, b_hash = file_hash(repo_root / "src/a.c"), file_hash(repo_root / "src/b.c")
    assert row["build_cache"]["file_hashes"] == {"gone.c": None, "src/a.c": a_hash, "src/b.c": b_hash}
    sections = row["build_cache"]["sections"]
    assert [(s["heading"], s["symbols"]) for s in sections] == [("Loading", ["a"]), ("Other", [])]
    parent_row = gen.save_page(parent, "## Family\n")
    assert (parent_row["source_files"], parent_row["related_pages"]) == ([], ["module-src"])
    assert gen._select_stale([plan, parent], gen._existing, False) == set()
    # A deleted file makes its page and the sections citing it stale.
    (repo_root / "src" / "b.c").unlink()
    assert gen._select_stale([plan, parent], gen._existing, False) == {"module-src"}
    changes = gen._page_changes(plan, gen._existing["module-src"])
    assert changes["changed_files"] == {"added": [], "removed": ["src/b.c"], "modified": []}
    assert [s["heading"] for s in changes["stale_sections"]] == ["Other"]


def test_plan_without_files_keeps_the_recorded_ones(impl: ModuleType, repo_root: Path, db: Database) -> None:
    Repository(db).upsert_wiki_page("main", "p", "P", source_files=["src/b.c"])
    gen = generator(impl, repo_root, db)
    row = gen.save_page(PagePlan(page_id="p", title="P"), "text", citations=[])
    assert row["source_files"] == ["src/b.c"]
    assert row["source_hashes"] == {"src/b.c": file_hash(repo_root / "src/b.c")}
    assert gen._select_stale([PagePlan(page_id="p")], gen._existing, False) == set()
