"""Which files changed since a page was saved, and which sections they hit."""

from __future__ import annotations

from collections.abc import Collection, Iterable, Mapping
from typing import Any


def changed_files(
    stored: Mapping[str, str], current: Mapping[str, str | None], planned: Iterable[str]
) -> dict[str, list[str]]:
    """Classify each planned path by comparing recorded and current hashes.

    A current hash of None or "" (or no entry) means the file is missing.
    Unchanged paths, and paths neither recorded nor present, are left out.
    """
    added: list[str] = []
    removed: list[str] = []
    modified: list[str] = []
    for path in sorted(set(planned)):
        recorded = stored.get(path)
        now = current.get(path) or None
        if recorded is None:
            if now is not None:
                added.append(path)
        elif now is None:
            removed.append(path)
        elif now != recorded:
            modified.append(path)
    return {"added": added, "removed": removed, "modified": modified}


def stale_sections(sections: Iterable[Mapping[str, Any]], touched: Collection[str]) -> list[Mapping[str, Any]]:
    """The section entries, in order, citing at least one touched path."""
    return [section for section in sections if any(path in touched for path in section.get("files") or ())]
