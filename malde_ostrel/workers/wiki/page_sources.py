"""Topic text of a code-unit page."""

from __future__ import annotations


def unit_topic(title: str, files: list[str]) -> str:
    """The page's title (lower-cased) followed by the sorted distinct
    directories of its files ("." for top-level files), space-separated."""
    dirs = sorted({path.rpartition("/")[0] or "." for path in files})
    return " ".join([title.lower(), *dirs])
