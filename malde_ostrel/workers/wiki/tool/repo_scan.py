"""What a repository holds: a snapshot of one branch's files.

A snapshot of the checked-out branch sees the work tree with its uncommitted
changes: the live paths are the tracked files that exist.  A snapshot of
another branch sees that branch's committed tree, read from git.  Outside
git a directory walk finds the files, skipping hidden directories and the
usual generated or vendored ones.  Paths are repository-relative and use
"/" on every platform.

Content hashes are git blob ids (see ``repo_facts``): an unchanged tracked
file's id comes from git's index (or the branch's tree) without reading the
file; only files that differ from the index are read, through
``git hash-object`` so that the repository's filters apply as they would on
``git add``.
"""

from __future__ import annotations

import dataclasses
import os
import posixpath
import re
import stat
from collections.abc import Callable, Iterable
from pathlib import Path

from malde_ostrel.workers.wiki.repo_facts import _norm, blob_id
from malde_ostrel.workers.wiki.tool import git_io

# Branch of a plain directory, or of a work tree whose HEAD is detached.
DEFAULT_BRANCH = "main"

# Directories the walk never enters (hidden ones, starting with ".", neither).
IGNORED_DIRS: frozenset[str] = frozenset({"node_modules", "__pycache__", "build", "dist", "venv", ".venv"})

STATE_DIR_NAME = "ostrel-wiki"

_GITLINK = "160000"
_SYMLINK = "120000"
_REGULAR = frozenset({"100644", "100755"})
_REGULAR_STARTS = ("100644 ", "100755 ")
# One entry of `git ls-files -s -z`: mode, object id, stage, path.
_LS_FILES_RE = re.compile(r"(\d+) ([0-9a-f]+) \d\t([^\0]*)\0")
_SYMLINK_HOPS = 8
# Files per `git hash-object` run, and between two progress reports.
_CHUNK = 1000

Progress = Callable[[int, int], None]


class RepoError(Exception):
    """A one-line, user-facing reason the repository or branch cannot be used
    (names the thing and what to do)."""


def find_root(start: Path) -> Path:
    """The work tree's top when ``start`` lies inside a git work tree, else
    ``start`` itself (resolved)."""
    top = git_io.text(start, "rev-parse", "--show-toplevel")
    return Path(top) if top else start.resolve()


def state_dir(root: Path) -> Path:
    """Default home of the tool's store and wikis, outside the work tree:
    ``<git common dir>/ostrel-wiki``, shared by all worktrees of the
    repository; ``<root>/.ostrel-wiki`` outside git."""
    common = git_io.text(root, "rev-parse", "--path-format=absolute", "--git-common-dir")
    return Path(common) / STATE_DIR_NAME if common else root / f".{STATE_DIR_NAME}"


def locate(start: Path) -> tuple[Path, Path]:
    """``find_root(start)`` and the ``state_dir`` of that root, asking git once."""
    found = git_io.text(start, "rev-parse", "--show-toplevel", "--path-format=absolute", "--git-common-dir")
    lines = found.split("\n") if found else []
    if len(lines) == 2:
        return Path(lines[0]), Path(lines[1]) / STATE_DIR_NAME
    root = find_root(start)
    return root, state_dir(root)


def _outside(rel: str) -> bool:
    return rel == "." or rel == ".." or rel.startswith("../")


