"""What each operation of the wiki reports: plain, typed records.

``as_json`` turns any of them into the plain data the command line prints
with ``--json``.
"""

from __future__ import annotations

import dataclasses
from typing import Any


class WikiError(Exception):
    """A one-line reason an operation cannot be done, naming the thing and what to do."""


class CitationError(WikiError):
    """A strict save refused for the citation problems in ``problems``."""

    def __init__(self, page_id: str, problems: list[str]) -> None:
        super().__init__(
            f"{page_id} was not saved: {len(problems)} citation problem(s); fix them, or save without --strict"
        )
        self.problems = problems


def as_json(report: Any) -> Any:
    if isinstance(report, list):
        return [as_json(item) for item in report]
    if dataclasses.is_dataclass(report) and not isinstance(report, type):
        return dataclasses.asdict(report)
    return report


@dataclasses.dataclass
class PageLine:
    page_id: str
    level: str
    title: str
    files: int
    source_files: list[str]
    children: list[str]
    state: str  # new, kept or changed
    to_write: bool


@dataclasses.dataclass
class PlanReport:
    branch: str
    first_plan: bool
    replan: bool
    pages: list[PageLine]
    amendments: list[dict[str, Any]]
    remap: dict[str, str]
    merged: dict[str, list[str]]
    retired: list[str]
    drift: str | None
    warnings: list[str] = dataclasses.field(default_factory=list)


@dataclasses.dataclass
class SaveReport:
    page_id: str
    path: str
    citations: int
    sections: list[dict[str, Any]]
    unknown_citations: list[str]
    replaced_carried: list[str]  # pages whose carried text this save replaced (kept in the archive)
    warnings: list[str] = dataclasses.field(default_factory=list)
    citation_problems: list[str] = dataclasses.field(default_factory=list)  # one line each


@dataclasses.dataclass
class StatusPage:
    page_id: str
    written: bool
    to_write: bool
    changed_files: dict[str, list[str]]
    stale_sections: list[dict[str, Any]]
    carried_from: list[str]  # pages whose text was carried into this one since it was written


@dataclasses.dataclass
class StatusReport:
    branch: str
    plan_of_record: bool
    to_write: list[str]
    pages: list[StatusPage]
    archived: list[str]  # pages whose text is in the archive only


@dataclasses.dataclass
class ShowReport:
    page_id: str
    title: str
    source_files: list[str]
    children: list[str]
    body: str | None
    to_write: bool
    stale_sections: list[dict[str, Any]]


@dataclasses.dataclass
class LogReport:
    runs: list[dict[str, Any]]
    skipped_lines: list[int]  # lines of the log that are not a readable record


@dataclasses.dataclass
class HistoryEvent:
    at: str
    action: str
    page_id: str
    reason: str
    other: str | None  # the page the text came from or went to


@dataclasses.dataclass
class ArchiveEntry:
    id: int
    page_id: str
    title: str
    files: list[str]
    reason: str
    carried_to: str | None
    open: bool
    at: str


@dataclasses.dataclass
class RestoreReport:
    entry: int
    page_id: str
    into: str


@dataclasses.dataclass
class DoctorReport:
    store: str
    problems: list[str]
    repairs: list[str]
    backup: str | None
