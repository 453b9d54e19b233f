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
from malde_ostrel.workers.wiki.replan_carry import ReplanRemap, amend, carry_superseded, inherit_prose
from malde_ostrel.workers.wiki.repo_facts import _norm, _text_hash
from malde_ostrel.workers.wiki.sections import changed_files, stale_sections
from malde_ostrel.workers.wiki.steering import STEERING_SENTINEL, SteeringMixin
from malde_ostrel.workers.wiki.types import PagePlan, citation_key, link_families, section_of
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


def pin_plan(
    fresh_plans: list[PagePlan], existing: dict[str, dict[str, Any]], live_paths: set[str], *, replan: bool = False
) -> tuple[list[PagePlan], list[dict[str, Any]], ReplanRemap]:
    """Reconcile fresh structural plans against the stored plan of record.

    Returns ``(plans, amendments, remap)`` where ``remap`` maps a fresh
    page_id to the old page_id whose prose should seed its reuse cache (on
    replan only), and ``remap.merged`` the further old pages whose prose is
    carried into it: pages a replan merged, and in either mode the superseded
    children of a re-chunked or collapsed decomposed family.

    Only code-unit pages (``wiki_types.PINNED_LEVELS``) are pinned; every other
    type has a deterministic literal id and passes through, with amendments
    recorded when it appears or disappears. Note pages are never touched here.
    """
    amendments: list[dict[str, Any]] = []
    remap = ReplanRemap()
    if not replan:
        fresh_plans = _demote_unrecorded_families(fresh_plans, existing)

    # Stored families: code-unit rows whose related pages name stored pages.
    stored_families: dict[str, list[str]] = {}
    for pid, row in existing.items():
        if (row.get("level") or "module") not in PINNED_LEVELS or pid.startswith("custom-"):
            continue
        kids = [kid for kid in (row.get("related_pages") or []) if kid in existing]
        if kids:
            stored_families[pid] = kids

    # Fresh families, and the stored children they supersede.
    family_ids: set[str] = set()
    collapsed: set[str] = set()
    superseded_kids: dict[str, tuple[str, list[PagePlan]]] = {}
    fresh_by_page = {plan.page_id: plan for plan in fresh_plans}
    for plan in fresh_plans:
        if plan.level not in PINNED_LEVELS:
            continue
        pid, children = plan.page_id, plan.children
        if children:
            family_ids.add(pid)
            family_ids.update(children)
            fresh_kids = [fresh_by_page[kid] for kid in children if kid in fresh_by_page]
            for kid in stored_families.get(pid, ()):
                if kid not in children:
                    superseded_kids[kid] = ("module re-chunked; superseded child", fresh_kids)
        elif pid in stored_families:
            collapsed.add(pid)
            for kid in stored_families[pid]:
                superseded_kids[kid] = ("module no longer oversized; decomposition collapsed", [plan])

    def _pinnable(pid: str, row: dict[str, Any]) -> bool:
        if (row.get("level") or "module") not in PINNED_LEVELS:
            return False
        if pid in superseded_kids:
            reason, family = superseded_kids[pid]
            amendments.append(carry_superseded(remap, pid, row, family, live_paths, reason))
            return False
        if pid in family_ids:
            return False
        if pid.startswith("custom-"):
            return False
        if pid in collapsed:
            return True
        if pid in stored_families:
            return False
        if not row.get("source_files"):
            amendments.append(amend("retire", pid, "decomposition changed; empty parent"))
            return False
        return True

    pinned_existing = {pid: row for pid, row in existing.items() if _pinnable(pid, row)}

    fresh_modules = [
        plan
        for plan in fresh_plans
        if plan.level in PINNED_LEVELS and plan.page_id not in family_ids and not plan.page_id.startswith("custom-")
    ]
    # Membership by equality, with members by identity settled in one step.
    module_ids = {id(plan) for plan in fresh_modules}
    passthrough = [plan for plan in fresh_plans if id(plan) not in module_ids and plan not in fresh_modules]

    fresh_ids = {plan.page_id for plan in fresh_plans}
    for pid in existing:
        if pid.startswith("custom-") and pid not in fresh_ids:
            amendments.append(amend("retire", pid, "removed from steering"))
    for plan in passthrough:
        if plan.page_id not in existing:
            amendments.append(amend("add", plan.page_id, f"new {plan.level} page", level=plan.level))
    for pid, row in existing.items():
        level = row.get("level") or "module"
        if level in PINNED_LEVELS or level == NOTE_LEVEL:
            continue
        if pid not in fresh_ids:
            amendments.append(amend("retire", pid, f"{level} page no longer planned", level=level))

    if replan or not pinned_existing:
        if replan and pinned_existing:
            successors = [
                plan
                for plan in fresh_plans
                if plan.level in PINNED_LEVELS and plan.source_files and not plan.page_id.startswith("custom-")
            ]
            inherit_prose(remap, pinned_existing, successors, live_paths, fresh_ids, amendments)
        return link_families(keep_agent_titles(fresh_plans, existing)), amendments, remap

    # Pinned assembly: stored pages keep their ids.
    plans = list(passthrough)
    covered = {path for plan in passthrough for path in plan.source_files}
    kept_ids: set[str] = set()
    catch_all_row: dict[str, Any] | None = None
    fresh_by_id = {plan.page_id: plan for plan in fresh_modules if not plan.catch_all}
    for pid, row in pinned_existing.items():
        stored = _plan_from_row(row, live_paths)
        if stored.catch_all:
            catch_all_row = row
            continue
        fresh_same = fresh_by_id.get(pid)
        if not stored.source_files and fresh_same is None:
            amendments.append(amend("retire", pid, "all source files gone"))
            continue
        kept = fresh_same if fresh_same is not None else stored
        plans.append(kept)
        kept_ids.add(pid)
        covered.update(kept.source_files)

    # Stored families that the fresh plan leaves alone are rebuilt (hysteresis).
    for parent_id, kids in stored_families.items():
        if parent_id in family_ids or parent_id in collapsed:
            continue
        row = existing[parent_id]
        surviving = [kid for kid in kids if kid in kept_ids]
        if not surviving:
            amendments.append(amend("retire", parent_id, "all decomposed children retired"))
            continue
        title = row.get("title") or parent_id
        plans.append(
            PagePlan(
                page_id=parent_id,
                title=title,
                level=row.get("level") or "module",
                importance=row.get("importance") or "medium",
                description=row.get("description") or f"The {title} page.",
                topic=unit_topic(
                    title, [path for kid in surviving for path in (existing[kid].get("source_files") or [])]
                ),
                source_files=[],
                children=surviving,
                related_pages=surviving,
                type=row.get("page_type") or "",
            )
        )
        kept_ids.add(parent_id)

    catch_all_files: set[str] = set()
    if catch_all_row is not None:
        catch_all_files = {path for path in (catch_all_row.get("source_files") or []) if path in live_paths}
        covered.update(catch_all_files)
    new_paths = {path for path in live_paths if path not in covered}

    # New paths: a new page, files absorbed by a kept page, or the catch-all.
    if new_paths:
        for plan in fresh_modules:
            own_new = sorted(path for path in plan.source_files if path in new_paths)
            if not own_new:
                continue
            if len(own_new) >= _MIN_NEW_PAGE_FILES and not plan.catch_all:
                if plan.page_id in kept_ids:
                    # The first plan kept under this id, as the plans and ids are now.
                    wanted = plan.page_id
                    target = next((kept for kept in plans if kept.page_id == wanted), None)
                    if target is not None:
                        target.source_files = sorted({*target.source_files, *own_new})
                    amendments.append(amend("extend", plan.page_id, f"{len(own_new)} new source file(s) absorbed"))
                else:
                    plan.source_files = own_new
                    plans.append(plan)
                    kept_ids.add(plan.page_id)
                    amendments.append(amend("add", plan.page_id, f"new subsystem ({len(own_new)} files)"))
            else:
                catch_all_files.update(own_new)
            new_paths.difference_update(own_new)
        catch_all_files.update(new_paths)

    if catch_all_files:
        merged = sorted(catch_all_files)
        samples = " ".join(path.rsplit("/", 1)[-1] for path in merged[:12])
        base: dict[str, Any] = catch_all_row if catch_all_row is not None else {}
        plans.append(
            PagePlan(
                page_id=base.get("page_id", "module-additional"),
                title=base.get("title") or "Other code",
                level="module",
                importance="low",
                description=f"Remaining modules and files ({len(merged)} files).",
                topic="additional modules utilities helpers " + samples,
                source_files=merged,
                catch_all=True,
                type=OTHER_CODE_TYPE,
            )
        )
    elif catch_all_row is not None:
        amendments.append(amend("retire", catch_all_row["page_id"], "catch-all has no remaining files"))

    plans = keep_agent_titles(_by_importance(plans), existing)
    return link_families(plans), amendments, remap


