"""``ostrel-wiki`` end to end: the real command, in a subprocess, on temporary
git repositories: what it prints, where it keeps its state, and the one-line
errors it gives for bad input, branches and damaged stores."""

from __future__ import annotations

import json
import os
import sqlite3
import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import pytest

GIT_ENV = {
    "GIT_AUTHOR_NAME": "Wiki Test",
    "GIT_AUTHOR_EMAIL": "wiki@example.invalid",
    "GIT_COMMITTER_NAME": "Wiki Test",
    "GIT_COMMITTER_EMAIL": "wiki@example.invalid",
    "GIT_CONFIG_GLOBAL": os.devnull,
    "GIT_CONFIG_NOSYSTEM": "1",
}
ENV = {k: v for k, v in os.environ.items() if k != "OSTREL_WIKI_STORE"} | GIT_ENV

STATE = Path(".git/ostrel-wiki")
STORE = STATE / "store.sqlite3"
WIKI = STATE / "wiki/trunk"

BODY = """# Core

Overview of the core, see [[core/a.py:1]].

## Loading

Values come from [[core/a.py:1-2|load]].

## Saving

Written by [[core/b.py:1]].
"""


def git(repo: Path, *args: str) -> None:
    subprocess.run(["git", *args], cwd=repo, env=ENV, check=True, capture_output=True)


def write(repo: Path, files: dict[str, str]) -> None:
    for rel, text in files.items():
        path = repo / rel
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text, encoding="utf-8")


def commit(repo: Path, message: str = "change") -> None:
    git(repo, "add", "-A")
    git(repo, "commit", "-q", "--allow-empty", "-m", message)


def make_repo(root: Path, files: dict[str, str]) -> Path:
    repo = root / "repo"
    repo.mkdir()
    git(repo, "init", "-q", "-b", "trunk", "--template=")
    write(repo, files)
    commit(repo, "initial")
    return repo


def run(
    repo: Path, *args: str, code: int = 0, env: dict[str, str] | None = None, cwd: Path | None = None
) -> subprocess.CompletedProcess[str]:
    where = [] if cwd else ["--repo", str(repo)]
    done = subprocess.run(
        [sys.executable, "-P", "-m", "malde_ostrel.workers.wiki", *where, *args],
        cwd=cwd or repo.parent,
        env=env or ENV,
        capture_output=True,
        text=True,
        timeout=300,
    )
    assert done.returncode == code, (done.stdout, done.stderr)
    return done


def plan(repo: Path, *args: str) -> dict[str, Any]:
    result: dict[str, Any] = json.loads(run(repo, "plan", "--json", *args).stdout)
    return result


def ids(report: dict[str, Any]) -> list[str]:
    return [page["page_id"] for page in report["pages"]]


def actions(report: dict[str, Any]) -> set[tuple[str, str]]:
    return {(a["action"], a["page_id"]) for a in report["amendments"]}


def snapshot(root: Path) -> dict[str, bytes]:
    """The files under ``root``: the work trees and the tool's state, not git's own."""
    return {
        str(rel): path.read_bytes()
        for path in sorted(root.rglob("*"))
        if path.is_file() and ("ostrel-wiki" in (rel := path.relative_to(root)).parts
                               or ".git" not in rel.parts)
    }


def one_error_line(done: subprocess.CompletedProcess[str], fragment: str) -> None:
    lines = done.stderr.splitlines()
    assert len(lines) == 1, done.stderr
    assert lines[0].startswith("ostrel-wiki: error: ") and fragment in lines[0], lines[0]
    assert "Traceback" not in done.stderr


def py(n: int) -> str:
    return "".join(f"v{i} = {i}\n" for i in range(n))


@pytest.fixture
def repo(tmp_path: Path) -> Path:
    return make_repo(
        tmp_path,
        {
            "core/a.py": py(3),
            "core/b.py": py(2),
            "net/http.c": "int f(void);\n",
            "net/http.h": "int f(void);\n",
            "util/x.go": "package util\n",
            "util/y.go": "package util\n",
            "main.py": py(1),
            "api/v1.py": py(1),
            "db/schema.sql": "create table t (x int);\n",
            "README.md": "# demo\n",
            **{f"big/f{i:02d}.rs": py(1) for i in range(14)},
        },
    )


