"""``ostrel-wiki`` end to end: the real command, in a subprocess, on temporary
git repositories: what it prints, where it keeps its state, and the one-line
errors it gives for bad input, branches and damaged stores."""

from __future__ import annotations

import json
import os
import sqlite3
import subprocess
import sys
from collections.abc import Callable
from pathlib import Path
from typing import Any

import pytest

from .gitrepo import ENV, change, git, make_repo, write

STATE = Path(".git/ostrel-wiki")
STORE = STATE / "store.sqlite3"
WIKI = STATE / "wiki/trunk"
BODY = (
    "# Core\n\nOverview of the core, see [[core/a.py:1]].\n\n## Loading\n\nValues come from "
    "[[core/a.py:1-2|load]].\n\n## Saving\n\nWritten by [[core/b.py:1]].\n"
)


def run(
    repo: Path,
    *args: str,
    code: int = 0,
    env: dict[str, str] | None = None,
    cwd: Path | None = None,
    input: str | None = None,
) -> subprocess.CompletedProcess[str]:
    where = [] if cwd else ["--repo", str(repo)]
    done = subprocess.run([sys.executable, "-P", "-m", "malde_ostrel.workers.wiki", *where, *args],
                          cwd=cwd or repo.parent, env=env or ENV, capture_output=True, text=True,
                          timeout=300, input=input)  # fmt: skip
    assert done.returncode == code, (done.stdout, done.stderr)
    return done


def plan(repo: Path, *args: str) -> dict[str, Any]:
    result: dict[str, Any] = json.loads(run(repo, "plan", "--json", *args).stdout)
    return result


def pages(report: dict[str, Any]) -> dict[str, dict[str, Any]]:
    return {page["page_id"]: page for page in report["pages"]}


def actions(report: dict[str, Any]) -> set[tuple[str, str]]:
    return {(a["action"], a["page_id"]) for a in report["amendments"]}


def snapshot(root: Path) -> dict[str, bytes]:
    """The files under ``root``: the work trees and the tool's state, not git's own."""
    return {str(rel): path.read_bytes() for path in sorted(root.rglob("*"))
            if path.is_file() and ("ostrel-wiki" in (rel := path.relative_to(root)).parts
                                   or ".git" not in rel.parts)}  # fmt: skip


def one_error_line(done: subprocess.CompletedProcess[str], fragment: str) -> None:
    lines = done.stderr.splitlines()
    assert len(lines) == 1 and lines[0].startswith("ostrel-wiki: error: ") and fragment in lines[0], done.stderr


def py(n: int) -> str:
    return "".join(f"v{i} = {i}\n" for i in range(n))


@pytest.fixture
def repo(tmp_path: Path) -> Path:
    return make_repo(tmp_path / "repo", {
        "core/a.py": py(3), "core/b.py": py(2), "net/http.c": "int f(void);\n",
        "net/http.h": "int f(void);\n", "util/x.go": "package util\n", "util/y.go": "package util\n",
        "main.py": py(1), "api/v1.py": py(1), "db/schema.sql": "create table t (x int);\n",
        "README.md": "# demo\n", **{f"big/f{i:02d}.rs": py(1) for i in range(14)},
    }, branch="trunk")  # fmt: skip


@pytest.fixture
def body(tmp_path: Path) -> Path:
    path = tmp_path / "core.md"
    path.write_text(BODY, encoding="utf-8")
    return path


def test_large_churn_warns_of_drift_and_the_store_can_live_elsewhere(repo: Path, tmp_path: Path) -> None:
    store = tmp_path / "elsewhere" / "wiki.sqlite3"
    env = ENV | {"OSTREL_WIKI_STORE": str(store)}
    run(repo, "plan", env=env)
    assert store.is_file() and not (repo / STORE).exists()
    change(
        repo,
        {f"{d}/m{i}.py": py(1) for d in ("alpha", "beta", "gamma") for i in range(2)},
        drop=("core", "net", "util"),
    )
    done = run(repo, "plan", env=env)
    warnings = [line for line in done.stderr.splitlines() if "warning" in line]
    assert len(warnings) == 1 and "`ostrel-wiki --replan`" in warnings[0]
    assert "Drift:" in done.stdout and "retire  module-net" in done.stdout
    # The advice works as given: a replan, and no warning after it.
    replanned = run(repo, "--replan", "--json", env=env)
    assert json.loads(replanned.stdout)["replan"] and "warning" not in replanned.stderr


