"""Carrying page prose across replans and re-chunked families.

When the plan of record changes shape, pages get new ids or are retired.
Their written prose is still a good seed for the pages that take their
place, so the planner records, per fresh page, which old pages' prose it
inherits (a :class:`ReplanRemap`) and appends an amendment record for
every such decision.
"""

from __future__ import annotations

from collections.abc import Iterable, Mapping
from typing import Any

from malde_ostrel.workers.wiki.types import PagePlan


class ReplanRemap(dict[str, str]):
    """Fresh page id -> old page id whose prose seeds the fresh page.

    ``merged`` maps a fresh page id to further old page ids whose prose is
    carried into it (pages merged by a replan and superseded family
    children).
    """

    def __init__(self) -> None:
        super().__init__()
        self.merged: dict[str, list[str]] = {}

    def __repr__(self) -> str:
        return f"ReplanRemap({dict.__repr__(self)}, merged={self.merged!r})"


def amend(action: str, page_id: str, reason: str, *, level: str | None = None) -> dict[str, Any]:
    """An amendment record for one structural change of the plan."""
    record: dict[str, Any] = {"action": action, "page_id": page_id, "reason": reason}
    if level is not None:
        record["level"] = level
    return record


def _row_files(row: Mapping[str, Any]) -> list[str]:
    files = row.get("source_files")
    return [str(path) for path in files] if files else []


def _best_overlap(files: set[str], plans: Iterable[PagePlan]) -> PagePlan | None:
    """The plan holding most of ``files``; the earliest wins a tie.

    None when no plan holds any of them.
    """
    best: PagePlan | None = None
    best_count = 0
    for plan in plans:
        count = len(files.intersection(plan.source_files))
        if count > best_count:
            best, best_count = plan, count
    return best


def _add_merged(remap: ReplanRemap, fresh_id: str, old_id: str) -> None:
    carried = remap.merged.setdefault(fresh_id, [])
    if old_id not in carried:
        carried.append(old_id)


def carry_superseded(
    remap: ReplanRemap,
    page_id: str,
    row: Mapping[str, Any],
    family: list[PagePlan],
    live_paths: Iterable[str],
    reason: str,
) -> dict[str, Any]:
    """Retire a superseded family child and carry its prose onward.

    The prose goes to the plan of ``family`` that holds most of the
    child's still-live stored files (earliest plan on a tie, first plan
    when none overlaps) and is recorded in ``remap.merged``.  Returns the
    retirement record, with ``carried_to`` naming the receiving page (None
    for an empty family).
    """
    live = set(live_paths)
    files = {path for path in _row_files(row) if path in live}
    target = _best_overlap(files, family)
    if target is None and family:
        target = family[0]
    if target is not None:
        _add_merged(remap, target.page_id, page_id)
    level = row.get("level") or "module"
    record = amend("retire", page_id, reason, level=str(level))
    record["carried_to"] = target.page_id if target is not None else None
    return record


def inherit_prose(
    remap: ReplanRemap,
    pinned_existing: Mapping[str, Mapping[str, Any]],
    successors: list[PagePlan],
    live_paths: Iterable[str],
    fresh_ids: Iterable[str],
    amendments: list[dict[str, Any]],
) -> None:
    """Map the old pages of a replan onto their successors by file overlap.

    The rule, applied to the old pages in ``pinned_existing`` order:

    * an old page whose id is still in ``fresh_ids`` keeps its own prose
      and is skipped;
    * otherwise its stored files still in ``live_paths`` are compared with
      each successor's ``source_files``; the successor sharing most of
      them wins, the earliest successor on a tie; with no shared file the
      old page is dropped;
    * the first old page assigned to a successor becomes
      ``remap[successor]``; later ones are appended (once) to
      ``remap.merged[successor]``.

    Each mapping appends a ``"remap"`` record to ``amendments`` carrying
    the old id under ``"from"`` and the successor's level.
    """
    live = set(live_paths)
    fresh = set(fresh_ids)
    for old_id, row in pinned_existing.items():
        if old_id in fresh:
            continue
        files = {path for path in _row_files(row) if path in live}
        target = _best_overlap(files, successors)
        if target is None:
            continue
        fresh_id = target.page_id
        if fresh_id not in remap:
            remap[fresh_id] = old_id
        elif remap[fresh_id] == old_id or old_id in remap.merged.get(fresh_id, ()):
            continue
        else:
            _add_merged(remap, fresh_id, old_id)
        amendments.append(
            {
                "action": "remap",
                "page_id": fresh_id,
                "reason": f"prose carried from {old_id}",
                "from": old_id,
                "level": target.level,
            }
        )