def test_large_churn_warns_of_drift(repo: Path, tmp_path: Path) -> None:
    store = tmp_path / "elsewhere" / "wiki.sqlite3"
    env = ENV | {"OSTREL_WIKI_STORE": str(store)}
    run(repo, "plan", env=env)
    assert store.is_file() and not (repo / STORE).exists()
    for rel in ("core/a.py", "core/b.py", "net/http.c", "net/http.h", "util/x.go", "util/y.go"):
        (repo / rel).unlink()
    write(repo, {f"{d}/m{i}.py": py(1) for d in ("alpha", "beta", "gamma") for i in range(2)})
    commit(repo)
    done = run(repo, "plan", env=env)
    warnings = [line for line in done.stderr.splitlines() if "warning" in line]
    assert len(warnings) == 1 and "`ostrel-wiki --replan`" in warnings[0]
    assert "Drift:" in done.stdout
    assert "retire  module-net" in done.stdout
    # The advice works as given: a replan, and no warning after it.
    replanned = run(repo, "--replan", "--json", env=env)
    assert json.loads(replanned.stdout)["replan"] and "warning" not in replanned.stderr


def test_replan_maps_old_pages_to_new_ids(repo: Path) -> None:
    plan(repo)
    write(repo, {"tools/one.py": py(1)})
    commit(repo)
    # A lone new file goes to the catch-all page, and a second one follows it
    # there: pinning holds the structure.
    assert "module-additional" in ids(plan(repo))
    write(repo, {"tools/two.py": py(1)})
    commit(repo)
    pinned = plan(repo)
    assert "module-tools" not in ids(pinned)
    replanned = plan(repo, "--replan")
    assert replanned["replan"] and replanned["drift"] is None
    assert "module-tools" in ids(replanned) and "module-additional" not in ids(replanned)
    assert replanned["remap"] == {"module-tools": "module-additional"}
    assert ("retire", "module-additional") in actions(replanned)
    log = json.loads(run(repo, "log", "-n", "1", "--json").stdout)
    assert len(log) == 1 and log[0]["replan"] is True
    remaps = [a for a in log[0]["amendments"] if a["action"] == "remap"]
    assert remaps == [
        {
            "action": "remap",
            "page_id": "module-tools",
            "reason": "takes the place of module-additional (no text to carry)",
            "from": "module-additional",
            "level": "module",
        }
    ]
    text = run(repo, "log").stdout
    assert "replan" in text and "remap   module-tools" in text
    # The replanned structure is now the plan of record.
    after = plan(repo)
    assert after["amendments"] == [] and set(ids(after)) == set(ids(replanned))


def test_saved_page_shows_its_stale_section_after_an_edit(repo: Path) -> None:
    run(repo, "plan")
    body = repo.parent / "core.md"
    body.write_text(BODY, encoding="utf-8")
    saved = json.loads(run(repo, "save", "module-core", str(body), "--json").stdout)
    assert saved["citations"] == 3
    assert [s["heading"] for s in saved["sections"]] == ["", "Loading", "Saving"]
    page = repo / WIKI / "pages/module-core.md"
    assert page.read_text(encoding="utf-8") == BODY
    # A family part is saved too; saving it must not unsettle its family.
    run(repo, "save", "module-big-part-f00", str(body))

    status = json.loads(run(repo, "status", "--json").stdout)
    pages = {p["page_id"]: p for p in status["pages"]}
    assert "module-core" not in status["to_write"] and pages["module-core"]["written"]
    assert pages["module-core"]["stale_sections"] == []

    write(repo, {"core/b.py": py(5)})
    commit(repo)
    status = json.loads(run(repo, "status", "--json").stdout)
    core = {p["page_id"]: p for p in status["pages"]}["module-core"]
    assert "module-core" in status["to_write"]
    assert core["changed_files"] == {"added": [], "removed": [], "modified": ["core/b.py"]}
    assert [s["heading"] for s in core["stale_sections"]] == ["Saving"]
    text = run(repo, "status").stdout
    assert 'stale section "Saving" cites core/b.py' in text

    again = plan(repo)
    assert again["amendments"] == [] and "module-big" in ids(again)
    states = {p["page_id"]: (p["state"], p["to_write"]) for p in again["pages"]}
    assert states["module-core"] == ("kept", True)
    assert states["module-big-part-f00"] == ("kept", False)


