"""Keeping the text a page held when something replaces it.

Every writer that replaces a page's body (a save, a build, a carried or given
back text, a restore) calls ``keep`` inside the store transaction that
records the change and before it journals the file work that puts the new
body in place: the text the page held is then a revision in the store,
committed with the row or not at all, so no writer, fault or kill loses it.
"""

from __future__ import annotations

from pathlib import Path

from malde_ostrel.workers.wiki.repo_facts import _text_hash
from malde_ostrel.workers.wiki.tool.store import Repository


def read_body(path: Path) -> str | None:
    try:
        return path.read_bytes().decode("utf-8", "surrogateescape")
    except FileNotFoundError:
        return None


def body_bytes(text: str) -> bytes:
    """A body's bytes as its file holds them."""
    return text.encode("utf-8", "surrogatepass")


def keep(
    repository: Repository,
    branch: str,
    pages_dir: Path,
    page_id: str,
    new: bytes,
    *,
    replaced_by: str,
    recorded: str | None = None,
) -> int | None:
    """Keep the page's current body as its next revision when ``new``
    replaces it; the revision's number, or None when there is nothing to
    keep (no body, a blank one, or the same bytes). ``recorded`` is the
    content hash the page's row holds, when the caller has read the row."""
    try:
        old = (pages_dir / f"{page_id}.md").read_bytes()
    except FileNotFoundError:
        return None
    if not old.strip() or old == new:
        return None
    if recorded is None:
        row = repository.row(branch, page_id)
        recorded = str(row.get("content_hash") or "") if row else ""
    saved = bool(recorded) and recorded == _text_hash(old.decode("utf-8", "surrogateescape"))
    return repository.keep_revision(branch, page_id, old, saved=saved, replaced_by=replaced_by)
