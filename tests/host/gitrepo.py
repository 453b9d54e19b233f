"""Small temporary git repositories for the host tests."""

from __future__ import annotations

import os
import subprocess
from pathlib import Path

ENV = {k: v for k, v in os.environ.items() if k != "OSTREL_WIKI_STORE"} | {
    "GIT_AUTHOR_NAME": "T", "GIT_AUTHOR_EMAIL": "t@example.invalid",
    "GIT_COMMITTER_NAME": "T", "GIT_COMMITTER_EMAIL": "t@example.invalid",
    "GIT_CONFIG_GLOBAL": os.devnull, "GIT_CONFIG_NOSYSTEM": "1",
}  # fmt: skip


def git(repo: Path, *args: str, input: str | None = None) -> str:
    done = subprocess.run(["git", *args], cwd=repo, env=ENV, check=True, capture_output=True,
                          text=True, input=input)  # fmt: skip
    return done.stdout.strip()


def write(root: Path, files: dict[str, str]) -> None:
    for rel, text in files.items():
        (root / rel).parent.mkdir(parents=True, exist_ok=True)
        (root / rel).write_text(text, encoding="utf-8")


def change(
    repo: Path, add: dict[str, str] | None = None, move: dict[str, str] | None = None, drop: tuple[str, ...] = ()
) -> None:
    """Write, move and remove files, then commit everything."""
    write(repo, add or {})
    for old, new in (move or {}).items():
        (repo / new).parent.mkdir(parents=True, exist_ok=True)
        git(repo, "mv", old, new)
    for rel in drop:
        git(repo, "rm", "-rq", rel)
    git(repo, "add", "-A")
    git(repo, "commit", "-qm", "step", "--allow-empty")


def make_repo(root: Path, files: dict[str, str], branch: str = "main") -> Path:
    root.mkdir(parents=True, exist_ok=True)
    git(root, "init", "-q", "-b", branch, "--template=")
    change(root, files)
    return root
