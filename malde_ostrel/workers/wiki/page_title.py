"""Keeping the titles that page authors chose across replans."""

from __future__ import annotations

from collections.abc import Mapping
from typing import Any

from malde_ostrel.workers.wiki.types import PagePlan


def _file_set(files: Any) -> frozenset[str]:
    return frozenset(str(path) for path in files) if files else frozenset()


def keep_agent_titles(plans: list[PagePlan], existing: Mapping[str, Mapping[str, Any]]) -> list[PagePlan]:
    """Let an author-chosen title win over the planner's title.

    A plan whose page is stored with a non-empty ``agent_title`` takes that
    title.  A plan with a new id takes the title of the one stored page
    (with an ``agent_title``) documenting exactly the same, non-empty, set
    of files; with several such pages the planner's title stays.  Stored
    pages whose id is still planned keep their title to themselves.
    Plans are updated in place; returns a new list of the same plans.
    """
    planned = {plan.page_id for plan in plans}
    by_files: dict[frozenset[str], list[str]] = {}
    # An agent title is a non-empty text; anything else stored there is none.
    for page_id, row in existing.items():
        title = row.get("agent_title")
        if not isinstance(title, str) or not title or page_id in planned:
            continue
        files = _file_set(row.get("source_files"))
        if files:
            by_files.setdefault(files, []).append(title)
    for plan in plans:
        stored = existing.get(plan.page_id)
        if stored is not None:
            title = stored.get("agent_title")
            if isinstance(title, str) and title:
                plan.title = title
            continue
        # With no stored title to take, no plan's file set is worth making.
        if by_files and plan.source_files:
            candidates = by_files.get(_file_set(plan.source_files), [])
            if len(candidates) == 1:
                plan.title = candidates[0]
    return list(plans)