def test_replan_maps_old_pages_to_new_ids(repo: Path) -> None:
    plan(repo)
    # A lone new file goes to the catch-all page, and a second one follows it
    # there: pinning holds the structure.
    change(repo, {"tools/one.py": py(1)})
    assert "module-additional" in pages(plan(repo))
    change(repo, {"tools/two.py": py(1)})
    assert "module-tools" not in pages(plan(repo))
    replanned = plan(repo, "--replan")
    assert replanned["drift"] is None and replanned["remap"] == {"module-tools": "module-additional"}
    assert ("retire", "module-additional") in actions(replanned)
    [log] = json.loads(run(repo, "log", "-n", "1", "--json").stdout)
    assert log["replan"] and "takes the place of module-additional (no text to carry)" in str(log)
    # The replanned structure is now the plan of record.
    after = plan(repo)
    assert after["amendments"] == [] and set(pages(after)) == set(pages(replanned))


def test_saved_page_shows_its_stale_section_after_an_edit(repo: Path, body: Path) -> None:
    run(repo, "plan")
    saved = json.loads(run(repo, "save", "module-core", str(body), "--json").stdout)
    assert saved["citations"] == 3
    assert [s["heading"] for s in saved["sections"]] == ["", "Loading", "Saving"]
    assert (repo / WIKI / "pages/module-core.md").read_text(encoding="utf-8") == BODY
    # A family part is saved too; saving it must not unsettle its family. Its
    # text cites files it does not cover: warned of, and refused with --strict.
    refused = run(repo, "save", "module-big-part-f00", str(body), "--strict", code=1).stderr
    warned = run(repo, "save", "module-big-part-f00", str(body)).stderr
    assert (
        refused == warned + "ostrel-wiki: error: module-big-part-f00 was not saved: 2 citation problem(s); "
        "fix them, or save without --strict\n"
    )
    assert "module-big-part-f00: cites core/b.py, which this page does not cover" in warned
    status = json.loads(run(repo, "status", "--json").stdout)
    assert "module-core" not in status["to_write"] and pages(status)["module-core"]["written"]

    change(repo, {"core/b.py": py(5)})
    status = json.loads(run(repo, "status", "--json").stdout)
    core = pages(status)["module-core"]
    assert "module-core" in status["to_write"]
    assert core["changed_files"] == {"added": [], "removed": [], "modified": ["core/b.py"]}
    assert [s["heading"] for s in core["stale_sections"]] == ["Saving"]
    assert 'stale section "Saving" cites core/b.py' in run(repo, "status").stdout
    again = plan(repo)
    assert again["amendments"] == [] and "module-big" in pages(again)
    states = {p["page_id"]: (p["state"], p["to_write"]) for p in again["pages"]}
    assert (states["module-core"], states["module-big-part-f00"]) == (("kept", True), ("kept", False))
    assert "module-core" in run(repo, "history", "module-core").stdout

    # A second text keeps the first as revision 1, shown and brought back by number.
    run(repo, "save", "module-core", "-", input="# Core\n\nsecond\n")
    history = json.loads(run(repo, "history", "module-core", "--json").stdout)
    assert [(r["n"], r["saved"], r["replaced_by"]) for r in history["revisions"]] == [(1, True, "save")]
    assert run(repo, "show", "module-core", "--rev", "1").stdout.endswith(BODY + "\n")
    assert "no revision 2" in run(repo, "show", "module-core", "--rev", "2", code=1).stderr
    assert "is not an archive entry number" in run(repo, "restore", "module-core", code=2).stderr
    restored = json.loads(run(repo, "restore", "module-core", "--rev", "1", "--json").stdout)
    assert (restored["revision"], restored["kept"]) == (1, 2)
    assert (repo / WIKI / "pages/module-core.md").read_text(encoding="utf-8") == BODY


