"""The SQLite page store (schema, rows, transactions, a second connection) and the
generator's host side on it (file hashes, steering, saving a page, the plan
skeleton), with the store-side mixin of the native module and of the twin."""

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
from malde_ostrel.workers.wiki.steering import STEERING_SENTINEL
from malde_ostrel.workers.wiki.store import SCHEMA_VERSION, Database, Repository, StoreError
from malde_ostrel.workers.wiki.types import PagePlan

STALE_MARK = {"__stale__": "pending"}


@pytest.fixture
def db(tmp_path: Path) -> Iterator[Database]:
    with Database.open(tmp_path / "state" / "wiki.db") as database:
        yield database


def test_schema_created_reopened_and_newer_or_foreign_refused(tmp_path: Path) -> None:
    path = tmp_path / "a" / "b" / "wiki.db"
    with Database.open(path) as db:
        pragmas = [db.execute(f"PRAGMA {name}").fetchone()[0]
                   for name in ("user_version", "journal_mode", "foreign_keys", "busy_timeout")]
        assert pragmas == [SCHEMA_VERSION, "wal", 1, 5000]
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


def test_rows_round_trip_with_defaults_order_and_branches(db: Database) -> None:
    repo = Repository(db)
    cache = {"sections": [{"heading": "A", "files": ["a.c"]}], "file_hashes": {"a.c": None}}
    for pid in ("b", "a", "B"):
        repo.upsert_wiki_page("main", pid, pid.upper(), source_files=["x/é.c"],
                              source_hashes={"x/é.c": "1f", "gone.c": None},
                              related_pages=["c"], build_cache=cache)
    repo.upsert_wiki_page("dev", "a", "other branch")
    rows = repo.rows("main")
    assert list(rows) == ["B", "a", "b"] and rows["a"] == repo.row("main", "a")
    row = {k: v for k, v in rows["a"].items() if k != "updated_at"}
    assert row == {"page_id": "a", "title": "A", "description": "", "importance": "medium",
                   "level": "module", "parent_section": None, "rel_path": "",
                   "source_files": ["x/é.c"], "source_hashes": {"x/é.c": "1f", "gone.c": None},
                   "related_pages": [], "status": "stale", "page_type": "", "content_hash": "",
                   "build_cache": cache, "agent_title": ""}
    assert rows["a"]["updated_at"].endswith("Z") and repo.row("main", "zz") is None
    assert repo.branches() == ["dev", "main"]
    repo.delete_wiki_page("main", "a")
    assert list(repo.rows("main")) == ["B", "b"] and list(repo.rows("dev")) == ["a"]
    # Only a row without files (a family parent) records related pages.
    repo.upsert_wiki_page("main", "p", "P", related_pages=["b"])
    assert repo.row("main", "p")["related_pages"] == ["b"]  # type: ignore[index]
    # An update changes only the given columns, and the time.
    repo.upsert_wiki_page("main", "p", "Old", description="kept", status="fresh", parent_section="Code")
    db.execute("UPDATE wiki_pages SET updated_at = '2000-01-01T00:00:00.000Z'")
    repo.upsert_wiki_page("main", "p", "New", status="stale", parent_section=None)
    row = repo.row("main", "p")  # type: ignore[assignment]
    assert row is not None and row["updated_at"] > "2001"
    assert [row[k] for k in ("title", "description", "status", "parent_section")] == ["New", "kept", "stale", None]
    for bad in ({"colour": "red"}, {"updated_at": "x"}, {"status": "fresh", "Level": "x"}):
        for pid in ("p", "q"):
            with pytest.raises(ValueError, match="unknown wiki page column"):
                repo.upsert_wiki_page("main", pid, "Bad", **bad)
    assert repo.row("main", "p") == row and repo.row("main", "q") is None


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
    with Database.open(db.path) as other:
        other.execute("PRAGMA busy_timeout = 50")
        with db.transaction():
            repo.upsert_wiki_page("main", "e", "E")
            assert list(Repository(other).rows("main")) == ["a", "c"]
            with pytest.raises(sqlite3.OperationalError, match="locked"):
                with other.transaction():
                    pass
        assert list(Repository(other).rows("main")) == ["a", "c", "e"]


@pytest.fixture
def repo_root(tmp_path: Path) -> Path:
    root = tmp_path / "repo"
    (root / "src").mkdir(parents=True)
    (root / "src" / "a.c").write_text("int a;\nint b;\n")
    (root / "src" / "b.c").write_text("int c;\n")
    (tmp_path / "outside.c").write_text("secret")
    return root


def generator(impl: ModuleType, root: Path, db: Database, steering: str | None = None, branch: str = "main") -> Any:
    cls = generator_class(impl.PlanRecordMixin)
    return cls(root, Repository(db), branch, root.parent / "wiki" / branch / "pages", steering)


def test_native_mixin_is_not_shadowed_by_the_base(native: ModuleType) -> None:
    assert orchestrator.WikiGenerator.__mro__[1:3] == (GeneratorBase, native.PlanRecordMixin)
    for name in ("_section_cache", "_select_stale", "_page_changes", "_persist_plan_skeleton"):
        assert name not in vars(GeneratorBase)


