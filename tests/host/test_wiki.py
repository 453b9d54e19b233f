"""The ``Wiki`` object's promises on real git repositories: every saved text
stays in a planned page or the archive, every audit record is true and
written once, through renames, moves, family changes, deletions, injected
faults, killed runs and concurrent runs."""

from __future__ import annotations

import os
import shutil
from collections.abc import Callable
from pathlib import Path
from typing import Any

import pytest

from malde_ostrel.workers.wiki.repo_facts import _text_hash
from malde_ostrel.workers.wiki.tool import journal, store
from malde_ostrel.workers.wiki.tool.reports import WikiError
from malde_ostrel.workers.wiki.tool.wiki import Wiki

from .gitrepo import change, make_repo


def files(d: str, n: int, start: int = 0) -> dict[str, str]:
    return {f"{d}/f{i:02d}.py": f"# {d} {i}\nvalue_{i} = {i}\n" for i in range(start, start + n)}


@pytest.fixture
def repo(tmp_path: Path) -> Path:
    return make_repo(
        tmp_path / "repo", {**files("core", 3), **files("util", 2), **files("big", 10), "README.md": "hi\n"}
    )


class Texts:
    """The texts saved so far, and the checks every step must pass."""

    def __init__(self, wiki: Wiki) -> None:
        self.wiki = wiki
        self.saved: dict[str, str] = {}  # marker -> page it was saved to

    def save(self, page_id: str) -> None:
        marker = f"TEXT-{len(self.saved)}-{page_id}"
        for old in [m for m, p in self.saved.items() if p == page_id]:
            del self.saved[old]  # replaced by the user, on purpose
        self.wiki.save(page_id, f"# {page_id}\n\n{marker} [[core/f00.py:1]]\n")
        self.saved[marker] = page_id

    def check(self) -> None:
        # Pages of the plan, and of record (a save does not apply the plan).
        planned = {p.page_id for p in self.wiki.status().pages} | set(self.rows())
        bodies = {
            p: (self.wiki.pages_dir / f"{p}.md").read_text()
            for p in planned
            if (self.wiki.pages_dir / f"{p}.md").exists()
        }
        with store.Database.open(self.wiki.store) as db:
            archived = {r[0]: r[1] for r in db.execute("SELECT body, carried_to FROM archive")}
            assert journal.Journal(db).pending() == 0
        for marker in self.saved:
            where = [p for p, text in bodies.items() if marker in text]
            homeless = [b for b, to in archived.items() if marker in b and to is None]
            assert where or homeless, marker
        runs, bad = self.wiki.log(10_000).runs, self.wiki.log(1).skipped_lines
        assert not bad
        ids = [run["run"] for run in runs]
        assert len(ids) == len(set(ids))
        rows = self.rows()
        last = runs[-1]["amendments"] if runs else []
        gone = {a["page_id"] for a in last if a["action"] == "retire"}
        for record in last:  # the newest run's records are true now
            action, page = record["action"], record["page_id"]
            if action in ("add", "carry", "rename"):
                assert page in rows or (action == "rename" and page in gone), record
            if action == "retire":
                assert page not in rows, record
            if action == "carry":
                assert archived and page in bodies, record

    def rows(self) -> dict[str, dict[str, Any]]:
        with store.Database.open(self.wiki.store) as db:
            return store.Repository(db).rows(self.wiki.branch)


def test_texts_follow_their_files_through_a_history(repo: Path) -> None:
    wiki = Wiki.open(repo)
    texts = Texts(wiki)
    wiki.plan()
    for page in ("module-core", "module-util", "module-big"):
        texts.save(page)
    texts.check()

    # A rename and a directory move: same pages, same texts, still fresh.
    change(repo, move={"core/f01.py": "core/renamed.py", "util": "lib/util"})
    report = wiki.plan()
    assert {a["page_id"] for a in report.amendments if a["action"] == "rename"} == {"module-core", "module-util"}
    assert not {"module-core", "module-util"} & set(wiki.status().to_write)
    assert wiki.show("module-util").source_files == ["lib/util/f00.py", "lib/util/f01.py"]
    texts.check()

    # The big directory splits into a family: the old page is its parent, to write.
    change(repo, {**files("big", 4, 10), "core/f09.py": "x = 9\n"})
    report = wiki.plan()
    pages = {p.page_id: p for p in report.pages}
    assert pages["module-big"].children and pages["module-big"].to_write
    states = [pages[p].state for p in ("module-big", "module-core", "module-util")]
    assert states == ["changed", "changed", "kept"]
    assert "core/f09.py" in texts.rows()["module-core"]["source_files"]  # a joining file is of record
    for part in pages["module-big"].children:
        texts.save(part)
    texts.check()

    # Back at the split size and a little under it, the family stays as it is.
    for dropped in ("big/f13.py", "big/f12.py"):
        change(repo, drop=(dropped,))
        assert {a["action"] for a in wiki.plan().amendments} <= {"files"}
    change(repo, {"big/f13.py": "x = 13\n"})
    assert {a["action"] for a in wiki.plan().amendments} <= {"files"}
    # Well under it, the family collapses: the parts' texts go into the page that takes their files.
    change(repo, drop=tuple(f"big/f{i:02d}.py" for i in (7, 8, 9, 10, 11, 13)))
    report = wiki.plan()
    carried = [a for a in report.amendments if a["action"] == "carry"]
    assert {a["page_id"] for a in carried} == {"module-big"} and len(carried) == 2
    body = (wiki.pages_dir / "module-big.md").read_text()
    assert "Text carried from" in body and "module-big" in wiki.status().to_write
    texts.check()

    # A deleted directory: its text goes to the archive, from where it comes back.
    change(repo, drop=("lib",))
    report = wiki.plan()
    assert [(a["action"], a["page_id"]) for a in report.amendments if a["action"] != "retire"] == [
        ("archive", "module-util")
    ]
    texts.check()
    entry = next(e for e in wiki.archive() if e.carried_to is None)
    with pytest.raises(WikiError, match="no planned page holds its files"):
        wiki.restore(entry.id)
    assert wiki.restore(entry.id, into="module-core").into == "module-core"
    assert any(h.action == "restore" for h in wiki.history("module-core"))
    texts.check()

    # A replan, and a plan with nothing new: no records twice.
    change(repo, files("big", 5, 20))
    wiki.plan(replan=True)
    texts.check()
    before = len(wiki.log(10_000).runs)
    assert wiki.plan().amendments == [] and len(wiki.log(10_000).runs) == before


