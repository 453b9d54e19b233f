"""Time `ostrel-wiki plan` and `build` beside ordinary documentation tools.

In one run, on three trees, each in a git repository of its own made in a
temporary directory:

* click (a Python package): ``plan`` then ``build`` from nothing (a fresh
  store) against ``pdoc`` writing click's API documentation (all its modules
  but the Windows-only ``click._winconsole``, which does not import here) to
  a fresh directory. Goal: ours at least 5x faster.
* fmt (a C++ library): the same against ``doxygen`` with its default
  configuration plus ``EXTRACT_ALL``, ``RECURSIVE`` and no LaTeX, run at the
  top of the same tree. Debian's doxygen defaults to ``HAVE_DOT = YES`` and
  draws class, include and directory graphs with Graphviz's ``dot`` (most of
  its time); upstream's default is ``NO``, timed too as "doxygen no dot".
  Goal: ours at least 5x faster than both.
* the generated repository of ``bench_tool.py`` (8 copies of the standard
  library, about 19,000 files): a first ``plan`` and a first ``build``
  (goal: within 30 s), then, after a commit that edits one file, a warm
  ``plan`` and ``build`` (goal: the build within 2x the warm plan), with
  each step's peak memory (``--copies 2,8``: at two sizes, to see it grow
  with the tree).

    python benchmarks/bench_build.py [--venv .venv] [--trees click,fmt,large] [--copies 8] [--repeat 3] [--keep]

The tool comes from the virtual environment ``--venv`` (``.venv``, as
``scripts/demo`` makes it). Until it has a ``build`` command, ``plan`` is
timed alone and the build rows read "build: not available"; the figures
appear, with no change here, once it has one. The peers come from the
benchmark's own environment, never the package's: ``benchmarks/setup``
(run first) puts pdoc into ``.venv-bench``, and doxygen and Graphviz from
Debian's packages.

The sources come from the two package registries this machine reaches, and
are kept in ``.bench-cache/`` for the next run:

* click: its sdist from PyPI (``pip download --no-binary :all: --no-deps
  click==VERSION``), the package's source, tests and docs as released;
* fmt: Debian's source package ``fmtlib`` (``apt-get source --download-only``
  through a ``deb-src`` list and package lists of the benchmark's own, in
  ``.bench-cache/apt``, so the system's apt set-up is left alone), whose
  upstream tarball is fmt's release tree (include/, src/, test/, doc/,
  support/) less the bundled googletest and a few support and doc files
  Debian's repack leaves out. Debian's binary ``libfmt-dev`` carries the
  headers only, and no PyPI package carries the whole tree.

Each is unpacked and committed as it is. Every figure is the median of
``--repeat`` rounds; each round runs the peer and then ours, so that a
machine whose speed drifts weighs on both alike. Processor time (user and
system, the child's and its own children's, from ``os.wait4``) is the figure
the goals are judged on; wall time and peak memory (the largest resident set
over the rounds) are shown beside it. The ratio is the median over the
rounds of the round's own ratio.
"""

from __future__ import annotations

import argparse
import os
import shutil
import statistics
import subprocess
import sys
import tarfile
import tempfile
from collections.abc import Callable, Sequence
from dataclasses import dataclass, field
from functools import partial
from pathlib import Path

from bench_tool import GIT, build_repo, scratch, timed

ROOT = Path(__file__).resolve().parent.parent
CLICK_VERSION = "8.5.1"
FMT_SOURCE_PACKAGE = "fmtlib"
DEBIAN_MIRROR = "http://deb.debian.org/debian"
DEBIAN_KEYRING = "/usr/share/keyrings/debian-archive-keyring.gpg"
DOXYFILE = "EXTRACT_ALL = YES\nRECURSIVE = YES\nGENERATE_LATEX = NO\nOUTPUT_DIRECTORY = {out}\n"
TREES = ("click", "fmt", "large")
PEER_GOAL = 5.0  # times faster than the peer
FIRST_BUILD_GOAL = 30.0  # seconds of processor time
WARM_BUILD_GOAL = 2.0  # times the warm plan
EDITED_FILE = "copy-000/json/decoder.py"

Run = tuple[float, float, float]  # wall s, processor s, peak MB


# ---------------------------------------------------------------- sources


def _download_once(target: Path, pattern: str, fetch: Callable[[Path], None]) -> Path:
    """The one file in ``target`` matching ``pattern``, fetched when missing."""
    found = sorted(target.glob(pattern))
    if not found:
        target.mkdir(parents=True, exist_ok=True)
        fetch(target)
        found = sorted(target.glob(pattern))
    if len(found) != 1:
        raise SystemExit(f"expected one {pattern} in {target}, found {len(found)}: remove the folder and run again")
    return found[0]


