"""Warnings for citations that point nowhere."""

from __future__ import annotations

from pathlib import Path

import pytest

from malde_ostrel.workers.wiki.tool.citecheck import check, covered
from malde_ostrel.workers.wiki.tool.repo_scan import snapshot
from malde_ostrel.workers.wiki.types import PagePlan

from .gitrepo import change, git, make_repo


@pytest.fixture(scope="module")
def repo(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """main: src/x.py (30 lines), src/y.py (6), raw.bin (3, not UTF-8); branch side: x.py has 10."""
    root = tmp_path_factory.mktemp("repo")
    (root / "raw.bin").write_bytes(b"\xff\n\xfe\n\xfd")
    make_repo(root, {"src/x.py": "x\n" * 10, "src/y.py": "y\n" * 5 + "last"})
    git(root, "branch", "side")
    change(root, {"src/x.py": "x\n" * 30})
    return root


@pytest.mark.parametrize(("branch", "body", "problems"), [
    (None, "[[src/x.py:1-30]] [[src/x.py:30|f]] [[src/y.py:6]] [[raw.bin:3]] [[note]]", []),
    (None, "[[src/x.py:40-55]] [[src/x.py:40-55]] [[src/y.py:7]] [[src/x.py:9-3]] [[src/x.py:0-2]]",
     ["cites src/x.py:40-55, but the file has 30 lines",
      "cites src/y.py:7, but the file has 6 lines",
      "cites src/x.py:9-3, whose start is after its end; write src/x.py:3-9",
      "cites src/x.py:0-2, but lines count from 1"]),
    (None, "[[README.md:1]] [[src/x.py]] or [[src/y.py|load]], [[src/x.py:ten]]",
     ["cites README.md, which does not exist on branch main",
      "cites src/x.py without a line range; write [[src/x.py:START-END]]",
      "cites src/y.py without a line range; write [[src/y.py:START-END]]",
      "cites src/x.py:ten, whose lines are not numbers; write [[src/x.py:START-END]]"]),
    ("side", "[[src/x.py:12]] [[lib/z.py:1]]",
     ["cites src/x.py:12, but the file has 10 lines",
      "cites lib/z.py, which does not exist on branch side"]),
])  # fmt: skip
def test_check(repo: Path, branch: str | None, body: str, problems: list[str]) -> None:
    snap = snapshot(repo, branch)
    assert check(body, ["src/x.py", "./src/y.py", "raw.bin"], snap) == problems
    assert check("[[src/x.py:1]]", ["src/y.py"], snap) == ["cites src/x.py, which this page does not cover"]
    snap.close()


def test_covered_files_of_parents_and_overview_pages() -> None:
    parts = [PagePlan(page_id=f"d-{n}", source_files=[f"d/{n}.py"]) for n in "ab"]
    parent = PagePlan(page_id="d", children=["d-a", "d-b"])
    plans = [PagePlan(page_id="overview", level="overview"), parent, *parts]
    expected = [["x"], ["d/a.py", "d/b.py"], ["d/a.py"], ["d/b.py"]]
    assert [list(covered(page, plans, ["x"])) for page in plans] == expected
