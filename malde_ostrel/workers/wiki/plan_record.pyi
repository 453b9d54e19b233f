"""Plan of record: reconcile fresh structural plans against the stored pages."""

from __future__ import annotations

import json as json
import logging as logging
import re as re
from collections.abc import Iterable as Iterable, Sequence as Sequence
from datetime import datetime as datetime
from pathlib import Path
from typing import Any, Final

from __future__ import annotations as annotations
from malde_ostrel.workers.wiki.page_retirement import PageRetirementMixin as PageRetirementMixin
from malde_ostrel.workers.wiki.page_sources import unit_topic as unit_topic
from malde_ostrel.workers.wiki.page_title import keep_agent_titles as keep_agent_titles
from malde_ostrel.workers.wiki.replan_carry import (
    ReplanRemap as ReplanRemap,
    amend as amend,
    carry_superseded as carry_superseded,
    inherit_prose as inherit_prose,
)
from malde_ostrel.workers.wiki.repo_facts import _norm as _norm, _text_hash as _text_hash
from malde_ostrel.workers.wiki.sections import changed_files as changed_files, stale_sections as stale_sections
from malde_ostrel.workers.wiki.steering import STEERING_SENTINEL as STEERING_SENTINEL, SteeringMixin as SteeringMixin
from malde_ostrel.workers.wiki.types import (
    PagePlan as PagePlan,
    citation_key as citation_key,
    link_families as link_families,
    section_of as section_of,
)
from malde_ostrel.workers.wiki.verify import prose_citations as prose_citations
from malde_ostrel.workers.wiki_types import (
    NOTE_LEVEL as NOTE_LEVEL,
    OTHER_CODE_TYPE as OTHER_CODE_TYPE,
    PINNED_LEVELS as PINNED_LEVELS,
)

logger: logging.Logger

_MIN_NEW_PAGE_FILES: Final = 2
_PLAN_LOG_NAME: Final = "plan-log.jsonl"
_CATCH_ALL_RE: re.Pattern[str]

def _plan_from_row(row: dict[str, Any], live_paths: set[str]) -> PagePlan: ...
def pin_plan(
    fresh_plans: list[PagePlan], existing: dict[str, dict[str, Any]], live_paths: set[str], *, replan: bool = False
) -> tuple[list[PagePlan], list[dict[str, Any]], ReplanRemap]: ...
def _demote_unrecorded_families(fresh_plans: list[PagePlan], existing: dict[str, dict[str, Any]]) -> list[PagePlan]: ...
def _by_importance(plans: list[PagePlan]) -> list[PagePlan]: ...

_PLAN_LOG_MAX_LINES: Final = 2000
_PLAN_LOG_KEEP_LINES: Final = 1000

def append_plan_log(wiki_dir: Path, amendments: list[dict[str, Any]], *, replan: bool) -> None: ...
def drift_signal(amendments: list[dict[str, Any]], plan_size: int) -> str | None: ...

class PlanRecordMixin(PageRetirementMixin, SteeringMixin):
    branch: str
    pages_dir: Path
    _existing: dict[str, dict[str, Any]]
    def _persist_plan_skeleton(self, plans: list[PagePlan]) -> int: ...
    def _select_stale(self, plans: list[PagePlan], existing: dict[str, dict[str, Any]], force: bool) -> set[str]: ...
    def _mark_synthesis_stale(self, page_ids: Iterable[str]) -> None: ...
    def _section_cache(self, body: str, citations: list[dict[str, Any]]) -> dict[str, Any]: ...
    def _page_changes(self, plan: PagePlan, row: dict[str, Any] | None) -> dict[str, Any]: ...

_STALE_SENTINEL: Final = "__stale__"
_SECTION_RE: re.Pattern[str]

def _sections(body: str) -> list[tuple[str, str]]: ...
def section_map(
    body: str, citations: Sequence[dict[str, Any]], file_hashes: dict[str, str]
) -> list[dict[str, Any]]: ...