def _run(argv: Sequence[str | Path], cwd: Path | None = None) -> None:
    result = subprocess.run([str(a) for a in argv], cwd=cwd, capture_output=True, text=True)
    if result.returncode != 0:
        raise SystemExit(f"failed: {' '.join(map(str, argv))}\n{result.stdout}{result.stderr}")


def click_sdist(cache: Path, python: Path, version: str) -> Path:
    """click's source distribution from PyPI."""

    def fetch(target: Path) -> None:
        _run([python, "-m", "pip", "download", "--quiet", "--disable-pip-version-check", "--no-binary", ":all:",
              "--no-deps", f"click=={version}", "-d", target])  # fmt: skip

    return _download_once(cache / "click", f"click-{version}.tar.gz", fetch)


def _debian_codename() -> str:
    for line in Path("/etc/os-release").read_text().splitlines():
        key, _, value = line.partition("=")
        if key == "VERSION_CODENAME" and value:
            return value.strip('"')
    raise SystemExit("cannot tell the Debian release from /etc/os-release")


def fmt_source(cache: Path, mirror: str) -> Path:
    """The upstream tarball of Debian's fmt source package, fetched by apt-get
    with a sources list, package lists and caches of the benchmark's own."""

    def fetch(target: Path) -> None:
        apt = cache / "apt"
        for sub in ("lists/partial", "cache/archives/partial", "sources.list.d"):
            (apt / sub).mkdir(parents=True, exist_ok=True)
        (apt / "sources.list").write_text(f"deb-src [signed-by={DEBIAN_KEYRING}] {mirror} {_debian_codename()} main\n")
        options = [f"-oDir::Etc::SourceList={apt / 'sources.list'}", f"-oDir::Etc::SourceParts={apt / 'sources.list.d'}",
                   f"-oDir::State::Lists={apt / 'lists'}", f"-oDir::Cache={apt / 'cache'}",
                   "-oAPT::Sandbox::User=root", "-q"]  # fmt: skip
        _run(["apt-get", *options, "update"])
        _run(["apt-get", *options, "source", "--download-only", FMT_SOURCE_PACKAGE], cwd=target)

    return _download_once(cache / "fmt", f"{FMT_SOURCE_PACKAGE}_*.orig.tar.*", fetch)


def repo_from_tarball(tarball: Path, where: Path) -> tuple[Path, int]:
    """The tarball's top folder, committed in a new git repository; its path
    and its file count."""
    where.mkdir(parents=True)
    with tarfile.open(tarball) as archive:
        archive.extractall(where, filter="data")
    (top,) = where.iterdir()
    _run([*GIT, "init", "-q", "-b", "main"], cwd=top)
    _run([*GIT, "add", "-A"], cwd=top)
    _run([*GIT, "commit", "-qm", f"{tarball.name} as released"], cwd=top)
    files = subprocess.run(["git", "ls-files", "-z"], cwd=top, capture_output=True, check=True).stdout.count(b"\0")
    return top, files


# ---------------------------------------------------------------- the tool


class Tool:
    """``ostrel-wiki`` from a virtual environment, with a state of its own
    (store and wiki folder) per round."""

    def __init__(self, venv: Path) -> None:
        self.python = venv / "bin" / "python"
        if not self.python.is_file():
            raise SystemExit(f"no Python in {venv}: run ./scripts/demo once, or pass --venv")
        probe = subprocess.run([self.python, "-P", "-c", "import malde_ostrel.workers.wiki.plan_record"],
                               capture_output=True)  # fmt: skip
        if probe.returncode != 0:
            raise SystemExit(f"the tool is not installed in {venv}: run ./scripts/demo once, or pass --venv")
        help_ = subprocess.run([self.python, "-P", "-m", "malde_ostrel.workers.wiki", "build", "--help"],
                               capture_output=True, cwd=tempfile.gettempdir())  # fmt: skip
        self.has_build = help_.returncode == 0

    def argv(self, repo: Path, state: Path, command: str) -> list[str]:
        return [str(self.python), "-P", "-m", "malde_ostrel.workers.wiki", "--repo", str(repo),
                "--store", str(state / "store.sqlite3"), "--wiki-dir", str(state / "wiki"), command]  # fmt: skip


def fresh(folder: Path) -> Path:
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    return folder


# ---------------------------------------------------------------- figures


