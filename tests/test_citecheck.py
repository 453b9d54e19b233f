"""Warnings for citations that point nowhere."""

from __future__ import annotations

import subprocess
from pathlib import Path

import pytest

from malde_ostrel.workers.wiki.citecheck import check, covered
from malde_ostrel.workers.wiki.repo_scan import snapshot
from malde_ostrel.workers.wiki.types import PagePlan


def git(repo: Path, *args: str) -> None:
    subprocess.run(["git", "-c", "user.name=t", "-c", "user.email=t@t",
                    "-c", "init.defaultBranch=main", *args],
                   cwd=repo, capture_output=True, check=True)  # fmt: skip


@pytest.fixture(scope="module")
def repo(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """main: src/x.py (30 lines), src/y.py, raw.bin (3 lines, not UTF-8);
    branch side: src/x.py has 10 lines."""
    root = tmp_path_factory.mktemp("repo")
    git(root, "init", "-q")
    (root / "src").mkdir()
    (root / "src/x.py").write_text("x\n" * 10)
    (root / "src/y.py").write_text("y\n" * 5 + "last")
    (root / "raw.bin").write_bytes(b"\xff\n\xfe\n\xfd")
    git(root, "add", ".")
    git(root, "commit", "-qm", "one")
    git(root, "checkout", "-qb", "side")
    git(root, "checkout", "-q", "main")
    (root / "src/x.py").write_text("x\n" * 30)
    git(root, "commit", "-qam", "two")
    return root


PAGE = ["src/x.py", "./src/y.py", "raw.bin"]


@pytest.mark.parametrize(("body", "problems"), [
    ("[[src/x.py:1-30]] [[src/x.py:30|f]] [[src/y.py:6]] [[raw.bin:3]] [[note]]", []),
    ("[[src/x.py:40-55]] and again [[src/x.py:40-55]]",
     ["cites src/x.py:40-55, but the file has 30 lines"]),
    ("[[src/y.py:7]] [[src/x.py:9-3]] [[src/x.py:0-2]]",
     ["cites src/y.py:7, but the file has 6 lines",
      "cites src/x.py:9-3, whose start is after its end; write src/x.py:3-9",
      "cites src/x.py:0-2, but lines count from 1"]),
    ("[[README.md:1]] [[lib/z.py:2-3]]",
     ["cites README.md, which does not exist on branch main",
      "cites lib/z.py, which does not exist on branch main"]),
    ("[[src/x.py]] or [[src/y.py|load]], [[src/x.py:ten]]",
     ["cites src/x.py without a line range; write [[src/x.py:START-END]]",
      "cites src/y.py without a line range; write [[src/y.py:START-END]]",
      "cites src/x.py:ten, whose lines are not numbers; write [[src/x.py:START-END]]"]),
])  # fmt: skip
def test_check(repo: Path, body: str, problems: list[str]) -> None:
    assert check(body, PAGE, snapshot(repo)) == problems


def test_check_reads_the_named_branch_and_the_page_files(repo: Path) -> None:
    side = snapshot(repo, "side")
    assert not side.checked_out
    assert check("[[src/x.py:12]] [[src/y.py:1]]", ["src/y.py"], side) == [
        "cites src/x.py, which this page does not cover",
        "cites src/x.py:12, but the file has 10 lines",
    ]
    side.close()


def test_covered_files_of_parents_and_overview_pages() -> None:
    parts = [PagePlan(page_id="d-part-a", source_files=["d/a.py"]),
             PagePlan(page_id="d-part-b", source_files=["d/b.py"])]
    parent = PagePlan(page_id="d", children=["d-part-a", "d-part-b"])
    overview = PagePlan(page_id="overview", level="overview")
    plans = [overview, parent, *parts]
    assert covered(parent, plans, ["x"]) == ["d/a.py", "d/b.py"]
    assert covered(parts[1], plans, ["x"]) == ["d/b.py"]
    assert covered(overview, plans, ["x"]) == ["x"]