def test_steering_pages_and_text(repo: Path) -> None:
    steering = 'steering = "Be brief."\n[[page]]\ntitle = "Docs"\nfiles = ["*.md"]\n'
    write(repo, {".ostrel-wiki.toml": steering})
    commit(repo)
    first = plan(repo)
    docs = {p["page_id"]: p for p in first["pages"]}["custom-docs"]
    assert docs["source_files"] == ["README.md"]
    body = repo.parent / "core.md"
    body.write_text(BODY, encoding="utf-8")
    run(repo, "save", "module-core", str(body))
    assert "module-core" not in json.loads(run(repo, "status", "--json").stdout)["to_write"]
    # A change of the steering text makes written pages stale; dropping a
    # steering page retires it.
    write(repo, {".ostrel-wiki.toml": 'steering = "Be thorough."\n'})
    commit(repo)
    second = plan(repo)
    assert ("retire", "custom-docs") in actions(second)
    assert {p["page_id"]: p for p in second["pages"]}["module-core"]["to_write"]


def test_plain_directory_is_walked(tmp_path: Path) -> None:
    root = tmp_path / "plain"
    write(
        root,
        {
            "app/a.py": "", "app/b.py": "", "node_modules/x/i.js": "", ".hidden/h.py": "",
            "app/__pycache__/c.py": "", "build/gen.c": "", "venv/lib/s.py": "",
        },
    )  # fmt: skip
    report = plan(root)
    assert report["branch"] == "main"
    assert ids(report) == ["overview", "module-app"]
    assert (root / ".ostrel-wiki/wiki/main/plan-log.jsonl").is_file()
    # The wiki's own output is never part of what it documents.
    write(root, {".ostrel-wiki.toml": '[[page]]\ntitle = "All"\nfiles = ["**"]\n'})
    pages = {p["page_id"]: p for p in plan(root)["pages"]}
    assert pages["custom-all"]["source_files"] == [".ostrel-wiki.toml", "app/a.py", "app/b.py"]


def test_bad_input_is_one_line_and_writes_nothing(repo: Path, tmp_path: Path) -> None:
    missing = tmp_path / "nope"
    one_error_line(run(missing, "plan", code=1), "does not exist")
    one_error_line(run(repo / "README.md", "plan", code=1), "not a directory")
    assert not missing.exists()

    run(repo, "plan")
    good = tmp_path / "good.md"
    good.write_text(BODY, encoding="utf-8")
    latin = tmp_path / "latin.md"
    latin.write_bytes("caf\xe9 [[core/a.py:1]]".encode("latin-1"))
    before = snapshot(tmp_path)
    one_error_line(run(repo, "save", "module-nowhere", str(good), code=1), "unknown page id")
    one_error_line(run(repo, "save", "module-core", str(latin), code=1), "not UTF-8")
    gone = str(tmp_path / "gone.md")
    one_error_line(run(repo, "save", "module-core", gone, code=1), "cannot read")
    one_error_line(run(repo, "--branch", "../x", "status", code=1), "branch name")
    assert snapshot(tmp_path) == before

    usage = run(repo, "log", "-n", "0", code=2)
    assert "usage:" in usage.stderr and "Traceback" not in usage.stderr
    run(repo, "frobnicate", code=2)


def test_store_from_a_newer_release_is_refused_untouched(repo: Path) -> None:
    store = repo / STORE
    store.parent.mkdir()
    conn = sqlite3.connect(store)
    conn.execute("PRAGMA user_version = 99")
    conn.close()
    before = snapshot(repo.parent)
    for args in (["plan"], ["status"], ["save", "module-core", str(repo / "README.md")]):
        one_error_line(run(repo, *args, code=1), "schema version 99")
    assert snapshot(repo.parent) == before


@pytest.fixture
def read_only(repo: Path) -> Iterator[Path]:
    run(repo, "plan")
    store = repo / STORE
    store_dir = store.parent
    store.chmod(0o444)
    store_dir.chmod(0o555)
    try:
        try:
            with store.open("ab"):
                writable = True
        except OSError:
            writable = False
        if writable:
            pytest.skip("this user may write to read-only files")
        yield store
    finally:
        store_dir.chmod(0o755)
        store.chmod(0o644)


def test_read_only_store_is_refused(repo: Path, read_only: Path) -> None:
    body = repo.parent / "core.md"
    body.write_text(BODY, encoding="utf-8")
    write(repo, {"extra/a.py": "", "extra/b.py": ""})
    commit(repo)
    before = snapshot(repo.parent)
    one_error_line(run(repo, "plan", code=1), "")
    one_error_line(run(repo, "save", "module-core", str(body), code=1), "")
    assert snapshot(repo.parent) == before


