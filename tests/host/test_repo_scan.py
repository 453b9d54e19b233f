"""Snapshots of a repository: live paths, content hashes, branches, renames."""

from __future__ import annotations

import os
from pathlib import Path
from types import SimpleNamespace

import pytest

from malde_ostrel.workers.wiki.repo_facts import file_hash
from malde_ostrel.workers.wiki.tool import git_io, planner
from malde_ostrel.workers.wiki.tool.repo_scan import RepoError, _index_entries, find_root, locate, snapshot, state_dir

from .gitrepo import change, git, make_repo, write


@pytest.fixture
def repo(tmp_path: Path) -> Path:
    """main: a.py, src/b.py, src/c.py, old.py and a link to src/b.py; branch
    side renames old.py and adds side.py."""
    root = tmp_path / "repo"
    root.mkdir()
    os.symlink("src/b.py", root / "link.py")
    make_repo(root, {"a.py": "a\n", "src/b.py": "b\n", "src/c.py": "c\n", "old.py": "o\n" * 50})
    git(root, "checkout", "-qb", "side")
    change(root, {"side.py": "s\n"}, move={"old.py": "new.py"})
    git(root, "checkout", "-q", "main")
    return root


def test_work_tree_snapshot_sees_uncommitted_changes_and_renames(repo: Path) -> None:
    first = git(repo, "rev-parse", "HEAD")
    write(repo, {"a.py": "changed\n", "untracked.py": "u\n", "added.py": "n\n"})
    git(repo, "add", "added.py")
    git(repo, "mv", "old.py", "moved.py")
    (repo / "src" / "c.py").unlink()
    snap = snapshot(repo / "src")
    assert (snap.root, snap.branch, snap.checked_out, snap.commit) == (repo, "main", True, first)
    assert snap.paths == ["a.py", "added.py", "link.py", "moved.py", "src/b.py"]
    asked = [*snap.paths, "./src/b.py", "untracked.py", "src/c.py", "src", "../x", "."]
    hashes = snap.hashes(asked)
    assert list(hashes) == asked
    # Every route (index, fresh read through git, plain read) gives git's blob id.
    for path in ["a.py", "added.py", "src/b.py", "untracked.py", "link.py"]:
        assert hashes[path] == file_hash(repo / path) == git(repo, "hash-object", path)
    assert hashes["./src/b.py"] == hashes["src/b.py"]
    assert [hashes[p] for p in ["src/c.py", "src", "../x", "."]] == [None] * 4
    assert snap.read_text("a.py") == "changed\n" and snap.read_text("src/c.py") is None
    assert snap.renames_since(first) == {"old.py": "moved.py"}
    assert snap.renames_since("0" * 40) == snap.renames_since("--cached") == {}


def test_other_branch_is_read_from_its_commit(repo: Path) -> None:
    write(repo, {"side.py": "not the committed text\n"})
    snap = snapshot(repo, "side")
    assert (snap.branch, snap.checked_out, snap.commit) == ("side", False, git(repo, "rev-parse", "side"))
    assert snap.paths == ["a.py", "link.py", "new.py", "side.py", "src/b.py", "src/c.py"]
    assert snap.read_text("side.py") == "s\n" and snap.read_text("old.py") is None
    assert snap.read_text("link.py") == "b\n"
    blobs = {"side.py": git(repo, "rev-parse", "side:side.py"), "link.py": git(repo, "rev-parse", "side:src/b.py")}
    assert snap.hashes(["side.py", "link.py", "old.py", "src"]) == blobs | {"old.py": None, "src": None}
    assert snap.renames_since(git(repo, "rev-parse", "main")) == {"old.py": "new.py"}
    snap.close()


def test_plain_directories_and_refusals(repo: Path, tmp_path: Path) -> None:
    git(repo, "checkout", "-q", "--detach")
    assert snapshot(repo, "main").checked_out is False
    plain = tmp_path / "plain"
    write(plain, {"x.py": "x", ".hidden/y.py": "y", "node_modules/z.js": "z"})
    walked = snapshot(plain, "main")
    assert (walked.paths, walked.commit, walked.renames_since("HEAD")) == (["x.py"], None, {})
    assert walked.hashes(["x.py"]) == {"x.py": file_hash(plain / "x.py")}
    assert locate(plain) == (find_root(plain), state_dir(plain)) == (plain.resolve(), plain / ".ostrel-wiki")
    for where, branch, message in [(plain, "dev", "not a git work tree"), (repo, "nope", "no branch 'nope'"),
                                   (plain / "x.py", None, "is not a directory")]:  # fmt: skip
        with pytest.raises(RepoError, match=message):
            snapshot(where, branch)
    (plain / ".git").mkdir()
    with pytest.raises(RepoError, match="git cannot read"):
        snapshot(plain)


_ID = "1" * 40


