"""The plan audit log and the store side under a hostile environment: a full
disk, a directory replaced by a file, a log that is not UTF-8, a page store
locked by another process or opened read-only. Each time the caller sees the
documented outcome and what was written before stays as it was."""

from __future__ import annotations

import json
import logging
import shutil
import sqlite3
import subprocess
import sys
import textwrap
from collections.abc import Iterator
from pathlib import Path
from types import ModuleType
from typing import Any

import pytest

from malde_ostrel.workers.wiki.store import Database, Repository
from malde_ostrel.workers.wiki.types import PagePlan

from .conftest import NATIVE, TWIN

WARNING = "could not append wiki plan log"
AMENDMENTS = [{"action": "add", "page_id": "module-a", "reason": "new subsystem (2 files)"}]


def prefill(path: Path, count: int) -> bytes:
    path.parent.mkdir(parents=True, exist_ok=True)
    data = b"".join(b'{"old": %d}\n' % i for i in range(count))
    path.write_bytes(data)
    return data


def warnings(caplog: pytest.LogCaptureFixture) -> list[logging.LogRecord]:
    return [r for r in caplog.records if r.getMessage() == WARNING]


class TestPlanLogOnAFullDisk:
    """A file-size limit makes every write past it fail with EFBIG."""

    @pytest.mark.parametrize("kind", ["native", "twin"])
    @pytest.mark.parametrize("room", [0, 10])
    def test_warning_and_earlier_lines_intact(self, kind: str, room: int, tmp_path: Path) -> None:
        log = tmp_path / "wiki" / "plan-log.jsonl"
        before = prefill(log, 5)
        script = f"""
            import json, logging, resource, signal, sys
            from pathlib import Path
            import importlib
            module = importlib.import_module({NATIVE if kind == "native" else TWIN!r})
            seen = []
            class Catch(logging.Handler):
                def emit(self, record):
                    seen.append((record.getMessage(), record.levelname,
                                 record.exc_info[0].__name__ if record.exc_info else None))
            logging.getLogger().addHandler(Catch())
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            limit = {len(before) + room}
            resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit))
            result = module.append_plan_log(Path({str(log.parent)!r}),
                                            {AMENDMENTS!r} * 20, replan=False)
            print(json.dumps([result, seen]))
            """
        run = subprocess.run([sys.executable, "-P", "-c", textwrap.dedent(script)],
                             capture_output=True, text=True, timeout=120)
        assert run.returncode == 0, run.stderr
        result, seen = json.loads(run.stdout)
        assert result is None
        assert seen == [[WARNING, "WARNING", "OSError"]]
        after = log.read_bytes()
        # Nothing fits without room; with a little room a cut piece of the record
        # may follow, but every earlier line is as it was.
        assert after.startswith(before) and len(after) <= len(before) + room
        if room == 0:
            assert after == before


class TestPlanLogPaths:
    def test_directory_replaced_by_a_file_between_calls(self, impl: ModuleType, tmp_path: Path,
                                                         caplog: pytest.LogCaptureFixture) -> None:
        wiki = tmp_path / "wiki"
        impl.append_plan_log(wiki, AMENDMENTS, replan=False)
        first = (wiki / "plan-log.jsonl").read_bytes()
        assert first.count(b"\n") == 1 and not warnings(caplog)
        shutil.rmtree(wiki)
        wiki.write_bytes(first)
        assert impl.append_plan_log(wiki, AMENDMENTS, replan=True) is None
        [record] = warnings(caplog)
        assert record.levelno == logging.WARNING and record.exc_info is not None
        assert issubclass(record.exc_info[0], OSError)
        assert wiki.read_bytes() == first

    def test_log_replaced_by_a_directory(self, impl: ModuleType, tmp_path: Path,
                                         caplog: pytest.LogCaptureFixture) -> None:
        wiki = tmp_path / "wiki"
        impl.append_plan_log(wiki, AMENDMENTS, replan=False)
        (wiki / "plan-log.jsonl").unlink()
        (wiki / "plan-log.jsonl").mkdir()
        (wiki / "plan-log.jsonl" / "kept").write_text("kept")
        assert impl.append_plan_log(wiki, AMENDMENTS, replan=False) is None
        [record] = warnings(caplog)
        assert record.exc_info is not None and issubclass(record.exc_info[0], OSError)
        assert (wiki / "plan-log.jsonl" / "kept").read_text() == "kept"

    @pytest.mark.parametrize("count", [3, 2000])
    def test_log_not_utf8_fails_after_the_append(self, impl: ModuleType, tmp_path: Path, count: int,
                                                 caplog: pytest.LogCaptureFixture) -> None:
        log = tmp_path / "wiki" / "plan-log.jsonl"
        before = prefill(log, count) + b'{"bad": "\xff\xfe"}\n'
        log.write_bytes(before)
        with pytest.raises(UnicodeDecodeError):
            impl.append_plan_log(log.parent, AMENDMENTS, replan=False)
        after = log.read_bytes()
        # The record went in; no trim happened even past the line limit.
        assert after.startswith(before)
        added = after[len(before):]
        assert added.count(b"\n") == 1 and added.endswith(b"\n")
        assert json.loads(added)["amendments"] == AMENDMENTS
        assert not warnings(caplog)
        assert not log.with_name("plan-log.jsonl.trim").exists()