@dataclass
class Row:
    """One line of the table: a step's runs over the rounds, and the goal it
    is judged against (``ratios``: one a round, when the goal is a ratio)."""

    tree: str
    files: int
    step: str
    runs: list[Run] = field(default_factory=list)
    ratios: list[float] = field(default_factory=list)
    goal: str = ""
    met: Callable[[Row], bool] | None = None
    note: str = ""

    @property
    def cpu(self) -> float:
        return statistics.median(r[1] for r in self.runs)

    @property
    def ratio(self) -> float | None:
        return statistics.median(self.ratios) if self.ratios else None


HEADER = (f"{'tree':<14} {'files':>6}  {'step':<15} {'wall s':>8} {'cpu s':>8} {'peak MB':>8} {'ratio':>7}  "
          f"{'goal':<24} verdict")  # fmt: skip


def print_rows(rows: list[Row]) -> None:
    for row in rows:
        lead = f"{row.tree:<14} {row.files:>6}  {row.step:<15}"
        if not row.runs:
            print(f"{lead} {row.note}")
            continue
        wall = statistics.median(r[0] for r in row.runs)
        peak = max(r[2] for r in row.runs)
        ratio = f"{row.ratio:.1f}x" if row.ratio is not None else "-"
        verdict = "" if row.met is None else "met" if row.met(row) else "MISSED"
        if row.note:
            verdict = f"{verdict} ({row.note})".strip()
        print(f"{lead} {wall:>8.2f} {row.cpu:>8.2f} {peak:>8.1f} {ratio:>7}  {row.goal:<24} {verdict}")
    sys.stdout.flush()


Peer = tuple[str, Callable[[Path], list[str]]]  # name, argv writing into a folder


def versus_peers(
    tree: str, repo: Path, files: int, peers: list[Peer], tool: Tool, work: Path, repeat: int
) -> list[Row]:
    """Rounds of each peer writing its documentation of ``repo`` into a fresh
    folder, then ``plan`` and ``build`` on a fresh store. A peer's ratio is
    its processor time over ours, round by round."""
    plan = Row(tree, files, "plan")
    build = Row(tree, files, "build", note="" if tool.has_build else "build: not available")
    ours = Row(tree, files, "ours", note="plan and build" if tool.has_build else "plan only")
    peer_rows = [Row(tree, files, name, goal=f"{name.split()[0]}/ours >= {PEER_GOAL:g}") for name, _ in peers]
    for row in peer_rows:
        if tool.has_build:
            row.met = lambda row: (row.ratio or 0.0) >= PEER_GOAL
        else:
            row.note = "not judged: no build"
    timed(["git", "status", "--porcelain"], repo)  # a warm index and page cache
    for _ in range(repeat):
        for row, (_name, argv) in zip(peer_rows, peers, strict=True):
            row.runs.append(timed(argv(fresh(work / "peer-out")), repo))
        state = fresh(work / "state")
        runs = [timed(tool.argv(repo, state, "plan"), repo)]
        plan.runs.append(runs[0])
        if tool.has_build:
            runs.append(timed(tool.argv(repo, state, "build"), repo))
            build.runs.append(runs[1])
        ours.runs.append((sum(r[0] for r in runs), sum(r[1] for r in runs), max(r[2] for r in runs)))
        for row in peer_rows:
            row.ratios.append(row.runs[-1][1] / max(ours.runs[-1][1], 1e-6))
    return [plan, build, ours, *peer_rows]


def edit_and_commit(repo: Path, round_: int) -> None:
    """Add a function to one file and commit it. The generated tree's files
    are hard links into the standard library: the file is written anew,
    never changed in place."""
    path = repo / EDITED_FILE
    text = path.read_bytes()
    path.unlink()
    path.write_bytes(text + f'\n\ndef bench_edit_{round_}() -> None:\n    """An edit of round {round_}."""\n'.encode())
    _run([*GIT, "commit", "-qam", f"edit {EDITED_FILE}"], cwd=repo)


def large_tree(tree: str, repo: Path, files: int, tool: Tool, work: Path, repeat: int) -> list[Row]:
    """Rounds of a first ``plan`` and ``build`` on a fresh store, then a
    commit editing one file, and a warm ``plan`` and ``build``."""
    first_plan = Row(tree, files, "first plan")
    first_build = Row(tree, files, "first build", goal=f"cpu <= {FIRST_BUILD_GOAL:g} s")
    warm_plan = Row(tree, files, "warm plan")
    warm_build = Row(tree, files, "warm build", goal=f"build/warm plan <= {WARM_BUILD_GOAL:g}")
    if tool.has_build:
        first_build.met = lambda row: row.cpu <= FIRST_BUILD_GOAL
        warm_build.met = lambda row: (row.ratio or 0.0) <= WARM_BUILD_GOAL
    else:
        first_build.note = warm_build.note = "build: not available"
    timed(["git", "status", "--porcelain"], repo)
    for round_ in range(repeat):
        state = fresh(work / "state")
        first_plan.runs.append(timed(tool.argv(repo, state, "plan"), repo))
        if tool.has_build:
            first_build.runs.append(timed(tool.argv(repo, state, "build"), repo))
        edit_and_commit(repo, round_)
        warm_plan.runs.append(timed(tool.argv(repo, state, "plan"), repo))
        if tool.has_build:
            warm_build.runs.append(timed(tool.argv(repo, state, "build"), repo))
            warm_build.ratios.append(warm_build.runs[-1][1] / max(warm_plan.runs[-1][1], 1e-6))
    return [first_plan, first_build, warm_plan, warm_build]