def _demote_unrecorded_families(fresh_plans: list[PagePlan], existing: dict[str, dict[str, Any]]) -> list[PagePlan]:
    """Fresh split families that would document files a stored page already pins, unsplit.

    A family whose parent id the store does not hold loses its parent when one
    of its parts holds a file that a stored code page pins; its parts stay, as
    ordinary fresh pages under the parent's section. The list itself comes back
    when the store pins nothing.
    """
    pinned: set[str] = set()
    for pid, row in existing.items():
        if (row.get("level") or "module") not in PINNED_LEVELS:
            continue
        if pid.startswith("custom-") or _CATCH_ALL_RE.match(pid):
            continue
        pinned.update(row.get("source_files") or [])
    if not pinned:
        return fresh_plans

    by_id = {plan.page_id: plan for plan in fresh_plans}
    dropped: set[str] = set()
    for plan in fresh_plans:
        children = plan.children
        if not children:
            continue
        pid = plan.page_id
        if pid in existing or plan.level not in PINNED_LEVELS:
            continue
        parts = [by_id[kid] for kid in children if kid in by_id]
        if any(not pinned.isdisjoint(part.source_files) for part in parts):
            dropped.add(pid)
            section = plan.parent_section
            for part in parts:
                part.parent_section = section
    return [plan for plan in fresh_plans if plan.page_id not in dropped]