def test_works_from_a_subdirectory_and_keeps_out_of_the_work_tree(repo: Path) -> None:
    sub = repo / "core"
    assert "module-core" in run(repo, "plan", cwd=sub).stdout
    assert (repo / STORE).is_file() and not (sub / ".ostrel-wiki").exists()
    status = subprocess.run(["git", "status", "--porcelain"], cwd=repo, capture_output=True, text=True)
    assert status.stdout == ""
    # A closed output pipe ends the run quietly.
    done = subprocess.run(f"{sys.executable} -P -m malde_ostrel.workers.wiki plan | head -c 10",
                          shell=True, cwd=sub, env=ENV, capture_output=True, text=True)
    assert done.stderr == "" and len(done.stdout) == 10
    body = repo.parent / "empty.md"
    body.write_text("\n")
    one_error_line(run(repo, "save", "module-core", str(body), code=1, cwd=sub), "--allow-empty")
    body.write_text(BODY)
    run(repo, "save", "module-core", str(body), cwd=sub)
    shown = run(repo, "show", "module-core", cwd=sub).stdout
    assert "file  core/a.py" in shown and "## Loading" in shown


def test_branches_are_planned_from_their_own_tree(repo: Path) -> None:
    git(repo, "checkout", "-qb", "feature")
    write(repo, {"only/here.py": py(1), "only/there.py": py(1)})
    commit(repo)
    git(repo, "checkout", "-q", "trunk")
    feature = plan(repo, "--branch", "feature")
    assert feature["branch"] == "feature" and "module-only" in ids(feature)
    assert "module-only" not in ids(plan(repo))
    one_error_line(run(repo, "--branch", "nope", "plan", code=1), "nope")
    git(repo, "checkout", "-q", "--detach")
    one_error_line(run(repo, "plan", code=1), "--branch")


def _set_field(value: str) -> Any:
    def damage(store: Path) -> None:
        conn = sqlite3.connect(store, isolation_level=None)
        conn.execute("UPDATE wiki_pages SET source_files = ? WHERE page_id = 'module-core'", (value,))
        conn.execute("PRAGMA wal_checkpoint(TRUNCATE)")
        conn.close()
    return damage


def _malformed(store: Path) -> None:
    conn = sqlite3.connect(store, isolation_level=None)
    conn.execute("PRAGMA wal_checkpoint(TRUNCATE)")
    conn.close()
    with store.open("r+b") as file:
        file.seek(4096 * 2)
        file.write(b"\x0d\xff\xff\xff" * 400)


@pytest.mark.parametrize(
    ("damage", "fragment"),
    [
        (_set_field("not json"), "page module-core of branch trunk has a malformed source_files"),
        (_set_field("null"), "malformed source_files"),
        (_set_field("3"), "malformed source_files"),
        (lambda store: store.write_bytes(b""), "is empty (0 bytes)"),
        (_malformed, "is damaged (database disk image is malformed)"),
    ],
)
def test_damaged_store_gets_one_line_then_doctor_repairs(repo: Path, damage: Any, fragment: str) -> None:
    run(repo, "plan")
    store = repo / STORE
    damage(store)
    before = snapshot(repo.parent)
    for args in (["plan"], ["status"]):
        done = run(repo, *args, code=1)
        one_error_line(done, fragment)
        assert str(store) in done.stderr and "doctor" in done.stderr
    assert snapshot(repo.parent) == before
    assert "repaired:" in run(repo, "doctor").stdout
    run(repo, "plan")
    assert "no problems found" in run(repo, "doctor").stdout


def test_unreadable_log_line_is_skipped_and_set_aside(repo: Path) -> None:
    run(repo, "plan")
    log = repo / WIKI / "plan-log.jsonl"
    with log.open("ab") as file:
        file.write(b"\xff\xfe not a record\n")
    write(repo, {"extra/a.py": "", "extra/b.py": ""})
    commit(repo)
    assert "module-extra" in run(repo, "plan").stdout
    done = run(repo, "log")
    assert "line(s) 2" in done.stderr and "module-extra" in done.stdout
    run(repo, "doctor")
    assert run(repo, "log").stderr == "" and b"not a record" in log.with_name("plan-log.jsonl.bad").read_bytes()