def test_source_hashes_and_steering(twin: ModuleType, repo_root: Path, db: Database) -> None:
    gen = generator(twin, repo_root, db)
    paths = ["src/a.c", "./src/b.c", "gone.c", "src", "../outside.c", "src/a.c/x"]
    hashes = gen._source_hashes(paths)
    assert hashes == {"src/a.c": file_hash(repo_root / "src/a.c"),
                      "./src/b.c": file_hash(repo_root / "src/b.c"),
                      "gone.c": None, "src": None, "../outside.c": None, "src/a.c/x": None}
    assert gen._hashes_with_steering(paths) == hashes
    assert generator(twin, repo_root, db, "")._hashes_with_steering(paths) == hashes
    steered = generator(twin, repo_root, db, "Explain the loader.")._hashes_with_steering(paths)
    assert steered == {**hashes, STEERING_SENTINEL: _text_hash("Explain the loader.")}


def test_skeleton_is_one_transaction_on_its_own_branch(
    impl: ModuleType, repo_root: Path, db: Database, monkeypatch: pytest.MonkeyPatch
) -> None:
    plans = [PagePlan(page_id="module-src", title="Src", source_files=["src/a.c"]),
             PagePlan(page_id="module-b", title="B", source_files=["src/b.c"])]
    other = generator(impl, repo_root, db, branch="dev")
    assert other._persist_plan_skeleton(plans[:1]) == 1
    before = Repository(db).rows("dev")
    gen = generator(impl, repo_root, db)
    with monkeypatch.context() as patch:
        patch.setattr(impl, "section_of", lambda p: "Code" if p.page_id == "module-src" else 1 / 0)
        with pytest.raises(ZeroDivisionError):
            gen._persist_plan_skeleton(plans)
    assert Repository(db).rows("main") == {}
    assert gen._persist_plan_skeleton(plans) == 2
    rows = Repository(db).rows("main")
    assert all(r["source_hashes"] == STALE_MARK and r["status"] == "stale" for r in rows.values())
    assert set(rows) == {"module-src", "module-b"} and Repository(db).rows("dev") == before


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
    assert (row["status"], row["content_hash"], row["rel_path"]) == \
        ("fresh", _text_hash(body), "pages/module-src.md")
    assert row["source_hashes"] == gen._hashes_with_steering(plan.source_files)
    a_hash, b_hash = file_hash(repo_root / "src/a.c"), file_hash(repo_root / "src/b.c")
    assert row["build_cache"]["file_hashes"] == {"gone.c": None, "src/a.c": a_hash, "src/b.c": b_hash}
    assert [s["heading"] for s in row["build_cache"]["sections"]] == ["Loading", "Other"]
    assert row["build_cache"]["sections"][0]["symbols"] == ["a"]
    parent_row = gen.save_page(parent, "## Family\n")
    assert (parent_row["source_files"], parent_row["related_pages"]) == ([], ["module-src"])
    assert gen._select_stale([plan, parent], gen._existing, False) == set()
    assert gen._page_changes(plan, row)["changed_files"] == {"added": [], "removed": [], "modified": []}
    # An edited file makes its page and the sections citing it stale; a deleted one too.
    (repo_root / "src" / "a.c").write_text("int a;\nchanged\n")
    assert gen._select_stale([plan, parent], gen._existing, False) == {"module-src"}
    changes = gen._page_changes(plan, gen._existing["module-src"])
    assert changes["changed_files"]["modified"] == ["src/a.c"]
    assert [s["heading"] for s in changes["stale_sections"]] == ["Loading"]
    (repo_root / "src" / "b.c").unlink()
    changes = gen._page_changes(plan, gen._existing["module-src"])
    assert (changes["changed_files"]["removed"], len(changes["stale_sections"])) == (["src/b.c"], 2)
    db.execute("UPDATE wiki_pages SET updated_at = '2000-01-01T00:00:00.000Z'")
    gen._mark_synthesis_stale(["fam", "fam", "nowhere"])
    gen.reload()
    assert gen._existing["fam"]["source_hashes"] == STALE_MARK
    assert gen._existing["fam"]["updated_at"] > "2001" > gen._existing["module-src"]["updated_at"]
    assert gen._retire_pages([{"action": "retire", "page_id": "fam"}]) == ["fam"]
    assert Repository(db).row("main", "fam") is None


def test_plan_without_files_keeps_the_recorded_ones(impl: ModuleType, repo_root: Path, db: Database) -> None:
    Repository(db).upsert_wiki_page("main", "p", "P", source_files=["src/b.c"])
    gen = generator(impl, repo_root, db)
    row = gen.save_page(PagePlan(page_id="p", title="P"), "text", citations=[])
    assert row["source_files"] == ["src/b.c"]
    assert row["source_hashes"] == {"src/b.c": file_hash(repo_root / "src/b.c")}
    assert gen._select_stale([PagePlan(page_id="p")], gen._existing, False) == set()