def _by_importance(plans: list[PagePlan]) -> list[PagePlan]:
    """The plans with the code pages last, most important first (build and reading order)."""
    pinned_levels = PINNED_LEVELS

    def key(plan: PagePlan) -> tuple[bool, float]:
        code = plan.level in pinned_levels
        return (code, -plan.importance_score if code else 0.0)

    return sorted(plans, key=key)


_PLAN_LOG_MAX_LINES = 2000
_PLAN_LOG_KEEP_LINES = 1000


def append_plan_log(wiki_dir: Path, amendments: list[dict[str, Any]], *, replan: bool) -> None:
    """Append this run's amendments to the branch's plan audit log.

    One JSON line per run in ``wiki_dir / _PLAN_LOG_NAME``; past
    ``_PLAN_LOG_MAX_LINES`` lines the log keeps its last
    ``_PLAN_LOG_KEEP_LINES``. Lines are counted at line feeds only, so a record
    is always one line whatever its texts hold. The trim writes the kept lines
    to a temporary file beside the log and renames it over the log, so a
    failed trim leaves the log whole. Operating-system errors become a warning.
    """
    if not amendments:
        return
    try:
        path = wiki_dir / _PLAN_LOG_NAME
        path.parent.mkdir(parents=True, exist_ok=True)
        record = {"at": datetime.now().isoformat(timespec="seconds"), "replan": replan, "amendments": amendments}
        with path.open("a", encoding="utf-8") as log:
            log.write(json.dumps(record, ensure_ascii=False) + "\n")
        lines = path.read_text(encoding="utf-8").split("\n")
        count = len(lines) - 1 if lines[-1] == "" else len(lines)
        if count > _PLAN_LOG_MAX_LINES:
            kept = "\n".join(lines[count - _PLAN_LOG_KEEP_LINES :])
            scratch = path.with_name(path.name + ".trim")
            try:
                scratch.write_text(kept, encoding="utf-8")
                scratch.replace(path)
            finally:
                scratch.unlink(missing_ok=True)
    except OSError:
        logger.warning("could not append wiki plan log", exc_info=True)