def test_steering_pages_and_text(repo: Path, body: Path) -> None:
    change(
        repo,
        {
            ".ostrel-wiki.toml": 'steering = "Be brief."\n[[page]]\ntitle = "Docs & Notes"\n'
            'files = ["*.md"]\n[[page]]\ntitle = "docs notes"\nfiles = "main.py"\n'
        },
    )
    first = pages(plan(repo))
    assert first["custom-docs-notes"]["source_files"] == ["README.md"]
    assert first["custom-docs-notes-2"]["source_files"] == ["main.py"]
    run(repo, "save", "module-core", str(body))
    assert "module-core" not in json.loads(run(repo, "status", "--json").stdout)["to_write"]
    # A change of the steering text makes written pages stale; dropping a
    # steering page retires it.
    change(repo, {".ostrel-wiki.toml": 'steering = "Be thorough."\n'})
    second = plan(repo)
    assert ("retire", "custom-docs-notes") in actions(second) and pages(second)["module-core"]["to_write"]


def test_plain_directory_is_walked(tmp_path: Path) -> None:
    root = tmp_path / "plain"
    write(root, {"app/a.py": "", "app/b.py": "", "node_modules/x/i.js": "", ".hidden/h.py": "",
                 "app/__pycache__/c.py": "", "build/gen.c": "", "venv/lib/s.py": ""})  # fmt: skip
    report = plan(root)
    assert report["branch"] == "main" and list(pages(report)) == ["overview", "module-app"]
    assert (root / ".ostrel-wiki/wiki/main/plan-log.jsonl").is_file()
    # The wiki's own output is never part of what it documents.
    write(root, {".ostrel-wiki.toml": '[[page]]\ntitle = "All"\nfiles = ["**"]\n'})
    assert pages(plan(root))["custom-all"]["source_files"] == [".ostrel-wiki.toml", "app/a.py", "app/b.py"]


def test_bad_input_is_one_line_and_writes_nothing(repo: Path, tmp_path: Path, body: Path) -> None:
    missing = tmp_path / "nope"
    one_error_line(run(missing, "plan", code=1), "does not exist")
    one_error_line(run(repo / "README.md", "plan", code=1), "not a directory")
    assert not missing.exists()
    run(repo, "plan")
    latin = tmp_path / "latin.md"
    latin.write_bytes("caf\xe9 [[core/a.py:1]]".encode("latin-1"))
    before = snapshot(tmp_path)
    for args, fragment in [(("save", "module-nowhere", str(body)), "unknown page id"),
                           (("save", "module-core", str(latin)), "not UTF-8"),
                           (("save", "module-core", str(tmp_path / "gone.md")), "cannot read"),
                           (("--branch", "../x", "status"), "branch name")]:  # fmt: skip
        one_error_line(run(repo, *args, code=1), fragment)
    assert snapshot(tmp_path) == before
    usage = run(repo, "log", "-n", "0", code=2)
    assert "usage:" in usage.stderr and "Traceback" not in usage.stderr
    run(repo, "frobnicate", code=2)


def test_read_only_store_is_refused(repo: Path, body: Path) -> None:
    run(repo, "plan")
    change(repo, {"extra/a.py": "", "extra/b.py": ""})
    store = repo / STORE
    store.chmod(0o444)
    store.parent.chmod(0o555)
    try:
        if os.access(store, os.W_OK):
            pytest.skip("this user may write to read-only files")
        before = snapshot(repo.parent)
        one_error_line(run(repo, "plan", code=1), "")
        one_error_line(run(repo, "save", "module-core", str(body), code=1), "")
        assert snapshot(repo.parent) == before
    finally:
        store.parent.chmod(0o755)
        store.chmod(0o644)


def test_works_from_a_subdirectory_and_keeps_out_of_the_work_tree(repo: Path) -> None:
    sub = repo / "core"
    assert "module-core" in run(repo, "plan", cwd=sub).stdout
    assert (repo / STORE).is_file() and not (sub / ".ostrel-wiki").exists()
    assert git(repo, "status", "--porcelain") == ""
    # A closed output pipe ends the run quietly.
    done = subprocess.run(
        f"{sys.executable} -P -m malde_ostrel.workers.wiki plan | head -c 10",
        shell=True,
        cwd=sub,
        env=ENV,
        capture_output=True,
        text=True,
    )
    assert done.stderr == "" and len(done.stdout) == 10
    empty = repo.parent / "empty.md"
    empty.write_text("\n")
    one_error_line(run(repo, "save", "module-core", str(empty), code=1, cwd=sub), "--allow-empty")
    empty.write_text(BODY)
    run(repo, "save", "module-core", str(empty), cwd=sub)
    shown = run(repo, "show", "module-core", cwd=sub).stdout
    assert "file  core/a.py" in shown and "## Loading" in shown


