"""Running git: one-shot commands and one long-lived blob reader.

Commands run with optional locks off, so that reading a repository never
takes the index lock away from the user's own git commands.  The status of a
snapshot is the exception: like the user's own ``git status``, it writes back
the stat data it had to re-check (when it can take the lock at once), so that
an index gone stale (files touched, a fresh checkout) costs one run a re-read
of those files rather than every run.
"""

from __future__ import annotations

import atexit
import os
import subprocess
import weakref
from pathlib import Path

GIT_TIMEOUT_S = 120

_ENV = {**os.environ, "GIT_OPTIONAL_LOCKS": "0", "GIT_TERMINAL_PROMPT": "0"}
_REFRESHING_ENV = {**_ENV, "GIT_OPTIONAL_LOCKS": "1"}

# What a snapshot of a work tree asks git: the index listing and the status.
WORK_TREE_LISTING: tuple[str, ...] = ("ls-files", "-s", "-z")
WORK_TREE_STATUS: tuple[str, ...] = (
    "status", "--porcelain=v2", "-z", "--branch", "--untracked-files=no", "--no-renames", "--ignore-submodules=all",
)  # fmt: skip


def git_binary() -> str | None:
    """The git program found on the PATH, as the shell would find it."""
    for folder in os.environ.get("PATH", os.defpath).split(os.pathsep):
        candidate = os.path.join(folder, "git")
        if os.access(candidate, os.X_OK) and not os.path.isdir(candidate):
            return candidate
    return None


def run(repo: Path, *args: str, stdin: bytes | None = None) -> tuple[int, bytes]:
    """Exit status and stdout of one git command run in ``repo``; status -1
    when git is missing or cannot be run."""
    git = git_binary()
    if git is None:
        return -1, b""
    try:
        done = subprocess.run(
            [git, *args],
            cwd=repo,
            input=stdin,
            stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL,
            timeout=GIT_TIMEOUT_S,
            check=False,
            env=_ENV,
        )
    except (OSError, subprocess.SubprocessError):
        return -1, b""
    return done.returncode, done.stdout


# Commands started ahead of the call that reads them: (repo, first, second)
# -> the two processes.
_started: dict[tuple[str, tuple[str, ...], tuple[str, ...]], list[subprocess.Popen[bytes]]] = {}


def _spawn(repo: Path, commands: tuple[tuple[str, ...], ...]) -> list[subprocess.Popen[bytes]] | None:
    git = git_binary()
    if git is None:
        return None
    procs: list[subprocess.Popen[bytes]] = []
    try:
        for args in commands:
            env = _REFRESHING_ENV if args == WORK_TREE_STATUS else _ENV
            procs.append(
                subprocess.Popen([git, *args], cwd=repo, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, env=env)
            )
    except OSError:
        _stop_all(procs)
        return None
    return procs


def _stop_all(procs: list[subprocess.Popen[bytes]]) -> None:
    for proc in procs:
        if proc.returncode is None:
            proc.kill()
            proc.communicate()


def stop_started() -> None:
    """Stop what ``start_both`` started and no call read."""
    while _started:
        _stop_all(_started.popitem()[1])


def start_both(repo: Path, first: tuple[str, ...], second: tuple[str, ...]) -> None:
    """Start now what ``run_both(repo, first, second)`` will run, so that git
    works while the interpreter loads the rest of the tool. The call with the
    same arguments reads the results; what no call reads is stopped at exit."""
    key = (str(repo), first, second)
    if key in _started:
        return
    procs = _spawn(repo, (first, second))
    if procs is None:
        return
    if not _started:
        atexit.register(stop_started)
    _started[key] = procs


def run_both(repo: Path, first: tuple[str, ...], second: tuple[str, ...]) -> tuple[tuple[int, bytes], ...]:
    """Exit status and stdout of two git commands run side by side in ``repo``
    (the first is read to its end before the second)."""
    procs = _started.pop((str(repo), first, second), None) or _spawn(repo, (first, second))
    if procs is None:
        return (-1, b""), (-1, b"")
    try:
        results: list[tuple[int, bytes]] = []
        for proc in procs:
            out = proc.communicate(timeout=GIT_TIMEOUT_S)[0]
            results.append((proc.returncode, out))
        return tuple(results)
    except (OSError, subprocess.SubprocessError):
        return (-1, b""), (-1, b"")
    finally:
        _stop_all(procs)


def text(repo: Path, *args: str) -> str | None:
    """Stdout of a git command as text (stray bytes kept as surrogates),
    trailing line end removed; None when it fails."""
    status, out = run(repo, *args)
    if status != 0:
        return None
    return out.decode("utf-8", "surrogateescape").rstrip("\n")


def records(out: bytes) -> list[str]:
    """The NUL-terminated records of a ``-z`` listing, as text."""
    return out.decode("utf-8", "surrogateescape").split("\0")[:-1] if out else []


def _stop(proc: subprocess.Popen[bytes]) -> None:
    for stream in (proc.stdin, proc.stdout):
        try:
            if stream is not None:
                stream.close()
        except OSError:
            pass
    try:
        proc.wait(timeout=5)
    except subprocess.TimeoutExpired:
        proc.kill()
        proc.wait()


class BlobReader:
    """Object contents through one ``git cat-file --batch`` process, started
    on first use and stopped by ``close`` (or when the reader is collected)."""

    def __init__(self, repo: Path) -> None:
        self._repo = repo
        self._proc: subprocess.Popen[bytes] | None = None
        self._finalizer: weakref.finalize[[subprocess.Popen[bytes]], BlobReader] | None = None

    def _start(self) -> subprocess.Popen[bytes] | None:
        git = git_binary()
        if git is None:
            return None
        try:
            proc = subprocess.Popen(
                [git, "cat-file", "--batch"],
                cwd=self._repo,
                stdin=subprocess.PIPE,
                stdout=subprocess.PIPE,
                stderr=subprocess.DEVNULL,
                env=_ENV,
            )
        except OSError:
            return None
        self._proc = proc
        self._finalizer = weakref.finalize(self, _stop, proc)
        return proc

    def read(self, oid: str) -> bytes | None:
        """The bytes of object ``oid``; None when it is missing or git fails."""
        proc = self._proc or self._start()
        if proc is None or proc.stdin is None or proc.stdout is None:
            return None
        try:
            proc.stdin.write(oid.encode("ascii", "replace") + b"\n")
            proc.stdin.flush()
            header = proc.stdout.readline().split()
            if len(header) != 3:
                return None  # "<oid> missing"
            size = int(header[2])
            data = proc.stdout.read(size)
            proc.stdout.read(1)  # the line feed after the contents
        except (OSError, ValueError):
            self.close()
            return None
        return data if len(data) == size else None

    def close(self) -> None:
        if self._finalizer is not None:
            self._finalizer()
        self._proc = None
        self._finalizer = None
