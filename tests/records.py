"""Plans, stored rows and amendment summaries for the behaviour tests."""

from __future__ import annotations

from typing import Any

from malde_ostrel.workers.wiki.types import PagePlan


def plan(page_id: str, *files: str, **fields: Any) -> PagePlan:
    return PagePlan(page_id=page_id, source_files=list(files), **fields)


def row(page_id: str, *files: str, **fields: Any) -> dict[str, Any]:
    return {"page_id": page_id, "level": "module", "source_files": list(files), **fields}


def store(*rows: dict[str, Any]) -> dict[str, dict[str, Any]]:
    return {r["page_id"]: r for r in rows}


def ids(plans: list[PagePlan]) -> list[str]:
    return [p.page_id for p in plans]


def reasons(amendments: list[dict[str, Any]]) -> list[tuple[str, str, str]]:
    return [(a["action"], a["page_id"], a["reason"]) for a in amendments]
