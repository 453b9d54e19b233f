"""Following renamed and moved files in the stored rows.

Between the commit a plan was made at and the tree planned now, git tells
which files were renamed; every path a row records (its files, the keys of its
hashes, the files of its build cache and of its cited sections) follows, so
a page whose files moved keeps its id, its text and its freshness.
"""

from __future__ import annotations

from collections.abc import Mapping
from typing import Any


def usable(renames: Mapping[str, str], live: set[str]) -> dict[str, str]:
    """The renames to apply: the old path is gone and the new one is live."""
    return {old: new for old, new in renames.items() if old not in live and new in live}


def renamed_columns(row: Mapping[str, Any], moves: Mapping[str, str]) -> dict[str, Any] | None:
    """The row's path-holding columns with ``moves`` applied; None when none change."""
    files = [str(p) for p in row.get("source_files") or []]
    hashes = dict(row.get("source_hashes") or {})
    cache = dict(row.get("build_cache") or {})
    touched = set(files) | set(hashes) | set(cache.get("file_hashes") or {})
    for section in cache.get("sections") or []:
        if isinstance(section, dict):
            touched.update(str(p) for p in section.get("files") or [])
    if touched.isdisjoint(moves):
        return None
    file_hashes = cache.get("file_hashes")
    if isinstance(file_hashes, dict):
        cache["file_hashes"] = {moves.get(k, k): v for k, v in file_hashes.items()}
    sections = cache.get("sections")
    if isinstance(sections, list):
        cache["sections"] = [
            {**s, "files": sorted({moves.get(p, p) for p in s.get("files") or []})}
            if isinstance(s, dict)
            else s
            for s in sections
        ]
    return {
        "source_files": [moves.get(p, p) for p in files],
        "source_hashes": {moves.get(k, k): v for k, v in hashes.items()},
        "build_cache": cache,
    }


def record(page_id: str, row: Mapping[str, Any], moves: Mapping[str, str]) -> dict[str, Any]:
    """The audit record of one page's renamed files."""
    own = {old: new for old, new in moves.items() if old in (row.get("source_files") or [])}
    shown = own or moves
    return {
        "action": "rename",
        "page_id": page_id,
        "reason": f"{len(shown)} file(s) renamed or moved",
        "renamed": dict(sorted(shown.items())),
    }


def follow(
    rows: Mapping[str, Mapping[str, Any]], moves: Mapping[str, str]
) -> tuple[dict[str, dict[str, Any]], list[dict[str, Any]]]:
    """The rows with ``moves`` applied (only those that change), and their records."""
    changed: dict[str, dict[str, Any]] = {}
    records: list[dict[str, Any]] = []
    if not moves:
        return changed, records
    for page_id, row in rows.items():
        columns = renamed_columns(row, moves)
        if columns is None:
            continue
        changed[page_id] = {**row, **columns}
        records.append(record(page_id, row, {o: n for o, n in moves.items() if _cites(row, o)}))
    return changed, records


def _cites(row: Mapping[str, Any], path: str) -> bool:
    return renamed_columns(row, {path: path}) is not None
