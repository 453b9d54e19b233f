"""A tour of ``ostrel-wiki``, ending with a published wiki of this checkout.

First a small sample repository in a temporary directory, step by step: the
first plan, saving a page's prose, changing the code, planning again (ids
stay put; the changes become amendments), the status with its stale section,
the plan log, and a moved package whose page keeps its id and its text.

Then the wiki of this project's own checkout, kept under build/demo/: planned,
its pages written, and published as a static site; the demo ends with the
site's file:// address and the command that serves it.
"""

from __future__ import annotations

import os
import shlex
import subprocess
import sys
import tempfile
import time
from pathlib import Path

GIT_ENV = {
    "GIT_AUTHOR_NAME": "Demo",
    "GIT_AUTHOR_EMAIL": "demo@example.invalid",
    "GIT_COMMITTER_NAME": "Demo",
    "GIT_COMMITTER_EMAIL": "demo@example.invalid",
    "GIT_CONFIG_GLOBAL": os.devnull,
    "GIT_CONFIG_NOSYSTEM": "1",
}
ENV = os.environ | GIT_ENV

STEERING = """\
steering = "Write for someone who has just cloned the repository."

[[page]]
title = "Getting started"
files = ["README.md", "docs/**"]
"""

BOIL = """\
from kettle.config import Settings


def boil(settings: Settings) -> float:
    \"\"\"Heat until the target temperature is reached; return the seconds taken.\"\"\"
    return settings.target_c / settings.watts * 4186
"""

CONFIG = """\
from dataclasses import dataclass


@dataclass
class Settings:
    target_c: float = 100.0
    watts: float = 2000.0
"""

PAGE = """\
# kettle

The package that heats water.

## Boiling

`boil` turns the settings into a heating time [[kettle/boil.py:4-6|boil]].

## Settings

The defaults live in one dataclass [[kettle/config.py:4-7|Settings]].
"""


def sample_files() -> dict[str, str]:
    files = {
        "README.md": "# kettle\n\nA small kettle controller.\n",
        "docs/setup.md": "Run `make` and flash the board.\n",
        ".ostrel-wiki.toml": STEERING,
        "kettle/__init__.py": '"""The kettle controller."""\n',
        "kettle/boil.py": BOIL,
        "kettle/config.py": CONFIG,
        "web/app.ts": "export const app = 1;\n",
        "web/routes.ts": "export const routes = [];\n",
        "main.py": "from kettle.boil import boil\n",
    }
    # Fourteen drivers: more than one page holds, so they become a family.
    for n in range(14):
        files[f"kettle/drivers/d{n:02d}.c"] = f"int driver_{n}(void) {{ return {n}; }}\n"
    return files


def write(repo: Path, files: dict[str, str]) -> None:
    for rel, text in files.items():
        path = repo / rel
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text, encoding="utf-8")


def git(repo: Path, *args: str) -> None:
    subprocess.run(["git", *args], cwd=repo, env=ENV, check=True, capture_output=True)


def commit(repo: Path, message: str) -> None:
    git(repo, "add", "-A")
    git(repo, "commit", "-q", "-m", message)


def heading(text: str) -> None:
    print(f"\n=== {text} " + "=" * max(0, 72 - len(text)), flush=True)


def wiki(repo: Path, *args: str, quiet: bool = False) -> None:
    print(f"$ ostrel-wiki {shlex.join(args)}", flush=True)
    command = [sys.executable, "-m", "malde_ostrel.workers.wiki", "--repo", str(repo), *args]
    done = subprocess.run(command, cwd=repo, env=ENV, check=False, stdout=subprocess.DEVNULL if quiet else None)
    if done.returncode != 0:
        raise SystemExit(f"demo: ostrel-wiki {shlex.join(args)} exited with {done.returncode}")


def own_wiki(root: Path) -> None:
    """Plan, write and publish the wiki of this checkout, its state under build/demo/."""
    state = root / "build" / "demo"
    site = state / "site"
    where = ["--store", str(state / "store.sqlite3"), "--wiki-dir", str(state / "wiki")]
    heading("9. this checkout's own wiki: plan, write, publish")
    wiki(root, *where, "plan", quiet=True)
    wiki(root, *where, "build")
    wiki(root, *where, "publish", str(site))
    heading("done")
    print(f"the wiki of this checkout: {(site / 'index.html').as_uri()}")
    tool = Path(sys.executable).parent / "ostrel-wiki"
    serve = [str(tool) if tool.exists() else "ostrel-wiki", "--repo", str(root), *where, "serve", str(site)]
    print(f"serve it (127.0.0.1, published again as the wiki changes): {shlex.join(serve)}")


def main() -> None:
    started = time.monotonic()
    with tempfile.TemporaryDirectory(prefix="ostrel-wiki-demo-") as tmp:
        repo = Path(tmp) / "kettle"
        repo.mkdir()
        git(repo, "init", "-q", "-b", "main")
        write(repo, sample_files())
        commit(repo, "A kettle controller")
        print(f"sample repository: {repo}")

        heading("1. plan: the first plan of record")
        wiki(repo, "plan")

        heading("2. save: the prose of module-kettle, with citations")
        body = Path(tmp) / "module-kettle.md"
        body.write_text(PAGE, encoding="utf-8")
        print(PAGE)
        wiki(repo, "save", "module-kettle", str(body))

        heading("3. the code changes")
        write(repo, {"kettle/config.py": CONFIG.replace("2000.0", "2400.0")})
        write(repo, {"kettle/drivers/d14.c": "int driver_14(void) { return 14; }\n"})
        for rel in ("web/app.ts", "web/routes.ts"):
            (repo / rel).unlink()
        write(repo, {"cli/run.py": "import sys\n", "cli/args.py": "import argparse\n"})
        commit(repo, "Faster heating, a new driver, a CLI; the web UI goes")
        print("edited   kettle/config.py (more watts)")
        print("added    kettle/drivers/d14.c, cli/run.py, cli/args.py")
        print("removed  web/app.ts, web/routes.ts")

        heading("4. plan again: the same ids, the changes as amendments")
        wiki(repo, "plan")

        heading("5. status: what to write, and the section the edit made stale")
        wiki(repo, "status")

        heading("6. log: the plan audit log")
        wiki(repo, "log")

        heading("7. the package moves to src/: same page, same text")
        (repo / "src").mkdir()
        git(repo, "mv", "kettle", "src/kettle")
        commit(repo, "Move the package under src/")
        print("moved    kettle/ -> src/kettle/")
        wiki(repo, "plan")
        wiki(repo, "history", "module-kettle")

        heading("8. build: the other pages written from the code; the saved text kept, its stale section told")
        wiki(repo, "build")
        wiki(repo, "status")

    own_wiki(Path(__file__).resolve().parent.parent)
    print(f"the tour took {time.monotonic() - started:.1f} s")
    print("run on your own repository: ostrel-wiki --repo PATH plan")


if __name__ == "__main__":
    main()
