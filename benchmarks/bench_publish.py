"""Time `ostrel-wiki publish` against `mkdocs build` on the same pages' Markdown.

Builds the repository of bench_tool.py (copies of this Python's standard
library, about 2,400 files a copy; 8 copies make the 19k-file tree), plans its
wiki and saves a generated text for every page as `save` stores it (the
demo's stand-in texts: a few sections, each citing lines of the page's files
by symbol). Then, one run side by side:

* ``publish``: a full `ostrel-wiki publish` into an empty directory;
* ``mkdocs``: `mkdocs build` of the same page texts (one Markdown file per
  page) with its default theme, from a virtual environment of its own
  (made on first use under build/; never a dependency of the tool);
* ``republish``: `ostrel-wiki publish` again after one page's text changed.

    python benchmarks/bench_publish.py [--copies 8] [--work DIR] [--mkdocs-venv DIR]

``--work DIR`` keeps the repository, its wiki and the sites there, and reuses
a repository and wiki made by an earlier run.
"""

from __future__ import annotations

import argparse
import importlib.util
import shutil
import subprocess
import sys
import tempfile
import time
from collections.abc import Callable
from pathlib import Path
from typing import TYPE_CHECKING

if TYPE_CHECKING:
    from malde_ostrel.workers.wiki.types import PagePlan

HERE = Path(__file__).resolve().parent
MKDOCS_VERSION = "1.6.1"


def _load(path: Path) -> object:
    spec = importlib.util.spec_from_file_location(path.stem, path)
    assert spec is not None and spec.loader is not None
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


def make_wiki(work: Path, copies: int, python: str) -> tuple[Path, list[str]]:
    """The repository with a text saved for every page; the page ids."""
    repo = work / "repo"
    from malde_ostrel.workers.wiki.tool.wiki import Wiki

    if not (repo / ".git").is_dir():
        shutil.rmtree(repo, ignore_errors=True)
        files = _load(HERE / "bench_tool.py").build_repo(repo, copies)  # type: ignore[attr-defined]
        print(f"repository: {files} files in {repo}", flush=True)
    with Wiki.open(repo) as wiki:
        report = wiki.plan()
        pages = {p.page_id: p for p in report.pages}
        status = wiki.status()
    todo = {p.page_id for p in status.pages if not p.written}
    started = time.perf_counter()
    if todo:
        # The texts the demo saves for this checkout's pages: sections citing definitions.
        demo = _load(HERE.parent / "scripts" / "demo.py")
        save_all(repo, todo, lambda plan: demo.placeholder_text(plan.title, plan.source_files, repo, plan.children))  # type: ignore[attr-defined]
        print(f"saved {len(todo)} texts in {time.perf_counter() - started:.0f} s", flush=True)
    return repo, list(pages)


def save_all(repo: Path, todo: set[str], text: Callable[[PagePlan], str]) -> None:
    """Save a text for each page of ``todo`` as `save` stores it (the generator's
    ``save_page``), in one session: a `save` per page, each looking at the
    19k-file tree again, would take most of an hour."""
    from malde_ostrel.workers.wiki.tool.wiki import Wiki

    with Wiki.open(repo) as wiki:
        snap = wiki._snapshot()
        with wiki._session(write=True) as db:
            derived, steering = wiki._derive(snap, db)
            gen = wiki._generator(db, snap, steering)
            plans = wiki._pinned(gen, derived, snap)
            gen.reload = lambda: None  # type: ignore[method-assign]  # the rows are not read back per page
            for plan in plans:
                if plan.page_id in todo:
                    gen.save_page(plan, text(plan))


def mkdocs_python(venv: Path) -> Path:
    python = venv / "bin" / "python"
    if not python.exists():
        print(f"making {venv} with mkdocs {MKDOCS_VERSION}", flush=True)
        subprocess.run([sys.executable, "-m", "venv", str(venv)], check=True)
        subprocess.run([str(python), "-m", "pip", "install", "-q", f"mkdocs=={MKDOCS_VERSION}"], check=True)
    return python


def mkdocs_project(work: Path, repo: Path, page_ids: list[str]) -> Path:
    """The same page texts as an mkdocs project."""
    from malde_ostrel.workers.wiki.tool.wiki import Wiki

    project = work / "mkdocs"
    shutil.rmtree(project, ignore_errors=True)
    docs = project / "docs"
    docs.mkdir(parents=True)
    with Wiki.open(repo) as wiki:
        pages_dir = wiki.pages_dir
    (docs / "index.md").write_text("# Wiki\n\n" + "".join(f"- [{p}]({p}.md)\n" for p in page_ids))
    for page_id in page_ids:
        body = pages_dir / f"{page_id}.md"
        if body.exists():
            shutil.copyfile(body, docs / f"{page_id}.md")
    (project / "mkdocs.yml").write_text("site_name: Wiki\nuse_directory_urls: false\n")
    return project


def timed(argv: list[str], cwd: Path) -> float:
    started = time.perf_counter()
    done = subprocess.run(argv, cwd=cwd, capture_output=True, text=True, check=False)
    wall = time.perf_counter() - started
    if done.returncode != 0:
        raise SystemExit(f"failed: {' '.join(argv)}\n{done.stderr}")
    return wall


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--copies", type=int, default=8, help="copies of the library (8: about 19k files)")
    parser.add_argument("--work", type=Path, help="keep (and reuse) the repository, wiki and sites here")
    parser.add_argument("--mkdocs-venv", type=Path, default=HERE.parent / "build" / "bench-mkdocs-venv")
    parser.add_argument("--python", default=sys.executable, help="interpreter with the tool")
    args = parser.parse_args()
    temp = None if args.work else tempfile.TemporaryDirectory(prefix="bench-publish-")
    work = Path(args.work or temp.name)  # type: ignore[union-attr]
    work.mkdir(parents=True, exist_ok=True)
    try:
        repo, page_ids = make_wiki(work, args.copies, args.python)
        mkdocs = mkdocs_python(args.mkdocs_venv)
        project = mkdocs_project(work, repo, page_ids)
        site = work / "site"
        shutil.rmtree(site, ignore_errors=True)
        tool = [args.python, "-m", "malde_ostrel.workers.wiki", "--repo", str(repo)]
        full = timed([*tool, "publish", str(site)], repo)
        docs = timed([str(mkdocs), "-m", "mkdocs", "build", "-q", "-d", str(work / "mkdocs-site")], project)
        from malde_ostrel.workers.wiki.tool.wiki import Wiki

        changed = next(p for p in page_ids if (project / "docs" / f"{p}.md").exists())
        body = (project / "docs" / f"{changed}.md").read_text()
        with Wiki.open(repo) as wiki:
            wiki.save(changed, body + f"\n\nEdited at {time.time():.0f}.\n")
        again = timed([*tool, "publish", str(site)], repo)
        sources = len(list((site / "src").iterdir()))
        print(f"\n{len(page_ids)} pages, {sources} source views, {args.copies} copies of the library")
        print(f"{'step':<34}{'wall s':>9}")
        print(f"{'ostrel-wiki publish (full)':<34}{full:>9.2f}")
        print(f"{'mkdocs build (same Markdown)':<34}{docs:>9.2f}")
        print(f"{'ostrel-wiki publish (one page)':<34}{again:>9.2f}")
        print(f"\nfull publish: {docs / full:.1f}x faster than mkdocs build (goal: 3x)")
        print(f"republish after one page: {again / full:.2f} of the full publish (goal: under 0.10)")
    finally:
        if temp is not None:
            temp.cleanup()


if __name__ == "__main__":
    main()
