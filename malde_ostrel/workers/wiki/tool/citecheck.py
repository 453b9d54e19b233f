"""Citations of a page body that point nowhere.

A citation should name a file the page covers and lines the file has.  These
checks run when a body is saved; each problem is one line for the writer,
who may fix the body or save it as it is.  Files are read through the
snapshot, so a branch that is not checked out is checked against its own
committed files.
"""

from __future__ import annotations

import re
from collections.abc import Collection, Iterable

from malde_ostrel.workers.wiki.repo_facts import _norm
from malde_ostrel.workers.wiki.tool.repo_scan import Snapshot
from malde_ostrel.workers.wiki.types import PagePlan
from malde_ostrel.workers.wiki.verify import prose_citations

# A path in double brackets without lines, optionally naming a symbol:
# ``[[src/x.py]]``, ``[[src/x.py|load]]``.  The well-formed citations carry
# ``:LINES`` after the path and are left to ``prose_citations``.
_BARE_RE = re.compile(r"\[\[(?P<path>[^\s\]|]+)(?:\|[^\]|\n]+)?\]\]")
_CITED_RE = re.compile(r".+:[0-9]+(?:-[0-9]+)?")


def _line_count(snapshot: Snapshot, path: str) -> int | None:
    """Lines of the file (a last line without a newline counts); None when
    the snapshot has no such file."""
    text = snapshot.read_text(path)
    if text is not None:
        return text.count("\n") + (not text.endswith("\n") and text != "")
    data = snapshot.read_bytes(path)  # not UTF-8: count its lines all the same
    if data is None:
        return None
    return data.count(b"\n") + (not data.endswith(b"\n") and data != b"")


def covered(page: PagePlan, plans: Iterable[PagePlan], every: Collection[str]) -> Collection[str]:
    """The files ``page`` may cite: its own, and its parts' for a family
    parent; ``every`` file for an overview page."""
    if page.level == "overview":
        return every
    if page.children:
        parts = set(page.children)
        return [path for plan in plans if plan.page_id in parts for path in plan.source_files]
    return page.source_files


def check(body: str, page_files: Collection[str], snapshot: Snapshot) -> list[str]:
    """One line per citation problem of ``body``, a page covering
    ``page_files``: files it does not cover or the branch lacks, line ranges
    past the end of the file or backwards, and file names written without
    lines.  The same problem cited twice is told once."""
    covered = {_norm(path) for path in page_files}
    lines: dict[str, int | None] = {}
    problems: list[str] = []

    def tell(problem: str) -> None:
        if problem not in problems:
            problems.append(problem)

    for citation in prose_citations(body):
        path, start, end = str(citation["path"]), citation["line_start"], citation["line_end"]
        shown = f"{path}:{start}" if start == end else f"{path}:{start}-{end}"
        rel = _norm(path)
        if rel not in lines:
            lines[rel] = _line_count(snapshot, rel)
        count = lines[rel]
        if count is None:
            tell(f"cites {path}, which does not exist on branch {snapshot.branch}")
            continue
        if rel not in covered:
            tell(f"cites {path}, which this page does not cover")
        if start < 1:
            tell(f"cites {shown}, but lines count from 1")
        elif start > end:
            tell(f"cites {shown}, whose start is after its end; write {path}:{end}-{start}")
        elif end > count:
            tell(f"cites {shown}, but the file has {count} line{'' if count == 1 else 's'}")

    for match in _BARE_RE.finditer(body):
        path = match["path"]
        if _CITED_RE.fullmatch(path):
            continue  # a well-formed citation, checked above
        if ":" in path:
            file = path.rpartition(":")[0]
            tell(f"cites {path}, whose lines are not numbers; write [[{file}:START-END]]")
        elif _norm(path) in covered or "/" in path or "." in path:
            tell(f"cites {path} without a line range; write [[{path}:START-END]]")
    return problems