@pytest.mark.parametrize(
    ("modes", "odd"),
    [(["100644", "100755"], {}), (["120000", "100644"], {0: "120000"}), (["100644", "160000"], {1: "160000"})],
)
# Names that read like an entry's start, and names holding a tab.
@pytest.mark.parametrize("name", ["p{}", "100644 p{}", "p{}\tq"])
def test_index_listing_gives_ids_and_the_modes_of_odd_entries(modes: list[str], odd: dict[int, str], name: str) -> None:
    paths = [name.format(i) for i in range(len(modes))]
    listing = "".join(f"{mode} {_ID} 0\t{path}\0" for mode, path in zip(modes, paths, strict=True))
    assert _index_entries(listing) == (dict.fromkeys(paths, _ID), {paths[i]: mode for i, mode in odd.items()})


def test_state_dir_is_shared_by_worktrees(repo: Path, tmp_path: Path) -> None:
    git(repo, "worktree", "add", "-q", str(tmp_path / "wt"), "side")
    assert find_root(tmp_path / "wt") == tmp_path / "wt"
    assert locate(tmp_path / "wt" / "src") == (tmp_path / "wt", state_dir(repo))
    assert state_dir(tmp_path / "wt") == state_dir(repo) == repo / ".git" / "ostrel-wiki"
    assert snapshot(tmp_path / "wt").checked_out is True


def test_derive_leaves_out_own_output_and_excluded_globs(repo: Path) -> None:
    write(repo, {"memory/w/p.py": "", "gen/x.py": "", "gen/keep.md": "", "src/v.py": "",
                 planner.STEERING_FILE: 'exclude = ["gen/*.py", "old.py"]\n',
                 "src/.gitattributes": "v.py linguist-vendored\n"})  # fmt: skip
    git(repo, "add", ".")
    derived = planner.derive(snapshot(repo), exclude=["memory/w/"])
    assert derived.paths == [planner.STEERING_FILE, "a.py", "gen/keep.md", "link.py",
                             "src/.gitattributes", "src/b.py", "src/c.py"]  # fmt: skip
    assert derived.live == {"a.py", "link.py", "src/b.py", "src/c.py"}
    assert derived.fresh == planner.plan_pages(derived.paths, planner.read_steering(repo))


def test_a_kept_plan_is_the_derived_one_until_an_input_changes(repo: Path) -> None:
    kept: dict[str, str] = {}
    puts: list[str] = []
    cache = SimpleNamespace(get=kept.get, put=lambda key, value: (puts.append(key), kept.update({key: value})))
    steer = 'exclude = ["src/{}.py"]\n[[page]]\ntitle = "T"\nfiles = ["*.toml"]\n'.format
    for files in ({}, {planner.STEERING_FILE: steer("c")}, {planner.STEERING_FILE: steer("b")},
                  {"src/.gitattributes": "b.py linguist-generated\n"}, {"src/.gitattributes": "c.py -text\n"}):  # fmt: skip
        write(repo, files)
        git(repo, "add", ".")
        snap = snapshot(repo)
        derived = planner.derive(snap, exclude=["memory/w/"], cache=cache)
        assert planner.derive(snap, exclude=["memory/w/"], cache=cache) == derived
        assert derived == planner.derive(snap, exclude=["memory/w/"])
    assert len(puts) == len(set(puts)) == 5  # each change a new key, each key derived once


def test_a_hash_does_not_depend_on_the_route_under_line_end_filters(repo: Path) -> None:
    write(repo, {".gitattributes": "*.txt text\n"})
    (repo / "crlf.txt").write_bytes(b"one\r\ntwo\r\n")
    read_fresh = snapshot(repo).hashes(["crlf.txt"])["crlf.txt"]
    git(repo, "add", ".")
    from_index = snapshot(repo).hashes(["crlf.txt"])["crlf.txt"]
    git(repo, "commit", "-qm", "crlf")
    git(repo, "checkout", "-q", "side")
    from_tree = snapshot(repo, "main").hashes(["crlf.txt"])["crlf.txt"]
    assert read_fresh == from_index == from_tree == git(repo, "rev-parse", "main:crlf.txt")


def test_listing_started_early_is_read_once_or_stopped(repo: Path) -> None:
    expected = snapshot(repo)
    git_io.start_both(repo, git_io.WORK_TREE_LISTING, git_io.WORK_TREE_STATUS)
    assert snapshot(repo).paths == expected.paths and not git_io._started  # read by the snapshot
    git_io.start_both(repo, git_io.WORK_TREE_LISTING, ("status",))  # asked by no one
    procs = next(iter(git_io._started.values()))
    git_io.stop_started()
    assert not git_io._started and all(proc.returncode is not None for proc in procs)


def test_a_snapshot_writes_back_a_stale_index(repo: Path) -> None:
    # Files touched but not changed: git re-reads them until the index is refreshed.
    later = os.stat(repo / "a.py").st_mtime + 100
    for path in ("a.py", "src/b.py"):
        os.utime(repo / path, (later, later))
    assert git(repo, "--no-optional-locks", "diff-files", "--name-only") == "a.py\nsrc/b.py"
    assert snapshot(repo).paths and git(repo, "--no-optional-locks", "diff-files", "--name-only") == ""
