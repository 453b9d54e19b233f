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


def _paths(row: Mapping[str, Any]) -> set[str]:
    """Every path the row records."""
    cache = row.get("build_cache") or {}
    found = {str(p) for p in row.get("source_files") or []}
    found.update(row.get("source_hashes") or {})
    found.update(cache.get("file_hashes") or {})
    for section in cache.get("sections") or []:
        if isinstance(section, dict):
            found.update(str(p) for p in section.get("files") or [])
    return found


def renamed_columns(row: Mapping[str, Any], moves: Mapping[str, str]) -> dict[str, Any]:
    """The row's path-holding columns with ``moves`` applied."""
    cache = dict(row.get("build_cache") or {})
    file_hashes = cache.get("file_hashes")
    if isinstance(file_hashes, dict):
        cache["file_hashes"] = {moves.get(k, k): v for k, v in file_hashes.items()}
    sections = cache.get("sections")
    if isinstance(sections, list):
        cache["sections"] = [
            {**s, "files": sorted({moves.get(p, p) for p in s.get("files") or []})} if isinstance(s, dict) else s
            for s in sections
        ]
    return {
        "source_files": [moves.get(str(p), str(p)) for p in row.get("source_files") or []],
        "source_hashes": {moves.get(k, k): v for k, v in (row.get("source_hashes") or {}).items()},
        "build_cache": cache,
    }


def follow(
    rows: Mapping[str, Mapping[str, Any]], moves: Mapping[str, str]
) -> tuple[dict[str, dict[str, Any]], list[dict[str, Any]]]:
    """The rows with ``moves`` applied (only those that change), and one audit
    record per changed page naming its renamed files (those it documents,
    else those it cites)."""
    changed: dict[str, dict[str, Any]] = {}
    records: list[dict[str, Any]] = []
    if not moves:
        return changed, records
    for page_id, row in rows.items():
        touched = {old: moves[old] for old in sorted(_paths(row)) if old in moves}
        if not touched:
            continue
        changed[page_id] = {**row, **renamed_columns(row, touched)}
        own = {old: new for old, new in touched.items() if old in (row.get("source_files") or [])}
        shown = own or touched
        records.append(
            {
                "action": "rename",
                "page_id": page_id,
                "reason": f"{len(shown)} file(s) renamed or moved",
                "renamed": shown,
            }
        )
    return changed, records
