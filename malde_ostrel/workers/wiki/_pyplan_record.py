"""Plan of record: reconcile fresh structural plans against the stored pages.

Stored code-unit pages keep their page ids across builds; new source paths
that no kept page covers become "add" amendments (new pages, or files absorbed
by a kept page, or the catch-all page); pages whose source files all vanished
become "retire" amendments.  A changed decomposition of a family is the one
exception: the fresh split wins and the superseded children retire, their
prose carried into the fresh family.  A replan maps old pages to new ids by
source-file overlap and carries their prose.  Every structural change is
returned as an amendment record.
"""

from __future__ import annotations

import json
import logging
import re
from collections.abc import Iterable, Sequence
from datetime import datetime
from pathlib import Path
from typing import Any

from malde_ostrel.workers.wiki.page_retirement import PageRetirementMixin
from malde_ostrel.workers.wiki.page_sources import unit_topic
from malde_ostrel.workers.wiki.page_title import keep_agent_titles
from malde_ostrel.workers.wiki.replan_carry import (
    ReplanRemap,
    amend,
    carry_superseded,
    inherit_prose,
)
from malde_ostrel.workers.wiki.repo_facts import _norm, _text_hash
from malde_ostrel.workers.wiki.sections import changed_files, stale_sections
from malde_ostrel.workers.wiki.steering import STEERING_SENTINEL, SteeringMixin
from malde_ostrel.workers.wiki.types import (
    PagePlan,
    citation_key,
    link_families,
    section_of,
)
from malde_ostrel.workers.wiki.verify import prose_citations
from malde_ostrel.workers.wiki_types import NOTE_LEVEL, OTHER_CODE_TYPE, PINNED_LEVELS

logger = logging.getLogger(__name__)

_MIN_NEW_PAGE_FILES = 2
_PLAN_LOG_NAME = "plan-log.jsonl"
_CATCH_ALL_RE = re.compile(r"^module-additional(-\d+)?$")


def _plan_from_row(row: dict[str, Any], live_paths: set[str]) -> PagePlan:
    """Rebuild a PagePlan from a stored wiki page row (pinned identity)."""
    files = sorted(p for p in (row.get("source_files") or []) if p in live_paths)
    title = row.get("title") or row["page_id"]
    return PagePlan(
        page_id=row["page_id"],
        title=title,
        level=row.get("level") or "module",
        importance=row.get("importance") or "medium",
        description=row.get("description") or f"The {title} page ({len(files)} files).",
        topic=unit_topic(title, files),
        source_files=files,
        catch_all=bool(_CATCH_ALL_RE.match(row.get("page_id", ""))),
        type=row.get("page_type") or "",
    )


_PLAN_LOG_MAX_LINES = 2000
_PLAN_LOG_KEEP_LINES = 1000


class PlanRecordMixin(PageRetirementMixin, SteeringMixin):
    """The store side of the plan of record, mixed into ``WikiGenerator``."""

    branch: str
    pages_dir: Path
    _existing: dict[str, dict[str, Any]]


_STALE_SENTINEL = "__stale__"

_SECTION_RE = re.compile(r"^##[ \t]+(\S.*?)[ \t#]*$")
