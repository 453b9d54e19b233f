"""The page plan record and small helpers over plans and citations."""

from __future__ import annotations

import dataclasses
from collections.abc import Mapping
from typing import Any

from malde_ostrel.workers.wiki_types import NOTE_LEVEL, PINNED_LEVELS


@dataclasses.dataclass(kw_only=True)
class PagePlan:
    """One planned wiki page.

    Plans are mutable and shared by reference between lists, so an update
    to a field is seen wherever the object is held.  A plan with non-empty
    ``children`` is the parent of a decomposed family.
    """

    page_id: str
    title: str = ""
    level: str = "module"
    importance: str = "medium"
    description: str = ""
    topic: str = ""
    source_files: list[str] = dataclasses.field(default_factory=list)
    children: list[str] = dataclasses.field(default_factory=list)
    related_pages: list[str] = dataclasses.field(default_factory=list)
    catch_all: bool = False
    type: str = ""
    parent_section: str | None = None
    importance_score: float = 0.0

    def stored_source_files(self) -> list[str]:
        """Paths to record as the page row's ``source_files``.

        A family parent records none: its row lists its children in
        ``related_pages`` and the empty file list marks it a synthesis page.
        """
        if self.children:
            return []
        return list(self.source_files)


def citation_key(citation: Mapping[str, Any]) -> tuple[str, int, int]:
    """The identity of a citation: (path, first line, last line)."""
    return (str(citation["path"]), int(citation["line_start"]), int(citation["line_end"]))


def link_families(plans: list[PagePlan]) -> list[PagePlan]:
    """Point every family child back at its parent.

    Returns a new list of the same plans in the same order.  Each child
    named by a parent and present in ``plans`` gets the parent's id in its
    ``related_pages`` (once).  Parents themselves are never modified, since
    their ``children`` and ``related_pages`` may be one list object.
    """
    by_id: dict[str, list[PagePlan]] = {}
    for plan in plans:
        by_id.setdefault(plan.page_id, []).append(plan)
    for parent in plans:
        if not parent.children:
            continue
        for child_id in list(parent.children):
            for child in by_id.get(child_id, ()):
                if child is parent or _shares_children(child, parent):
                    continue
                if parent.page_id not in child.related_pages:
                    child.related_pages.append(parent.page_id)
    return list(plans)


def _shares_children(child: PagePlan, parent: PagePlan) -> bool:
    """True when appending to ``child.related_pages`` would alter a
    ``children`` list (the parent's, or the child's own when the child
    heads a family of its own with one shared list)."""
    related = child.related_pages
    return related is parent.children or (bool(child.children) and related is child.children)


def section_of(plan: PagePlan) -> str:
    """The wiki section a page is listed under."""
    if plan.parent_section:
        return plan.parent_section
    if plan.level in PINNED_LEVELS:
        return "Code"
    if plan.level == NOTE_LEVEL:
        return "Notes"
    if not plan.level:
        return "Pages"
    # Only the first letter is raised, so "API" stays "API".
    return plan.level[:1].upper() + plan.level[1:]