def drift_signal(amendments: list[dict[str, Any]], plan_size: int) -> str | None:
    """Human-readable drift warning when structure churns, else None."""
    structural = [
        a
        for a in amendments
        if a["action"] in ("add", "retire", "remap") and (a.get("level") or "module") in PINNED_LEVELS
    ]
    n = len(structural)
    if n >= max(3, plan_size // 3):
        return (
            f"{n} structural amendments against a {plan_size}-page plan — the pinned structure "
            'is churning; consider a full replan (wiki(action="generate", replan=true) or '
            "/ostrel-wiki --replan)."
        )
    return None


class PlanRecordMixin(PageRetirementMixin, SteeringMixin):
    """The store side of the plan of record, mixed into ``WikiGenerator``."""

    branch: str
    pages_dir: Path
    _existing: dict[str, dict[str, Any]]

    def _persist_plan_skeleton(self, plans: list[PagePlan]) -> int:
        """Write the first plan as skeleton rows, one transaction, and count them.

        Every pinned-level page with files, or family parent with children,
        that the store does not hold gets a row with the stale mark for hashes,
        so later derivations pin against it. Steering pages get none.
        """
        persisted = 0
        with self.repository.db.transaction():
            for p in plans:
                if p.level not in PINNED_LEVELS or p.page_id.startswith("custom-"):
                    continue
                if not p.source_files and not p.children:
                    continue
                if p.page_id in self._existing:
                    continue
                self.repository.upsert_wiki_page(
                    self.branch,
                    p.page_id,
                    p.title,
                    description=p.description or "",
                    importance=p.importance or "medium",
                    level=p.level,
                    parent_section=section_of(p),
                    rel_path=f"pages/{p.page_id}.md",
                    source_files=p.stored_source_files(),
                    source_hashes={_STALE_SENTINEL: "pending"},
                    related_pages=p.children or p.related_pages,
                    status="stale",
                    page_type=p.type,
                )
                persisted += 1
        return persisted

    def _select_stale(self, plans: list[PagePlan], existing: dict[str, dict[str, Any]], force: bool) -> set[str]:
        """The ids of the planned pages whose source files or steering changed.

        Every planned page on a forced build or an empty store; otherwise the
        pages without a row and those whose current hashes differ from the
        stored ones. Each page is judged by its own row alone.
        """
        if force or not existing:
            return {plan.page_id for plan in plans}
        stale: set[str] = set()
        for plan in plans:
            prev = existing.get(plan.page_id)
            if prev is None:
                stale.add(plan.page_id)
                continue
            files_to_check = plan.source_files or prev.get("source_files", [])
            current = self._hashes_with_steering(files_to_check)  # type: ignore[attr-defined]
            if current != prev.get("source_hashes", {}):
                stale.add(plan.page_id)
        return stale

    def _mark_synthesis_stale(self, page_ids: Iterable[str]) -> None:
        """Write the stale mark into the rows of these pages of this branch."""
        ids = sorted(set(page_ids))
        if not ids:
            return
        placeholders = ",".join("?" * len(ids))
        self.repository.db.execute(
            "UPDATE wiki_pages SET source_hashes = ? WHERE branch = ? AND page_id IN (" + placeholders + ")",
            (json.dumps({_STALE_SENTINEL: "pending"}), self.branch, *ids),
        )

    def _section_cache(self, body: str, citations: list[dict[str, Any]]) -> dict[str, Any]:
        """The build cache of a saved body: its section map and cited files' hashes."""
        cited = sorted({str(c["path"]) for c in citations if c.get("path")})
        file_hashes = self._source_hashes(cited)  # type: ignore[attr-defined]
        return {"sections": section_map(body, citations, file_hashes), "file_hashes": file_hashes}

    def _page_changes(self, plan: PagePlan, row: dict[str, Any] | None) -> dict[str, Any]:
        """Files changed since a written page was saved, and its stale sections.

        Empty for a page never written. Recorded hashes merge the row's source
        hashes with the build cache's file hashes (the cache wins); the steering
        digest and the stale mark are never compared as files.
        """
        if not row or not row.get("content_hash"):
            return {}
        cache = row.get("build_cache") or {}
        recorded = {**(row.get("source_hashes") or {}), **(cache.get("file_hashes") or {})}
        stored = {path: digest for path, digest in recorded.items() if path not in (STEERING_SENTINEL, _STALE_SENTINEL)}
        planned = {_norm(path) for path in plan.source_files} | set(stored)
        current = self._source_hashes(sorted(planned))  # type: ignore[attr-defined]
        changes = changed_files(stored, current, planned)
        touched = set(changes["removed"]) | set(changes["modified"])
        return {"changed_files": changes, "stale_sections": stale_sections(cache.get("sections") or [], touched)}


_STALE_SENTINEL = "__stale__"

_SECTION_RE = re.compile(r"^##[ \t]+(\S.*?)[ \t#]*$")


def _sections(body: str) -> list[tuple[str, str]]:
    """``(heading, text)`` of each ``##`` section of a body, outside code fences; the text
    of a section starts with its own heading line. The first pair is the lead-in,
    heading ``""``, with the lines before the first heading.
    """
    sections: list[tuple[str, list[str]]] = [("", [])]
    in_fence = False
    for line in body.split("\n"):
        if line.lstrip().startswith(("```", "~~~")):
            in_fence = not in_fence
        heading = None if in_fence else _SECTION_RE.match(line)
        if heading:
            sections.append((heading.group(1), []))
        sections[-1][1].append(line)
    return [(heading, "\n".join(lines)) for heading, lines in sections]


def section_map(body: str, citations: Sequence[dict[str, Any]], file_hashes: dict[str, str]) -> list[dict[str, Any]]:
    """``[{heading, files, symbols, hash}]``: what each section of a body cites.

    Only the page's stored citations count; ``hash`` covers the content hashes
    of the files the section cites. The lead-in is left out unless it cites.
    """
    stored: dict[tuple[str, int, int], dict[str, Any]] = {}
    for c in citations:
        key = (str(c.get("path", "")), int(c.get("line_start", 0)), int(c.get("line_end", 0)))
        stored[key] = c
    entries: list[dict[str, Any]] = []
    for heading, text in _sections(body):
        keys = [citation_key(c) for c in prose_citations(text)]
        cites = [stored[key] for key in keys if key in stored]
        if not heading and not cites:
            continue
        files = sorted({str(c["path"]) for c in cites})
        symbols = sorted({str(c["symbol"]) for c in cites if c.get("symbol")})
        listing = "\n".join(path + "\0" + str(file_hashes.get(path, "")) for path in files)
        entries.append({"heading": heading, "files": files, "symbols": symbols, "hash": _text_hash(listing)})
    return entries
