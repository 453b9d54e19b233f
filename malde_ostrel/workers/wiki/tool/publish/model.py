"""What publishing reads from a branch's wiki, and what it reports."""

from __future__ import annotations

import dataclasses
from collections.abc import Callable, Iterable
from pathlib import Path
from typing import Any

from malde_ostrel.workers.wiki.tool.reports import HistoryEvent, Record


@dataclasses.dataclass
class SitePage:
    """One planned page as a reader sees it."""

    page_id: str
    title: str
    description: str
    level: str
    children: list[str]
    related: list[str]
    source_files: list[str]
    written: bool
    to_write: bool
    body: str | None
    # {"added": [...], "removed": [...], "modified": [...]} since the text was saved.
    changed_files: dict[str, list[str]]
    # Section entries ({heading, files, symbols, hash}) citing a changed file.
    stale_sections: list[dict[str, Any]]
    history: list[HistoryEvent]
    parent: str | None = None


@dataclasses.dataclass
class SiteInput:
    """A branch's wiki at one moment: its pages in reading order and a way
    to read the files they cite."""

    branch: str
    commit: str | None
    pages: list[SitePage]
    # The git blob id of each path (None: missing, or outside the repository).
    blob_ids: Callable[[Iterable[str]], dict[str, str | None]]
    # A file's bytes (None: missing, or outside the repository).
    read: Callable[[str], bytes | None]
    pages_dir: Path
    root: Path  # the repository's work tree


class PublishReport(Record):
    def __init__(
        self, site: str, branches: list[str], pages: int, written: list[str], removed: list[str], seconds: float
    ) -> None:
        self.site = site  # the directory
        self.branches = branches
        self.pages = pages  # pages published
        self.written = written  # files written, relative to the site
        self.removed = removed  # files of an earlier publish removed
        self.seconds = seconds
