"""Time `ostrel-wiki` on large repositories, side by side with `git status`.

Builds its own repositories in a temporary directory: N copies of this
Python's standard library source tree (no __pycache__, no site-packages,
about 2,400 files a copy), committed in git.  For each size it measures, as
the median of a few runs, the wall time and peak memory of:

* ``git status --porcelain`` (the yardstick);
* ``inputs``: a snapshot of the work tree, the fresh plan derived from it and
  the content hashes of every live path, in a fresh interpreter;
* a first ``ostrel-wiki plan`` (empty store), a warm ``plan`` and ``status``.

    python benchmarks/bench_tool.py [--copies 2,8,33] [--repeat 3] [--steps inputs,...] [--keep]

Wall time, processor time (user and system) and peak memory (the maximum
resident set) come from ``os.wait4`` on each child; on a busy machine the
processor time is the steadier figure. The runs go in rounds, each step once
after a ``git status``: "x git status" is the median over the rounds of a step's
wall time over its round's ``git status``.
"""

from __future__ import annotations

import argparse
import os
import shutil
import statistics
import subprocess
import sys
import sysconfig
import tempfile
import time
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

SKIP_DIRS = {"__pycache__", "site-packages"}
MAX_FILE_BYTES = 4 << 20  # leaves out the static library of the build
GIT = ["git", "-c", "user.name=bench", "-c", "user.email=bench@example.invalid"]

INPUTS = """
import sys
from pathlib import Path
from malde_ostrel.workers.wiki.tool import planner, repo_scan
snap = repo_scan.snapshot(Path(sys.argv[1]))
derived = planner.derive(snap)
hashes = snap.hashes(snap.paths)
assert len(hashes) == len(snap.paths) and all(hashes.values())
"""


@contextmanager
def scratch(prefix: str, keep: bool) -> Iterator[Path]:
    """A temporary folder for a run's repositories, removed after it unless ``keep``."""
    work = Path(tempfile.mkdtemp(prefix=prefix))
    try:
        yield work
    finally:
        if keep:
            print(f"repositories kept in {work}")
        else:
            shutil.rmtree(work, ignore_errors=True)


def build_repo(where: Path, copies: int) -> int:
    """A git repository of ``copies`` copies of the standard library; its file count."""
    stdlib = Path(sysconfig.get_paths()["stdlib"])
    where.mkdir(parents=True)
    files = 0
    for copy in range(copies):
        for top, dirs, names in os.walk(stdlib):
            dirs[:] = sorted(d for d in dirs if d not in SKIP_DIRS)
            rel = Path(top).relative_to(stdlib)
            target = where / f"copy-{copy:03d}" / rel
            target.mkdir(parents=True, exist_ok=True)
            for name in names:
                source = Path(top) / name
                if not source.is_file() or source.is_symlink():
                    continue
                if source.stat().st_size > MAX_FILE_BYTES:
                    continue
                try:
                    os.link(source, target / name)
                except OSError:
                    shutil.copy2(source, target / name)
                files += 1
    subprocess.run([*GIT, "init", "-q", "-b", "main"], cwd=where, check=True)
    subprocess.run([*GIT, "add", "-A"], cwd=where, check=True)
    subprocess.run([*GIT, "commit", "-qm", "copies"], cwd=where, check=True)
    return files


def timed(argv: list[str], cwd: Path) -> tuple[float, float, float]:
    """Wall time (s), processor time (s) and peak resident memory (MB) of one
    command, its own children included; raises on failure."""
    with tempfile.TemporaryFile() as errors:
        start = time.perf_counter()
        proc = subprocess.Popen(argv, cwd=cwd, stdout=subprocess.DEVNULL, stderr=errors)
        _pid, status, usage = os.wait4(proc.pid, 0)
        wall = time.perf_counter() - start
        proc.returncode = os.waitstatus_to_exitcode(status)
        if proc.returncode != 0:
            errors.seek(0)
            raise SystemExit(f"failed: {' '.join(argv)}\n{errors.read().decode(errors='replace')}")
    return wall, usage.ru_utime + usage.ru_stime, usage.ru_maxrss / 1024


def median_of(runs: list[tuple[float, float, float]]) -> tuple[float, float, float]:
    return (statistics.median(r[0] for r in runs), statistics.median(r[1] for r in runs),
            max(r[2] for r in runs))  # fmt: skip


STEPS = ("git status", "inputs", "first plan", "warm plan", "status")


def measure(
    repo: Path, state: Path, repeat: int, python: str, steps: set[str]
) -> dict[str, tuple[float, float, float, float]]:
    """Per step: median wall and processor time, peak memory and the median of
    its wall time over the same round's `git status`. Each round runs every
    step once, side by side with `git status`, so that a machine whose speed
    drifts during the run weighs on both alike."""
    tool = [python, "-m", "malde_ostrel.workers.wiki", "--repo", str(repo),
            "--store", str(state / "store.sqlite3"), "--wiki-dir", str(state / "wiki")]  # fmt: skip
    commands = {
        "git status": ["git", "status", "--porcelain"],
        "inputs": [python, "-c", INPUTS, str(repo)],
        "first plan": [*tool, "plan"],
        "warm plan": [*tool, "plan"],
        "status": [*tool, "status"],
    }
    timed(commands["git status"], repo)  # a warm index and page cache
    runs: dict[str, list[tuple[float, float, float]]] = {}
    ratios: dict[str, list[float]] = {}
    for _ in range(repeat):
        shutil.rmtree(state, ignore_errors=True)
        state.mkdir(parents=True)
        base = timed(commands["git status"], repo)
        runs.setdefault("git status", []).append(base)
        # A first plan makes the store the later steps use, timed or not.
        for step in ("inputs", "first plan", "warm plan", "status"):
            if step in steps or (step == "first plan" and steps & {"warm plan", "status"}):
                run = timed(commands[step], repo)
                if step in steps:
                    runs.setdefault(step, []).append(run)
                    ratios.setdefault(step, []).append(run[0] / base[0])
    return {step: (*median_of(found), statistics.median(ratios.get(step, [1.0]))) for step, found in runs.items()}


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--copies", default="2,8,33", help="copies of the library, per size")
    parser.add_argument("--repeat", type=int, default=3, help="runs per figure (median)")
    parser.add_argument("--python", default=sys.executable, help="interpreter with the tool")
    parser.add_argument(
        "--steps", default=",".join(STEPS[1:]), help="what to time besides git status (comma-separated)"
    )
    parser.add_argument("--keep", action="store_true", help="keep the generated repositories")
    args = parser.parse_args()
    with scratch("bench-tool-", args.keep) as work:
        print(f"{'files':>7}  {'step':<11} {'wall ms':>9} {'cpu ms':>8} {'us/file':>8} "
              f"{'peak MB':>8} {'x git status':>12}")  # fmt: skip
        for copies in (int(c) for c in args.copies.split(",")):
            repo = work / f"repo-{copies}"
            files = build_repo(repo, copies)
            steps = set(args.steps.split(","))
            results = measure(repo, work / f"state-{copies}", args.repeat, args.python, steps)
            for step, (wall, cpu, peak, ratio) in results.items():
                print(f"{files:>7}  {step:<11} {wall * 1e3:>9.1f} {cpu * 1e3:>8.1f} "
                      f"{wall * 1e6 / files:>8.2f} {peak:>8.1f} {ratio:>12.1f}")  # fmt: skip
            sys.stdout.flush()
            if not args.keep:
                shutil.rmtree(repo)


if __name__ == "__main__":
    main()