@dataclasses.dataclass
class Snapshot:
    """One branch's files at one moment."""

    root: Path
    branch: str
    # The commit the tree is at; None outside git or on an unborn branch.
    commit: str | None
    # True: the work tree with its uncommitted changes; False: the branch's
    # committed tree, read from git.
    checked_out: bool
    # The live file paths, sorted.
    paths: list[str]
    # Blob id of each path whose content git already knows: unchanged tracked
    # files of a work tree, every file of a committed tree.
    known_ids: dict[str, str] = dataclasses.field(default_factory=dict, repr=False)
    # Whether ``root`` is a git work tree.
    in_git: bool = False
    # The tree is the commit's own: no staged or work-tree change of a tracked file.
    pristine: bool = dataclasses.field(default=False, repr=False)
    _blobs: git_io.BlobReader | None = dataclasses.field(default=None, repr=False, compare=False)
    # Hashes of work-tree files read so far (a snapshot is one moment).
    _read: dict[str, str | None] = dataclasses.field(default_factory=dict, repr=False, compare=False)

    def close(self) -> None:
        """Stop the blob reader, if one was started (a later read starts it again)."""
        if self._blobs is not None:
            self._blobs.close()

    def read_bytes(self, path: str) -> bytes | None:
        """The file's bytes; None when it is missing, not a file, or outside the repository."""
        rel = _norm(path)
        if _outside(rel):
            return None
        if not self.checked_out:
            oid = self.known_ids.get(rel)
            if oid is None:
                return None
            if self._blobs is None:
                self._blobs = git_io.BlobReader(self.root)
            return self._blobs.read(oid)
        try:
            return (self.root / rel).read_bytes()
        except OSError:
            return None

    def read_text(self, path: str) -> str | None:
        """The file's text; None when it is missing or not UTF-8."""
        data = self.read_bytes(path)
        if data is None:
            return None
        try:
            return data.decode("utf-8")
        except UnicodeDecodeError:
            return None

    def hashes(self, paths: Iterable[str], progress: Progress | None = None) -> dict[str, str | None]:
        """The content hash of each path: git's blob id of the file, None for
        a missing file, a directory, or a path leading outside the repository.

        The one source of every hash the tool stores or compares.  Ids git
        knows are taken as they are; only the other files of a work tree are
        read, all in the first call that needs one, and each once per
        snapshot.  ``progress(done, total)`` is called now and then.
        """
        wanted = list(paths)
        known = self.known_ids
        try:
            # Most often every id is git's: nothing to read.
            ids: dict[str, str | None] = {path: known[path] for path in wanted}
        except KeyError:
            pass
        else:
            if progress is not None:
                progress(len(wanted), len(wanted))
            return ids
        result: dict[str, str | None] = {}
        reads: list[tuple[str, str]] = []
        pending: dict[str, None] = {}  # files to read, in order
        for path in wanted:
            oid = known.get(path)
            if oid is None:
                rel = _norm(path)
                outside = _outside(rel)
                oid = None if outside else known.get(rel)
                if oid is None and self.checked_out and not outside:
                    reads.append((path, rel))
                    if rel not in self._read:
                        pending[rel] = None
            result[path] = oid
        done = len(wanted) - len(pending)
        if pending and self.in_git and not self._read:
            # The first read: every live file git has no id for goes in the
            # same runs, so that later calls read nothing.
            for path in self.paths:
                if path not in known:
                    pending[path] = None
        todo = list(pending)
        total = done + len(todo)
        if progress is not None:
            progress(done, total)
        for start in range(0, len(todo), _CHUNK):
            chunk = todo[start : start + _CHUNK]
            self._read.update(self._hash_files(chunk))
            done += len(chunk)
            if progress is not None:
                progress(done, total)
        for path, rel in reads:
            result[path] = self._read[rel]
        return result

    def _hash_files(self, rels: list[str]) -> dict[str, str | None]:
        """Hashes of work-tree files read from disk."""
        result: dict[str, str | None] = {}
        files: list[str] = []
        for rel in rels:
            try:
                is_file = stat.S_ISREG(os.stat(self.root / rel).st_mode)
            except (OSError, ValueError):
                is_file = False
            if is_file:
                files.append(rel)
            else:
                result[rel] = None
        by_git = self._hash_objects(files) if self.in_git else None
        some_id = self.commit or next(iter(self.known_ids.values()), "")
        algorithm = "sha256" if len(some_id) == 64 else "sha1"
        for index, rel in enumerate(files):
            if by_git is not None:
                result[rel] = by_git[index]
                continue
            data = self.read_bytes(rel)
            result[rel] = None if data is None else blob_id(data, algorithm)
        return result

    def _hash_objects(self, rels: list[str]) -> list[str] | None:
        """Blob ids from ``git hash-object`` (the repository's filters apply);
        None when git cannot hash them all."""
        if not rels or any("\n" in rel or "\r" in rel for rel in rels):
            return None
        listing = "".join(rel + "\n" for rel in rels).encode("utf-8", "surrogateescape")
        status, out = git_io.run(self.root, "hash-object", "--stdin-paths", stdin=listing)
        ids = out.decode("ascii", "replace").split()
        return ids if status == 0 and len(ids) == len(rels) else None

    def renames_since(self, commit: str) -> dict[str, str]:
        """Old path -> new path, by git's rename detection between ``commit``
        and this tree (work-tree changes included when checked out, untracked
        files not); {} when the commit is unknown or outside git."""
        if not self.in_git or not commit or commit.startswith("-"):
            return {}
        if commit == self.commit and (self.pristine or not self.checked_out):
            return {}  # the tree is that commit's: nothing moved
        args = ["diff", "-M", "--name-status", "-z", "--no-ext-diff", commit]
        if not self.checked_out:
            if self.commit is None:
                return {}
            args.append(self.commit)
        status, out = git_io.run(self.root, *args, "--")
        if status != 0:
            return {}
        renames: dict[str, str] = {}
        fields = git_io.records(out)
        i = 0
        while i < len(fields):
            kind = fields[i]
            if kind[:1] in ("R", "C") and i + 2 < len(fields):
                if kind[0] == "R":
                    renames[fields[i + 1]] = fields[i + 2]
                i += 3
            else:
                i += 2
        return renames


