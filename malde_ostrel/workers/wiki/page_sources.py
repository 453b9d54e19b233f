"""Topic text of a code-unit page."""

from __future__ import annotations

import posixpath


def unit_topic(title: str, files: list[str]) -> str:
    """The page's title (lower-cased) followed by the sorted distinct
    directories of its files ("." for top-level files), space-separated."""
    dirs = sorted({posixpath.dirname(path) or "." for path in files})
    return " ".join([title.lower(), *dirs])
