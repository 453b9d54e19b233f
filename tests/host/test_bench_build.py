"""benchmarks/bench_build.py: the trees it makes, the rounds it runs and the
table it prints (what is timed is not checked here)."""

from __future__ import annotations

import ast
import io
import os
import sys
import tarfile
from pathlib import Path

import pytest

from .gitrepo import git, make_repo

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "benchmarks"))
import bench_build  # noqa: E402
from bench_build import Row  # noqa: E402


def test_an_edit_writes_a_new_file_and_commits_only_it(tmp_path: Path) -> None:
    # The generated tree's files are hard links into the standard library.
    original = tmp_path / "stdlib-decoder.py"
    original.write_text("def decode() -> None:\n    pass\n")
    repo = make_repo(tmp_path / "repo", {"copy-000/other.py": "x = 1\n"})
    edited = repo / bench_build.EDITED_FILE
    edited.parent.mkdir(parents=True)
    os.link(original, edited)
    git(repo, "add", "-A")
    git(repo, "commit", "-qm", "linked")
    for round_ in range(2):
        bench_build.edit_and_commit(repo, round_)
        assert git(repo, "diff", "--name-only", "HEAD~1", "HEAD") == bench_build.EDITED_FILE
    assert original.read_text() == "def decode() -> None:\n    pass\n"
    functions = [node.name for node in ast.parse(edited.read_text()).body if isinstance(node, ast.FunctionDef)]
    assert functions == ["decode", "bench_edit_0", "bench_edit_1"]
    assert git(repo, "status", "--porcelain") == ""


def _tarball(path: Path, members: dict[str, bytes]) -> Path:
    with tarfile.open(path, "w:gz") as archive:
        for name, data in members.items():
            info = tarfile.TarInfo(name)
            info.size = len(data)
            archive.addfile(info, io.BytesIO(data))
    return path


def test_a_release_tarball_becomes_a_committed_repository(tmp_path: Path) -> None:
    tarball = _tarball(tmp_path / "lib-1.0.tar.gz", {"lib-1.0/README.md": b"# lib\n", "lib-1.0/src/a.c": b"int a;\n",
                                                     "lib-1.0/include/lib/a.h": b"int a;\n"})  # fmt: skip
    top, files = bench_build.repo_from_tarball(tarball, tmp_path / "repo")
    assert (top.name, files) == ("lib-1.0", 3)
    assert git(top, "status", "--porcelain") == ""
    assert git(top, "log", "--format=%s") == "lib-1.0.tar.gz as released"


def test_a_tarball_reaching_outside_is_refused(tmp_path: Path) -> None:
    tarball = _tarball(tmp_path / "bad.tar.gz", {"bad/ok.txt": b"ok\n", "../escaped.txt": b"no\n"})
    with pytest.raises(tarfile.FilterError):
        bench_build.repo_from_tarball(tarball, tmp_path / "repo")
    assert not (tmp_path / "escaped.txt").exists()


def test_the_table_judges_each_goal(capsys: pytest.CaptureFixture[str]) -> None:
    run = (2.0, 1.0, 10.0)
    at_least = Row("t", 3, "pdoc", [run, run, run], [4.0, 6.0, 9.0], "pdoc/ours >= 5", lambda r: (r.ratio or 0) >= 5)
    short = Row("t", 3, "doxygen", [run], [4.9], "doxygen/ours >= 5", lambda r: (r.ratio or 0) >= 5)
    within = Row("t", 3, "first build", [(9.0, 31.0, 5.0), (9.0, 29.0, 50.0), (9.0, 20.0, 7.0)],
                 goal="cpu <= 30 s", met=lambda r: r.cpu <= 30)  # fmt: skip
    absent = Row("t", 3, "build", note="build: not available")
    unjudged = Row("t", 3, "ours", [run], note="plan only")
    bench_build.print_rows([at_least, short, within, absent, unjudged])
    lines = capsys.readouterr().out.splitlines()
    assert "6.0x" in lines[0] and lines[0].endswith("met")
    assert "4.9x" in lines[1] and lines[1].endswith("MISSED")
    assert lines[2].split()[4:7] == ["9.00", "29.00", "50.0"] and lines[2].endswith("met")
    assert lines[3].endswith("build: not available") and "MISSED" not in lines[3]
    assert lines[4].endswith("(plan only)") and " - " in lines[4]


@pytest.fixture(scope="module")
def tool() -> bench_build.Tool:
    return bench_build.Tool(Path(sys.prefix))


def test_rounds_against_a_peer_time_each_side_once_a_round(tool: bench_build.Tool, tmp_path: Path) -> None:
    repo = make_repo(tmp_path / "repo", {"pkg/a.py": "def a() -> None:\n    pass\n", "README.md": "# r\n"})
    outputs: list[Path] = []

    def peer(out: Path) -> list[str]:
        assert not any(out.iterdir())  # a fresh folder each round
        outputs.append(out / "index.html")
        return [sys.executable, "-c", "import sys; open(sys.argv[1], 'w').write('x')", str(outputs[-1])]

    plan, build, ours, peer_row = bench_build.versus_peers("t", repo, 2, [("peer", peer)], tool, tmp_path / "w", 2)
    assert [len(plan.runs), len(ours.runs), len(peer_row.ratios)] == [2, 2, 2]
    assert len(build.runs) == (2 if tool.has_build else 0)
    assert build.note == ("" if tool.has_build else "build: not available")
    assert all(ratio > 0 for ratio in peer_row.ratios) and outputs[-1].is_file()
    assert (peer_row.met is not None) == tool.has_build


def test_the_large_tree_rounds_commit_one_edit_each(tool: bench_build.Tool, tmp_path: Path) -> None:
    files = {bench_build.EDITED_FILE: "def decode() -> None:\n    pass\n", "copy-000/b.py": "b = 1\n"}
    repo = make_repo(tmp_path / "repo", files)
    first_plan, first_build, warm_plan, warm_build = bench_build.large_tree("t", repo, 2, tool, tmp_path / "w", 2)
    assert [len(first_plan.runs), len(warm_plan.runs)] == [2, 2]
    assert [len(first_build.runs), len(warm_build.ratios)] == ([2, 2] if tool.has_build else [0, 0])
    assert git(repo, "log", "--format=%s").splitlines()[:2] == [f"edit {bench_build.EDITED_FILE}"] * 2