def snapshot(root: Path, branch: str | None = None) -> Snapshot:
    """A snapshot of ``branch``: None for the checked-out branch (the work
    tree), another branch's committed tree otherwise.  Outside git the
    directory is walked, and ``branch`` must be None or ``DEFAULT_BRANCH``.

    Raises RepoError on a detached HEAD without a branch, for an unknown
    branch, or when git cannot read the repository.
    """
    if not root.is_dir():
        raise RepoError(f"repository {root} is not a directory; name one with --repo")
    # A directory holding ".git" is a work tree's top: no need to ask git.
    top = str(root.resolve()) if (root / ".git").exists() else None
    top = top or git_io.text(root, "rev-parse", "--show-toplevel")
    if top is None:
        if (root / ".git").exists() and git_io.git_binary() is not None:
            raise RepoError(f"git cannot read {root}; run `git status` there to see why")
        if branch not in (None, DEFAULT_BRANCH):
            raise RepoError(f"{root} is not a git work tree, so it has no branch {branch!r}; leave out --branch")
        return Snapshot(root.resolve(), DEFAULT_BRANCH, None, True, _walked_paths(root.resolve()))
    top_dir = Path(top)
    if branch is not None and branch != git_io.text(top_dir, "symbolic-ref", "-q", "--short", "HEAD"):
        return _committed(top_dir, branch)
    return _work_tree(top_dir, branch)


def _work_tree(root: Path, branch: str | None) -> Snapshot:
    (listed, listing), (status, out) = git_io.run_both(root, git_io.WORK_TREE_LISTING, git_io.WORK_TREE_STATUS)
    if status != 0 or listed != 0:
        raise RepoError(f"git cannot read the work tree {root}; check it with `git status`")
    commit: str | None = None
    head = DEFAULT_BRANCH
    changed: set[str] = set()
    deleted: set[str] = set()
    pristine = True
    fields = git_io.records(out)
    i = 0
    while i < len(fields):
        record = fields[i]
        i += 1
        kind = record[:2]
        if record.startswith("# branch.oid "):
            value = record[len("# branch.oid ") :]
            commit = None if value == "(initial)" else value
        elif record.startswith("# branch.head "):
            head = record[len("# branch.head ") :]
        elif kind in ("1 ", "2 "):
            pristine = False
            parts = record.split(" ", 8 if kind == "1 " else 9)
            if kind == "2 ":
                i += 1  # the original path of a rename
            worktree = parts[1][1:2]
            if worktree == "D":
                deleted.add(parts[-1])
            elif worktree != ".":
                changed.add(parts[-1])
        elif kind == "u ":
            pristine = False
            changed.add(record.split(" ", 10)[-1])
    if branch is None and head == "(detached)":
        raise RepoError("HEAD is detached; name the branch with --branch")
    known, odd = _index_entries(listing.decode("utf-8", "surrogateescape"))
    for path in deleted:
        known.pop(path, None)
    for path in changed.union(odd):
        if path in known and (odd.get(path) == _GITLINK or not os.path.isfile(root / path)):
            del known[path]  # a submodule, or no longer a file
    paths = sorted(known)
    for path in changed.union(odd):
        known.pop(path, None)  # live, but git's id is not the content's
    return Snapshot(root, branch or head, commit, True, paths, known, in_git=True, pristine=pristine)


