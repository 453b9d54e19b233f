"""Time `ostrel-wiki publish` against `mkdocs build` on the same pages' Markdown.

Builds the repository of bench_tool.py (copies of this Python's standard
library, about 2,400 files a copy; 8 copies make the 19k-file tree), plans its
wiki and writes every page with `build`'s built-in writer. Then, one run side
by side (wall and processor time, the processes' own and their children's):

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
import resource
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path

HERE = Path(__file__).resolve().parent
MKDOCS_VERSION = "1.6.1"


def _load(path: Path) -> object:
    spec = importlib.util.spec_from_file_location(path.stem, path)
    assert spec is not None and spec.loader is not None
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


def make_wiki(work: Path, copies: int) -> tuple[Path, list[str]]:
    """The repository with its wiki written; the page ids."""
    repo = work / "repo"
    from malde_ostrel.workers.wiki.tool.wiki import Wiki

    if not (repo / ".git").is_dir():
        shutil.rmtree(repo, ignore_errors=True)
        files = _load(HERE / "bench_tool.py").build_repo(repo, copies)  # type: ignore[attr-defined]
        print(f"repository: {files} files in {repo}", flush=True)
    started = time.perf_counter()
    with Wiki.open(repo) as wiki:
        report = wiki.build()
        pages = [p.page_id for p in wiki.status().pages]
    print(f"built {len(report.written)} pages in {time.perf_counter() - started:.0f} s", flush=True)
    return repo, pages


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


def timed(argv: list[str], cwd: Path) -> tuple[float, float]:
    """Wall and processor seconds of a command (its children's included)."""
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    started = time.perf_counter()
    done = subprocess.run(argv, cwd=cwd, capture_output=True, text=True, check=False)
    wall = time.perf_counter() - started
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    if done.returncode != 0:
        raise SystemExit(f"failed: {' '.join(argv)}\n{done.stderr}")
    return wall, (after.ru_utime + after.ru_stime) - (before.ru_utime + before.ru_stime)


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
        repo, page_ids = make_wiki(work, args.copies)
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
        print(f"{'step':<34}{'wall s':>9}{'cpu s':>9}")
        for name, (wall, cpu) in (
            ("ostrel-wiki publish (full)", full),
            ("mkdocs build (same Markdown)", docs),
            ("ostrel-wiki publish (one page)", again),
        ):
            print(f"{name:<34}{wall:>9.2f}{cpu:>9.2f}")
        print(f"\nfull publish: {docs[0] / full[0]:.1f}x faster than mkdocs build in wall time, ", end="")
        print(f"{docs[1] / full[1]:.1f}x in processor time (goal: 3x)")
        print(f"republish after one page: {again[0] / full[0]:.2f} of the full publish (goal: under 0.10)")
    finally:
        if temp is not None:
            temp.cleanup()


if __name__ == "__main__":
    main()