def test_branches_are_planned_from_their_own_tree(repo: Path) -> None:
    git(repo, "checkout", "-qb", "feature")
    change(repo, {"only/here.py": py(1), "only/there.py": py(1)})
    git(repo, "checkout", "-q", "trunk")
    feature = plan(repo, "--branch", "feature")
    assert feature["branch"] == "feature" and "module-only" in pages(feature)
    assert "module-only" not in pages(plan(repo))
    one_error_line(run(repo, "--branch", "nope", "plan", code=1), "nope")
    git(repo, "checkout", "-q", "--detach")
    one_error_line(run(repo, "plan", code=1), "--branch")


def sql(*statements: str) -> Callable[[Path], None]:
    def damage(store: Path) -> None:
        conn = sqlite3.connect(store, isolation_level=None)
        for statement in (*statements, "PRAGMA wal_checkpoint(TRUNCATE)"):
            conn.execute(statement)
        conn.close()

    return damage


def _malformed(store: Path) -> None:
    sql()(store)
    with store.open("r+b") as file:
        file.seek(4096 * 2)
        file.write(b"\x0d\xff\xff\xff" * 400)


def _field(value: str) -> Callable[[Path], None]:
    return sql(f"UPDATE wiki_pages SET source_files = '{value}' WHERE page_id = 'module-core'")


@pytest.mark.parametrize(
    ("damage", "fragment"),
    [
        (_field("not json"), "page module-core of branch trunk has a malformed source_files"),
        (_field("null"), "malformed source_files"),
        (_field("3"), "malformed source_files"),
        (lambda store: store.write_bytes(b""), "is empty (0 bytes)"),
        (_malformed, "is damaged (database disk image is malformed)"),
        (sql("PRAGMA user_version = 99"), "schema version 99"),  # from a newer release
    ],
)  # fmt: skip
def test_damaged_store_gets_one_line_then_doctor_repairs(repo: Path, damage: Any, fragment: str) -> None:
    run(repo, "plan")
    store = repo / STORE
    damage(store)
    before = snapshot(repo.parent)
    for args in (["plan"], ["status"]):
        done = run(repo, *args, code=1)
        one_error_line(done, fragment)
        assert str(store) in done.stderr
    assert snapshot(repo.parent) == before
    if "newer" not in done.stderr:
        assert "doctor" in done.stderr and "repaired:" in run(repo, "doctor").stdout
        run(repo, "plan")
        assert "no problems found" in run(repo, "doctor").stdout


def test_unreadable_log_line_is_skipped_and_set_aside(repo: Path) -> None:
    run(repo, "plan")
    log = repo / WIKI / "plan-log.jsonl"
    with log.open("ab") as file:
        file.write(b"\xff\xfe not a record, cut short")  # no line end: a crash mid-write
    change(repo, {"extra/a.py": "", "extra/b.py": ""})
    assert "module-extra" in run(repo, "plan").stdout
    done = run(repo, "log")
    assert "line(s) 2" in done.stderr and "module-extra" in done.stdout
    run(repo, "doctor")
    assert run(repo, "log").stderr == "" and b"not a record" in log.with_name("plan-log.jsonl.bad").read_bytes()


@pytest.mark.parametrize("columns", ["47", "120", "0", "wide", None])
def test_help_is_laid_out_as_argparse_would(monkeypatch: pytest.MonkeyPatch, columns: str | None) -> None:
    import argparse

    from malde_ostrel.workers.wiki.tool import cli

    if columns is None:
        monkeypatch.delenv("COLUMNS", raising=False)
    else:
        monkeypatch.setenv("COLUMNS", columns)
    ours = cli.build_parser().format_help()
    monkeypatch.setattr(cli, "_HelpFormatter", argparse.HelpFormatter)
    assert ours == cli.build_parser().format_help()
