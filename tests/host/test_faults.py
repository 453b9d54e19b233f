"""``ostrel-wiki save`` under real file-system faults: each write, rename and
sync the command makes (SQLite's own included) failed with EIO, or the
command killed there, one point per trial, under strace. Every trial either
took effect and says so, or did not and says so with the old text in place;
no text it replaced is lost."""

from __future__ import annotations

import os
import re
import shutil
import sqlite3
import subprocess
import sys
from collections import Counter
from pathlib import Path

import pytest

from malde_ostrel.workers.wiki.repo_facts import _text_hash
from malde_ostrel.workers.wiki.tool.wiki import Wiki

from .gitrepo import ENV, make_repo

STRACE = shutil.which("strace")
CALLS = ("write", "pwrite64", "fsync", "fdatasync", "rename", "renameat", "renameat2")
OLD, NEW = "# Core\n\nthe old text\n", "# Core\n\nthe new text\n"
PAGE = "module-core"

pytestmark = pytest.mark.skipif(
    STRACE is None or "LD_PRELOAD" in os.environ, reason="needs strace, and no preloaded sanitizer runtimes"
)


def traced(repo: Path, log: Path, inject: str | None = None) -> subprocess.CompletedProcess[str]:
    """``save`` of the new text, its calls traced (the main thread's) into ``log``."""
    body = repo.parent / f"{repo.name}.md"
    body.write_text(NEW)
    tool = [sys.executable, "-P", "-m", "malde_ostrel.workers.wiki", "--repo", str(repo), "save", PAGE, str(body)]
    strace = [str(STRACE), "-qq", "-o", str(log), "-e", f"trace={','.join(CALLS)}", "-e", "signal=none"]
    if inject:
        strace += ["-e", f"inject={inject}"]
    return subprocess.run([*strace, *tool], env=ENV, capture_output=True, text=True, timeout=120)


def stored(repo: Path) -> tuple[str | None, str, list[bytes]]:
    """The page's body, its row's content hash and its revisions' texts (read without opening for write)."""
    state = repo / ".git" / "ostrel-wiki"
    page = state / "wiki" / "main" / "pages" / f"{PAGE}.md"
    with sqlite3.connect(f"file:{state / 'store.sqlite3'}?mode=ro", uri=True) as db:
        (recorded,) = db.execute("SELECT content_hash FROM wiki_pages WHERE page_id = ?", (PAGE,)).fetchone()
        kept = [bytes(b) for (b,) in db.execute("SELECT body FROM revisions WHERE page_id = ? ORDER BY id", (PAGE,))]
    return (page.read_text() if page.exists() else None), str(recorded), kept


def test_every_save_fault_and_kill_is_honest_and_loses_no_text(tmp_path: Path) -> None:
    repo = make_repo(tmp_path / "repo", {"core/a.py": "a = 1\n", "core/b.py": "b = 2\n", "util/c.py": "c = 3\n"})
    with Wiki.open(repo) as wiki:
        wiki.plan()
        wiki.save(PAGE, OLD)
    # One clean run names the points: each call's n-th invocation, in order.
    probe = shutil.copytree(repo, tmp_path / "probe", symlinks=True)
    assert traced(probe, tmp_path / "probe.log").returncode == 0
    seen: Counter[str] = Counter()
    points: list[tuple[str, int, bool]] = []  # (call, n, writes the command's output)
    for line in (tmp_path / "probe.log").read_text().splitlines():
        call = line.partition("(")[0]
        if call in CALLS:
            seen[call] += 1
            points.append((call, seen[call], bool(re.match(r"write\([12],", line))))
    outcomes: Counter[str] = Counter()
    for call, n, output in points:
        for fault in ("error=EIO", "signal=KILL"):
            if output and fault == "error=EIO":
                continue  # the report's own output, after the save: not the store's
            copy = shutil.copytree(repo, tmp_path / f"{call}-{n}-{fault[:5]}", symlinks=True)
            done = traced(copy, copy.parent / f"{copy.name}.log", f"{call}:{fault}:when={n}")
            assert "INJECTED" in (copy.parent / f"{copy.name}.log").read_text() or done.returncode == -9
            body, recorded, kept = stored(copy)
            if done.returncode == 1:  # failed: said so, old text in place, for good
                assert done.stderr.startswith("ostrel-wiki: error: ") and body == OLD, done.stderr
                assert recorded == _text_hash(OLD)
                outcome = "failed, old text in place"
            elif done.returncode == 0:  # took effect; what is left is said and done by the next run
                assert recorded == _text_hash(NEW) and OLD.encode() in kept, done.stderr
                assert body == NEW or "the next `ostrel-wiki` run finishes it" in done.stderr, done.stderr
                outcome = "saved" if body == NEW else "saved, next run finishes the file"
            else:
                assert done.returncode == -9, done.stderr
                outcome = "killed"
            with Wiki.open(copy) as wiki:
                wiki.plan()
            body, recorded, kept = stored(copy)
            assert recorded == _text_hash(body or "") and body in (OLD, NEW)
            assert body == OLD or OLD.encode() in kept
            if done.returncode == 1:
                assert body == OLD
            if outcome == "killed":
                outcome += ", old text" if body == OLD else ", new text"
            outcomes[f"{fault[:5]} {outcome}"] += 1
    print(f"\n{len(points)} points, {sum(outcomes.values())} trials: {dict(outcomes)}")
    assert outcomes["error saved"] and outcomes["error failed, old text in place"]
