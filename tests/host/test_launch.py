"""``python -m`` from a source tree where the native module is not built."""

from __future__ import annotations

import os
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

from malde_ostrel.workers.wiki.tool._launch import NOT_BUILT

RUN = "from malde_ostrel.workers.wiki.tool._launch import main; raise SystemExit(main())"


@pytest.mark.parametrize(("flags", "on_path", "code", "out", "err"), [
    ([], False, 0, "usage: ostrel-wiki", ""),  # runs again from the installed copy
    (["-S"], False, 1, "", NOT_BUILT + "\n"),  # no installed copy
    (["-P"], True, 1, "", NOT_BUILT + "\n"),  # the tree stays first even so: no loop
])  # fmt: skip
def test_source_tree_without_native_module(
    tmp_path: Path, flags: list[str], on_path: bool, code: int, out: str, err: str
) -> None:
    shutil.copytree(Path(__file__).resolve().parents[2] / "malde_ostrel", tmp_path / "malde_ostrel",
                    ignore=shutil.ignore_patterns("*.so", "__pycache__"))  # fmt: skip
    env = {k: v for k, v in os.environ.items() if k != "PYTHONPATH"}
    env.update({"PYTHONPATH": str(tmp_path)} if on_path else {})
    done = subprocess.run([sys.executable, *flags, "-c", RUN, "--help"], cwd=tmp_path, env=env,
                          capture_output=True, text=True, timeout=60)  # fmt: skip
    assert (done.returncode, done.stderr, done.stdout[: len(out)]) == (code, err, out)