WRITES: list[tuple[Any, str]] = [(store.Database, "execute"), (journal, "_perform"), (journal, "temp_beside")]


def fault_at(mp: pytest.MonkeyPatch, n: int, fail: Callable[[], None]) -> None:
    """Make the n-th write (a row change, a file step) of the code under test call ``fail``."""
    count = [0]
    for owner, name in WRITES:
        real = getattr(owner, name)

        def hooked(*args: Any, _real: Any = real, **kwargs: Any) -> Any:
            sql = str(args[1]) if _real.__name__ == "execute" else "file"
            if sql.lstrip()[:6] in ("INSERT", "UPDATE", "DELETE") or sql == "file":
                count[0] += 1
                if count[0] == n:
                    fail()
            return _real(*args, **kwargs)

        mp.setattr(owner, name, hooked)


def state(wiki: Wiki) -> tuple[Any, ...]:
    """What a failed run must leave as it found it."""
    pages = sorted((p.name, p.read_bytes()) for p in wiki.pages_dir.glob("*"))
    log = wiki.log_path.read_bytes() if wiki.log_path.exists() else b""
    return Texts(wiki).rows(), pages, log


def test_a_fault_or_kill_at_any_write_loses_nothing(
    repo: Path, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    base = Texts(Wiki.open(repo))
    base.wiki.plan()
    for page in ("module-core", "module-util", "module-big"):
        base.save(page)
    change(repo, files("big", 4, 10), move={"core/f00.py": "core/g.py"}, drop=("util",))
    trials = 0
    for operation in ("plan", "save"):
        for n in range(1, 200):
            copies = []
            for kind in ("fail", "kill"):
                copy = tmp_path / f"{operation}-{n}-{kind}"
                shutil.copytree(repo, copy, symlinks=True)
                texts = Texts(Wiki.open(copy))
                texts.saved = base.saved.copy()
                run = texts.wiki.plan if operation == "plan" else lambda t=texts: t.save("module-core")
                copies.append((texts, run))
            (texts, run), (killed, kill_run) = copies
            before = state(texts.wiki)
            hit = [False]

            def boom() -> None:
                hit[0] = True
                raise OSError(5, "injected failure")

            with monkeypatch.context() as mp:
                fault_at(mp, n, boom)
                try:
                    run()
                except OSError:
                    assert state(texts.wiki) == before  # exit 1: nothing written
                    copies.pop(0)
            if not hit[0]:
                break
            pid = os.fork()
            if pid == 0:  # the same point, as a kill
                try:
                    fault_at(monkeypatch, n, lambda: os._exit(9))
                    kill_run()
                finally:
                    os._exit(3)
            assert os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]) == 9
            for t, again in copies:  # a later run finishes what the stopped one left
                again()
                t.check()
            trials += 1
    assert trials > 20


def at_once(repo: Path, run: Callable[[int, Wiki], object], times: int = 6) -> None:
    children = []
    for i in range(times):
        pid = os.fork()
        if pid == 0:
            code = 0
            try:
                with Wiki.open(repo) as mine:
                    run(i, mine)
            except BaseException:
                code = 1
            os._exit(code)
        children.append(pid)
    assert all(os.waitpid(pid, 0)[1] == 0 for pid in children)


def test_concurrent_runs_serialise(repo: Path) -> None:
    at_once(repo, lambda i, mine: mine.plan(), times=4)  # first plans, the store made by one
    wiki = Wiki.open(repo)
    assert len(wiki.log(100).runs) == 1
    change(repo, {**files("extra", 2), **files("more", 3)})
    at_once(repo, lambda i, mine: mine.save("module-core", f"# core\n\nwriter {i}\n") if i % 2 else mine.plan())
    records = [(a["action"], a["page_id"]) for run in wiki.log(100).runs for a in run["amendments"]]
    assert sorted(set(records)) == sorted(records) and ("add", "module-extra") in records
    # The body on disk is the one the row records, whichever save came last.
    body = (wiki.pages_dir / "module-core.md").read_text()
    assert Texts(wiki).rows()["module-core"]["content_hash"] == _text_hash(body)