def _index_entries(listing: str) -> tuple[dict[str, str], dict[str, str]]:
    """The object id of each path of a ``git ls-files -s -z`` listing, and
    the mode of each path that is not a regular file.  Every stage of a
    conflicted file lands on one key; it is among the changed files."""
    fields = listing.replace("\t", "\0").split("\0")
    if len(fields) != 2 * listing.count("\0") + 1:
        # A path holding a tab: record by record.
        entries = _LS_FILES_RE.findall(listing)
        return {path: oid for _mode, oid, path in entries}, {
            path: mode for mode, _oid, path in entries if mode not in _REGULAR
        }
    # "<mode> <id> <stage>": six octal digits, the id, one digit.
    metas, paths = fields[0:-1:2], fields[1::2]
    known = dict(zip(paths, [meta[7:-2] for meta in metas], strict=True))
    # Every entry starts the listing or follows a NUL: counting the regular
    # modes there tells, most often, that no entry is anything else.
    regular = listing.startswith(_REGULAR_STARTS) + sum(listing.count(f"\0{start}") for start in _REGULAR_STARTS)
    if regular == len(metas):
        return known, {}
    odd = {paths[i]: meta[:6] for i, meta in enumerate(metas) if meta[:6] not in _REGULAR}
    return known, odd


def _committed(root: Path, branch: str) -> Snapshot:
    commit = git_io.text(root, "rev-parse", "--verify", "-q", f"refs/heads/{branch}^{{commit}}")
    if not commit:
        raise RepoError(f"no branch {branch!r} in {root}; name an existing local branch (git branch --list)")
    status, out = git_io.run(root, "ls-tree", "-r", "-z", "--full-tree", commit)
    if status != 0:
        raise RepoError(f"git cannot read branch {branch!r} of {root}; check it with `git log`")
    blobs: dict[str, str] = {}
    links: dict[str, str] = {}
    for record in git_io.records(out):
        meta, _, path = record.partition("\t")
        mode, kind, oid = meta.split(" ", 2)
        if kind == "blob":
            (links if mode == _SYMLINK else blobs)[path] = oid
    snap = Snapshot(root, branch, commit, False, [], blobs, in_git=True)
    for path, oid in links.items():
        target = _link_target(snap, path, oid, blobs, links)
        if target is not None:
            blobs[path] = target
    snap.paths = sorted(blobs)
    return snap


def _link_target(snap: Snapshot, path: str, oid: str, blobs: dict[str, str], links: dict[str, str]) -> str | None:
    """The blob id a committed symbolic link leads to within the tree, if any."""
    for _hop in range(_SYMLINK_HOPS):
        if snap._blobs is None:
            snap._blobs = git_io.BlobReader(snap.root)
        data = snap._blobs.read(oid)
        if data is None:
            return None
        target = data.decode("utf-8", "surrogateescape")
        if target.startswith("/"):
            return None
        path = _norm(posixpath.join(posixpath.dirname(path), target))
        if path in blobs:
            return blobs[path]
        if path not in links:
            return None
        oid = links[path]
    return None


def _walked_paths(repo: Path) -> list[str]:
    found: list[str] = []
    base = str(repo)
    for top, dirs, files in os.walk(base):
        dirs[:] = [d for d in dirs if not d.startswith(".") and d not in IGNORED_DIRS]
        rel = top[len(base) + 1 :].replace(os.sep, "/")
        prefix = rel + "/" if rel else ""
        for name in files:
            if os.path.isfile(os.path.join(top, name)):
                found.append(prefix + name)
    found.sort()
    return found
