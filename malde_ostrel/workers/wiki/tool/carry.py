"""Putting the text of a page that leaves the plan where its files went.

A saved page that leaves the plan while some of its files live on gives its
text to the planned page that holds most of those files: appended to that
page's body under a heading that names where it came from, or as its first
draft when it has none; the receiving page is then marked to write. Every
leaving text is also kept in the store's archive, so nothing a user wrote is
ever deleted; a text with no receiving page stays there to be restored.
"""

from __future__ import annotations

from collections.abc import Iterable, Mapping
from pathlib import Path
from typing import Any, NamedTuple

from malde_ostrel.workers.wiki.replan_carry import ReplanRemap
from malde_ostrel.workers.wiki.tool import revisions
from malde_ostrel.workers.wiki.tool.journal import Journal
from malde_ostrel.workers.wiki.tool.revisions import read_body
from malde_ostrel.workers.wiki.tool.store import Repository
from malde_ostrel.workers.wiki.types import PagePlan


class Leaving(NamedTuple):
    """The text of a page that leaves the plan, and the files it documented."""

    page_id: str
    title: str
    files: list[str]
    body: str


def page_files(page_id: str, rows: Mapping[str, Mapping[str, Any]]) -> list[str]:
    """A stored page's files; a family parent's are its children's."""
    row = rows.get(page_id) or {}
    files = [str(p) for p in row.get("source_files") or []]
    if not files:
        for kid in row.get("related_pages") or []:
            files.extend(str(p) for p in (rows.get(kid) or {}).get("source_files") or [])
    return sorted(set(files))


def compose(current: str | None, leaving: Leaving) -> str:
    """The receiving body with the leaving text added (or the text alone)."""
    if not current or not current.strip():
        return leaving.body
    title = f"{leaving.title} ({leaving.page_id})" if leaving.title else leaving.page_id
    return f"{current.rstrip()}\n\n## Text carried from {title}\n\n{leaving.body}"


def receiver(
    leaving: Leaving,
    named: str | None,
    remap: ReplanRemap,
    plans: list[PagePlan],
    live: set[str],
    moves: Mapping[str, str] | None = None,
) -> str | None:
    """The planned page that takes the text: the one the plan named, else the
    one the replan put in its place, else the one that takes most of the
    page's live files (the earliest on a tie), each file where git saw it
    move (``moves``: old path -> new path). A named or replacing page that
    holds fewer of those files than another (a package moved away from the
    directory the plan named) gives way to it."""
    planned = {plan.page_id: plan for plan in plans}
    moved = moves or {}
    files = {moved.get(path, path) for path in leaving.files}
    files.intersection_update(live)
    best, best_count = None, 0
    for plan in plans:
        count = len(files.intersection(plan.source_files))
        if count > best_count and plan.page_id != leaving.page_id:
            best, best_count = plan.page_id, count
    chosen = [named] if named is not None else []
    chosen += [fresh_id for fresh_id, old_id in remap.items() if old_id == leaving.page_id]
    chosen += [fresh_id for fresh_id, old_ids in remap.merged.items() if leaving.page_id in old_ids]
    for page_id in chosen:
        found = planned.get(page_id)
        if found is not None:
            holds = len(files.intersection(found.source_files))
            return page_id if holds >= best_count or found.children else best
    return best


class Carrier:
    """The texts carried in one run: bodies to write, archive entries, records."""

    def __init__(self, repository: Repository, journal: Journal, branch: str, pages_dir: Path):
        self.repository = repository
        self.journal = journal
        self.branch = branch
        self.pages_dir = pages_dir
        self.drafts: dict[str, str] = {}
        self.receivers: list[str] = []

    def body(self, page_id: str) -> str | None:
        if page_id in self.drafts:
            return self.drafts[page_id]
        return read_body(self.pages_dir / f"{page_id}.md")

    def carry(self, leaving: Leaving, target: str | None, reason: str) -> dict[str, Any]:
        """Archive the leaving text, give it to ``target``; the audit record."""
        entry = self.repository.archive_text(
            self.branch, leaving.page_id, leaving.title, leaving.body, leaving.files, reason, target
        )
        self.journal.remove(self.pages_dir / f"{leaving.page_id}.md")
        if target is None:
            return {
                "action": "archive",
                "page_id": leaving.page_id,
                "reason": f"no planned page holds its files; its text is archive entry {entry}",
                "entry": entry,
            }
        self.drafts[target] = compose(self.body(target), leaving)
        if target not in self.receivers:
            self.receivers.append(target)
        return {
            "action": "carry",
            "page_id": target,
            "reason": f"text of {leaving.page_id} carried in",
            "from": leaving.page_id,
            "entry": entry,
        }

    def give_back(self, entry: Mapping[str, Any]) -> dict[str, Any]:
        """Give a page that came back into the plan the text it left with
        (archive entry ``entry``) as its draft; the audit record."""
        page_id = str(entry["page_id"])
        leaving = Leaving(page_id, str(entry["title"]), list(entry["files"]), str(entry["body"]))
        self.drafts[page_id] = compose(self.body(page_id), leaving)
        if page_id not in self.receivers:
            self.receivers.append(page_id)
        self.repository.settle_archive(self.branch, entry=int(entry["id"]), to=page_id, still_open=True)
        return {
            "action": "return",
            "page_id": page_id,
            "reason": f"back in the plan; its text comes back from archive entry {entry['id']} as its draft",
            "entry": entry["id"],
        }

    def finish(self, replaced_by: str = "carry") -> list[str]:
        """Journal the receiving bodies, keeping the texts they replace as
        revisions; the receiving page ids."""
        for page_id, text in self.drafts.items():
            data = revisions.body_bytes(text)
            revisions.keep(self.repository, self.branch, self.pages_dir, page_id, data, replaced_by=replaced_by)
            self.journal.write(self.pages_dir / f"{page_id}.md", text)
        return list(self.receivers)


def drafts_by_page(archive: Iterable[dict[str, Any]]) -> dict[str, list[dict[str, Any]]]:
    """The archive entries each page holds as a draft (carried to it, not yet saved over)."""
    drafts: dict[str, list[dict[str, Any]]] = {}
    for e in archive:
        if e["open"] and e["carried_to"] is not None:
            drafts.setdefault(str(e["carried_to"]), []).append(e)
    return drafts


def returning(archive: list[dict[str, Any]], plans: list[PagePlan], stored: Iterable[str]) -> list[dict[str, Any]]:
    """For each planned page new to the store whose id left the plan before
    with a text, the archive entry of the last such text (unless that text
    was given back to it already)."""
    new = {plan.page_id for plan in plans}.difference(stored)
    last: dict[str, dict[str, Any]] = {}
    for entry in archive:  # oldest first
        if entry["page_id"] in new:
            last[entry["page_id"]] = entry
    return [entry for page_id, entry in last.items() if entry["carried_to"] != page_id]


def leaving_texts(ids: Iterable[str], rows: Mapping[str, Mapping[str, Any]], pages_dir: Path) -> list[Leaving]:
    """The stored pages among ``ids`` that hold a text."""
    found: list[Leaving] = []
    for page_id in ids:
        body = read_body(pages_dir / f"{page_id}.md")
        if body is None or not body.strip():
            continue
        row = rows.get(page_id) or {}
        found.append(Leaving(page_id, str(row.get("title") or ""), page_files(page_id, rows), body))
    return found
