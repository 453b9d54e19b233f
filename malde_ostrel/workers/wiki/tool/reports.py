"""What each operation of the wiki reports: plain, typed records.

``as_json`` turns any of them into the plain data the command line prints
with ``--json``.  The records are written out by hand: every command loads
this module, and a generated class costs about a millisecond to make.
"""

from __future__ import annotations

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


class Record:
    """A report record: its fields are the attributes its constructor sets,
    in that order; records of one class with equal fields are equal."""

    __hash__ = None  # type: ignore[assignment]  # mutable, like the fields it holds

    def __eq__(self, other: object) -> bool:
        if type(other) is not type(self):
            return NotImplemented
        return vars(self) == vars(other)

    def __repr__(self) -> str:
        fields = ", ".join(f"{name}={value!r}" for name, value in vars(self).items())
        return f"{type(self).__qualname__}({fields})"


def as_json(report: Any) -> Any:
    """Plain data of a report: a record as a mapping of its fields, a list item by item."""
    if isinstance(report, list):
        return [as_json(item) for item in report]
    if isinstance(report, Record):
        return {name: as_json(value) for name, value in vars(report).items()}
    return report


class PageLine(Record):
    def __init__(
        self,
        page_id: str,
        level: str,
        title: str,
        files: int,
        source_files: list[str],
        children: list[str],
        state: str,
        to_write: bool,
    ) -> None:
        self.page_id = page_id
        self.level = level
        self.title = title
        self.files = files
        self.source_files = source_files
        self.children = children
        self.state = state  # new, kept or changed
        self.to_write = to_write


class PlanReport(Record):
    def __init__(
        self,
        branch: str,
        first_plan: bool,
        replan: bool,
        pages: list[PageLine],
        amendments: list[dict[str, Any]],
        remap: dict[str, str],
        merged: dict[str, list[str]],
        retired: list[str],
        drift: str | None,
        warnings: list[str] | None = None,
    ) -> None:
        self.branch = branch
        self.first_plan = first_plan
        self.replan = replan
        self.pages = pages
        self.amendments = amendments
        self.remap = remap
        self.merged = merged
        self.retired = retired
        self.drift = drift
        self.warnings: list[str] = [] if warnings is None else warnings


class SaveReport(Record):
    def __init__(
        self,
        page_id: str,
        path: str,
        citations: int,
        sections: list[dict[str, Any]],
        unknown_citations: list[str],
        replaced_carried: list[str],
        warnings: list[str] | None = None,
        citation_problems: list[str] | None = None,
        revision: int | None = None,
    ) -> None:
        self.page_id = page_id
        self.path = path
        self.citations = citations
        self.sections = sections
        self.unknown_citations = unknown_citations
        # Pages whose carried text (the draft this save replaced) the new text leaves out.
        self.replaced_carried = replaced_carried
        self.warnings: list[str] = [] if warnings is None else warnings
        self.citation_problems: list[str] = [] if citation_problems is None else citation_problems  # one line each
        self.revision = revision  # the revision that keeps the text this save replaced, if it held one


class StatusPage(Record):
    def __init__(
        self,
        page_id: str,
        written: bool,
        to_write: bool,
        changed_files: dict[str, list[str]],
        stale_sections: list[dict[str, Any]],
        carried_from: list[str],
        *,
        draft: bool = False,
    ) -> None:
        self.page_id = page_id
        self.written = written
        self.to_write = to_write
        self.changed_files = changed_files
        self.stale_sections = stale_sections
        self.carried_from = carried_from  # pages whose text was carried into this one since it was written
        self.draft = draft  # its text holds carried text no save has taken up yet


class StatusReport(Record):
    def __init__(
        self, branch: str, plan_of_record: bool, to_write: list[str], pages: list[StatusPage], archived: list[str]
    ) -> None:
        self.branch = branch
        self.plan_of_record = plan_of_record
        self.to_write = to_write
        self.pages = pages
        self.archived = archived  # pages whose text is in the archive only


class ShowReport(Record):
    def __init__(
        self,
        page_id: str,
        title: str,
        source_files: list[str],
        children: list[str],
        body: str | None,
        to_write: bool,
        stale_sections: list[dict[str, Any]],
        *,
        draft_from: list[str] | None = None,
        revisions: int = 0,
        rev: int | None = None,
    ) -> None:
        self.page_id = page_id
        self.title = title
        self.source_files = source_files
        self.children = children
        self.body = body  # the page's text, or revision ``rev``'s
        self.to_write = to_write
        self.stale_sections = stale_sections
        self.draft_from: list[str] = draft_from or []  # pages whose carried text the body holds as a draft
        self.revisions = revisions  # how many earlier texts the store keeps
        self.rev = rev


class LogReport(Record):
    def __init__(self, runs: list[dict[str, Any]], skipped_lines: list[int]) -> None:
        self.runs = runs
        self.skipped_lines = skipped_lines  # lines of the log that are not a readable record


class HistoryEvent(Record):
    def __init__(self, at: str, action: str, page_id: str, reason: str, other: str | None) -> None:
        self.at = at
        self.action = action
        self.page_id = page_id
        self.reason = reason
        self.other = other  # the page the text came from or went to


class ArchiveEntry(Record):
    def __init__(
        self,
        id: int,
        page_id: str,
        title: str,
        files: list[str],
        reason: str,
        carried_to: str | None,
        open: bool,
        at: str,
    ) -> None:
        self.id = id
        self.page_id = page_id
        self.title = title
        self.files = files
        self.reason = reason
        self.carried_to = carried_to
        self.open = open
        self.at = at


class Revision(Record):
    """A text a page held before something replaced it."""

    def __init__(
        self, page_id: str, n: int, at: str, replaced_by: str, saved: bool, size: int, first_line: str, text: str | None
    ) -> None:
        self.page_id = page_id
        self.n = n  # from 1, oldest first
        self.at = at  # when it was replaced
        self.replaced_by = replaced_by  # save, build, carry, return, restore
        self.saved = saved  # the text the page's row recorded (else a draft)
        self.size = size  # bytes
        self.first_line = first_line
        self.text = text  # with Wiki.revision only


class HistoryReport(Record):
    def __init__(self, page_id: str, events: list[HistoryEvent], revisions: list[Revision]) -> None:
        self.page_id = page_id
        self.events = events
        self.revisions = revisions


class RevisionRestore(Record):
    def __init__(self, page_id: str, revision: int, kept: int | None, warnings: list[str]) -> None:
        self.page_id = page_id
        self.revision = revision
        self.kept = kept  # the revision that keeps the text it replaced
        self.warnings = warnings


class RestoreReport(Record):
    def __init__(self, entry: int, page_id: str, into: str) -> None:
        self.entry = entry
        self.page_id = page_id
        self.into = into


class DoctorReport(Record):
    def __init__(self, store: str, problems: list[str], repairs: list[str], backup: str | None) -> None:
        self.store = store
        self.problems = problems
        self.repairs = repairs
        self.backup = backup