# ---------------------------------------------------------------------------
# The store side on a real page store.

class Host:
    def __init__(self, impl: ModuleType, db: Database) -> None:
        class Generator(impl.PlanRecordMixin):  # type: ignore[name-defined,misc]
            branch = "main"

            def __init__(self) -> None:
                self.repository = Repository(db)
                self._existing: dict[str, Any] = {}

        self.generator = Generator()


def plans(*ids: str) -> list[PagePlan]:
    return [PagePlan(page_id=pid, source_files=[f"{pid}.c"]) for pid in ids]


@pytest.fixture
def store(tmp_path: Path) -> Iterator[Database]:
    with Database.open(tmp_path / "state" / "wiki.db") as db:
        yield db


class Locker:
    """Another process holding the store's write lock until released."""

    def __init__(self, path: Path) -> None:
        self.process = subprocess.Popen(
            [sys.executable, "-P", "-c", textwrap.dedent(f"""
                import sqlite3, sys
                conn = sqlite3.connect({str(path)!r}, isolation_level=None)
                conn.execute("BEGIN IMMEDIATE")
                print("locked", flush=True)
                sys.stdin.readline()
                conn.execute("ROLLBACK")
                """)],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        assert self.process.stdout is not None and self.process.stdout.readline() == "locked\n"

    def release(self) -> None:
        assert self.process.stdin is not None
        self.process.stdin.write("\n")
        self.process.stdin.close()
        assert self.process.wait(timeout=60) == 0


class TestStoreLocked:
    def test_skeleton_and_marking_fail_and_rows_stay(self, impl: ModuleType, store: Database) -> None:
        host = Host(impl, store).generator
        assert host._persist_plan_skeleton(plans("module-a", "module-b")) == 2
        before = Repository(store).rows("main")
        store.execute("PRAGMA busy_timeout=100")
        locker = Locker(store.path)
        try:
            with pytest.raises(sqlite3.OperationalError, match="locked"):
                host._persist_plan_skeleton(plans("module-c", "module-d"))
            with pytest.raises(sqlite3.OperationalError, match="locked"):
                host._mark_synthesis_stale(["module-a"])
            assert not store._conn.in_transaction
        finally:
            locker.release()
        assert Repository(store).rows("main") == before
        # Once the lock is gone the same calls go through.
        assert host._persist_plan_skeleton(plans("module-c")) == 1
        assert sorted(Repository(store).rows("main")) == ["module-a", "module-b", "module-c"]


class TestStoreReadOnly:
    def test_query_only(self, impl: ModuleType, store: Database) -> None:
        host = Host(impl, store).generator
        assert host._persist_plan_skeleton(plans("module-a")) == 1
        store.execute("UPDATE wiki_pages SET source_hashes = ? WHERE page_id = ?",
                      (json.dumps({"module-a.c": "h1"}), "module-a"))
        before = Repository(store).rows("main")
        store.execute("PRAGMA query_only=ON")
        with pytest.raises(sqlite3.OperationalError, match="readonly"):
            host._persist_plan_skeleton(plans("module-b", "module-c"))
        with pytest.raises(sqlite3.OperationalError, match="readonly"):
            host._mark_synthesis_stale(["module-a"])
        assert Repository(store).rows("main") == before

    def test_opened_read_only(self, impl: ModuleType, store: Database) -> None:
        writer = Host(impl, store).generator
        assert writer._persist_plan_skeleton(plans("module-a")) == 1
        before = Repository(store).rows("main")
        uri = f"file:{store.path}?mode=ro"
        readonly = Database(sqlite3.connect(uri, uri=True, isolation_level=None), store.path)
        try:
            host = Host(impl, readonly).generator
            with pytest.raises(sqlite3.OperationalError, match="readonly"):
                host._persist_plan_skeleton(plans("module-b"))
            with pytest.raises(sqlite3.OperationalError, match="readonly"):
                host._mark_synthesis_stale(["module-a"])
            assert Repository(readonly).rows("main") == before
        finally:
            readonly.close()
        assert Repository(store).rows("main") == before
