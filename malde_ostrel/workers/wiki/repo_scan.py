"""What a repository holds right now: its live file paths and its branch.

In a git work tree the live paths are the tracked files (``git ls-files``)
that still exist on disk; elsewhere, or without git, a directory walk finds
them, skipping hidden directories and the usual generated or vendored ones.
Paths are repository-relative and use "/" on every platform.
"""

from __future__ import annotations

import os
import shutil
import subprocess
from pathlib import Path

# Branch of a plain directory, or of a work tree whose HEAD is detached.
DEFAULT_BRANCH = "main"

# Directories the walk never enters (hidden ones, starting with ".", neither).
IGNORED_DIRS: frozenset[str] = frozenset(
    {"node_modules", "__pycache__", "build", "dist", "venv", ".venv"}
)

_GIT_TIMEOUT_S = 60


def _git(repo: Path, *args: str) -> str | None:
    """Stdout of one git command run in ``repo``; None when git fails or is missing."""
    git = shutil.which("git")
    if git is None:
        return None
    try:
        done = subprocess.run(
            [git, *args],
            cwd=repo,
            capture_output=True,
            timeout=_GIT_TIMEOUT_S,
            check=False,
        )
    except (OSError, subprocess.SubprocessError):
        return None
    if done.returncode != 0:
        return None
    return done.stdout.decode("utf-8", "surrogateescape")


def is_git_work_tree(repo: Path) -> bool:
    """True when ``repo`` lies inside a git work tree and git can be run."""
    return (_git(repo, "rev-parse", "--is-inside-work-tree") or "").strip() == "true"


def _tracked_paths(repo: Path) -> list[str] | None:
    listing = _git(repo, "ls-files", "-z")
    if listing is None:
        return None
    # Tracked files deleted from the work tree (and submodule entries, which
    # are directories) are not live.
    return [path for path in listing.split("\0") if path and (repo / path).is_file()]


def _walked_paths(repo: Path) -> list[str]:
    found: list[str] = []
    for top, dirs, files in os.walk(repo):
        dirs[:] = [d for d in dirs if not d.startswith(".") and d not in IGNORED_DIRS]
        rel = Path(top).relative_to(repo)
        for name in files:
            path = rel / name
            if (repo / path).is_file():
                found.append(path.as_posix())
    return found


def live_paths(repo: Path) -> list[str]:
    """The repository's live file paths, sorted, relative to ``repo``."""
    tracked = _tracked_paths(repo) if is_git_work_tree(repo) else None
    paths = tracked if tracked is not None else _walked_paths(repo)
    return sorted(set(paths))


def current_branch(repo: Path) -> str:
    """The checked-out branch; ``DEFAULT_BRANCH`` for a plain directory or a detached head."""
    if not is_git_work_tree(repo):
        return DEFAULT_BRANCH
    name = (_git(repo, "rev-parse", "--abbrev-ref", "HEAD") or "").strip()
    if not name:
        # A repository without commits yet: HEAD names an unborn branch.
        name = (_git(repo, "symbolic-ref", "--short", "-q", "HEAD") or "").strip()
    if not name or name == "HEAD":
        return DEFAULT_BRANCH
    return name
