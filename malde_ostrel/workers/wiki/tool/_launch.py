"""Start ``ostrel-wiki`` for ``python -m``, also from the project's own tree.

Run from the project root, ``python -m malde_ostrel.workers.wiki`` imports
the package from the source tree (the current directory comes first on
``sys.path``), where the native module is not built.  Then the command runs
again with ``python -P``, which leaves the current directory off the path,
so that an installed copy of the package is used; without one, one line
says what to do.  Before anything else loads, git starts listing the work
tree, for the command's first snapshot.
"""

from __future__ import annotations

import gc
import importlib
import importlib.machinery
import os
import sys
from pathlib import Path

from malde_ostrel.workers.wiki.tool import git_io

PROG = "ostrel-wiki"
NATIVE = "malde_ostrel.workers.wiki.plan_record"
NOT_BUILT = (
    f"{PROG}: error: the native module is not built in this source tree; "
    "run ./scripts/demo once, or use .venv/bin/ostrel-wiki"
)


def _has_native(package_dir: Path) -> bool:
    wiki = package_dir / "workers" / "wiki"
    return any((wiki / f"plan_record{suffix}").is_file() for suffix in importlib.machinery.EXTENSION_SUFFIXES)


def installed_copy(source_root: Path) -> Path | None:
    """The directory of a copy of the package, with its native module, found
    on ``sys.path`` without the current directory and ``source_root``."""
    here = Path.cwd().resolve()
    skip = {here, source_root.resolve()}
    path = [entry for entry in sys.path if entry and Path(entry).resolve() not in skip]
    spec = importlib.machinery.PathFinder.find_spec("malde_ostrel", path)
    if spec is None or not spec.submodule_search_locations:
        return None
    for location in spec.submodule_search_locations:
        if _has_native(Path(location)):
            return Path(location)
    return None


def start_snapshot(argv: list[str]) -> None:
    """Let git list the work tree while the tool loads: the snapshot a command
    takes first reads these results when it asks git the same in the same
    place (a work tree's top, the checked-out branch); else they go unread."""
    if any(word in ("-h", "--help") or word.startswith("--branch") for word in argv):
        return
    repo = "."
    for word, value in zip(argv, [*argv[1:], None], strict=True):
        if word == "--repo" and value is not None:
            repo = value
        elif word.startswith("--repo="):
            repo = word.removeprefix("--repo=")
    try:
        top = Path(repo).expanduser()
        if (top / ".git").exists():
            git_io.start_both(top.resolve(), git_io.WORK_TREE_LISTING, git_io.WORK_TREE_STATUS)
    except (OSError, ValueError):
        pass  # the command itself will say what is wrong


def main() -> int:
    """Run the tool; from a source tree without the native module, run it
    again from the installed copy, or say what to do (exit status 1)."""
    start_snapshot(sys.argv[1:])
    try:
        importlib.import_module(NATIVE)
    except ImportError as exc:
        if not isinstance(exc, ModuleNotFoundError) or exc.name != NATIVE:
            print(
                f"{PROG}: error: the native module cannot be loaded ({exc}); reinstall the package (pip install .)",
                file=sys.stderr,
            )
            return 1
        package_dir = Path(__file__).resolve().parents[3]
        if not sys.flags.safe_path and installed_copy(package_dir.parent) is not None:
            sys.stdout.flush()
            sys.stderr.flush()
            git_io.stop_started()
            try:
                os.execv(sys.executable, [sys.executable, "-P", *sys.orig_argv[1:]])
            except OSError:
                pass  # fall through to the advice
        print(NOT_BUILT, file=sys.stderr)
        return 1
    from malde_ostrel.workers.wiki.tool.cli import main as cli_main

    return cli_main()


def entry() -> int:
    """``main`` for a process that ends when it returns: the console script
    and ``python -m``.  No collection passes while the tool loads and runs
    (they would only walk objects that live as long as the process; see
    ``cli.main``), and none as the interpreter exits: what the run leaves is
    frozen, skipped by those last passes (files and the store are closed by
    then)."""
    gc.disable()
    status = main()
    gc.freeze()
    return status