# ---------------------------------------------------------------- main


def pdoc(bench_venv: Path, repo: Path) -> Peer:
    pdoc = str(bench_venv / "bin" / "pdoc")
    return "pdoc", lambda out: [pdoc, "-o", str(out), str(repo / "src" / "click"), "!click._winconsole"]


def doxygen(name: str, extra: str = "") -> Peer:
    def argv(out: Path) -> list[str]:
        doxyfile = out.with_name("Doxyfile")
        doxyfile.write_text(DOXYFILE.format(out=out) + extra)
        return ["doxygen", str(doxyfile)]

    return name, argv


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--venv", type=Path, default=ROOT / ".venv", help="virtual environment with the tool")
    parser.add_argument("--bench-venv", type=Path, default=ROOT / ".venv-bench", help="the peers' environment")
    parser.add_argument("--cache", type=Path, default=ROOT / ".bench-cache", help="downloaded sources")
    parser.add_argument("--trees", default=",".join(TREES), help="which comparisons (comma-separated)")
    parser.add_argument("--repeat", type=int, default=3, help="rounds per figure (median)")
    parser.add_argument("--copies", default="8", help="copies of the standard library in the large tree, per size")
    parser.add_argument("--click-version", default=CLICK_VERSION, help="click release from PyPI")
    parser.add_argument("--debian-mirror", default=DEBIAN_MIRROR, help="where apt-get finds fmt's source")
    parser.add_argument("--keep", action="store_true", help="keep the repositories and outputs")
    args = parser.parse_args()
    trees = args.trees.split(",")
    if unknown := set(trees) - set(TREES):
        parser.error(f"unknown trees: {', '.join(sorted(unknown))} (known: {', '.join(TREES)})")
    bench_venv = args.bench_venv.resolve()
    subprocess.run([ROOT / "benchmarks" / "setup"], check=True, env={**os.environ, "BENCH_VENV": str(bench_venv)})
    tool = Tool(args.venv.resolve())
    cache = args.cache.resolve()
    failed: list[str] = []
    with scratch("bench-build-", args.keep) as work:

        def click() -> list[Row]:
            sdist = click_sdist(cache, bench_venv / "bin" / "python", args.click_version)
            repo, files = repo_from_tarball(sdist, work / "click")
            return versus_peers(f"click {args.click_version}", repo, files, [pdoc(bench_venv, repo)], tool,
                                work / "click-runs", args.repeat)  # fmt: skip

        def fmt() -> list[Row]:
            tarball = fmt_source(cache, args.debian_mirror)
            repo, files = repo_from_tarball(tarball, work / "fmt")
            version = tarball.name.split("_")[1].split(".orig")[0]
            peers = [doxygen("doxygen"), doxygen("doxygen no dot", "HAVE_DOT = NO\n")]
            return versus_peers(f"fmt {version}", repo, files, peers, tool, work / "fmt-runs", args.repeat)

        def large(copies: int) -> list[Row]:
            repo = work / f"large-{copies}"
            files = build_repo(repo, copies)
            rows = large_tree(f"stdlib x{copies}", repo, files, tool, work / "large-runs", args.repeat)
            if not args.keep:
                shutil.rmtree(repo)
            return rows

        runs: list[tuple[str, Callable[[], list[Row]]]] = []
        if "click" in trees:
            runs.append(("click", click))
        if "fmt" in trees:
            runs.append(("fmt", fmt))
        if "large" in trees:
            runs += [(f"stdlib x{c}", partial(large, int(c))) for c in args.copies.split(",")]
        print(HEADER)
        sys.stdout.flush()
        for name, run in runs:
            try:
                print_rows(run())
            except SystemExit as exc:  # a failing command: the other trees still count
                print(f"{name}: {exc}", file=sys.stderr)
                failed.append(name)
    if failed:
        raise SystemExit(f"failed: {', '.join(failed)}")


if __name__ == "__main__":
    main()
