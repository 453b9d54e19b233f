"""``build``: write every page to write, and within a written page only what went stale.

The build reads what to do without the store's lock: the pages
``_select_stale`` selects, each one's stale sections (``_page_changes``) and
the facts of the files it needs. It then writes the texts (the built-in
writer, or a writer command per page, several at once) with no lock held,
and saves them under the lock, through the generator's ``save_page`` as
``save`` does, a batch of pages per store transaction. A page whose row or
text another run changed meanwhile is left to that run: two builds at once
write each page once. A run stopped at any point leaves each page with its
old text or its new one; the next build writes the rest.

Within a page already written, the build rewrites the generated sections
citing a file that changed, adds sections for files new to the page, drops
those of files gone, and keeps every other section byte for byte. A section
a person wrote or edited (see ``marks``) is never rewritten; when the files
it cites change, its staleness is kept in the page's build cache, so that
``status`` and ``show`` keep naming it until the person saves the page.
"""

from __future__ import annotations

import json
import os
from collections.abc import Callable, Sequence
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass, field
from functools import partial
from typing import TYPE_CHECKING, Any, Final

from malde_ostrel.workers.wiki.orchestrator import WikiGenerator
from malde_ostrel.workers.wiki.tool import carry, citecheck, external, graph, marks, planner, writer
from malde_ostrel.workers.wiki.tool.facts import FactsCache, FileFacts, gather
from malde_ostrel.workers.wiki.tool.journal import Journal
from malde_ostrel.workers.wiki.tool.reports import Record, WikiError
from malde_ostrel.workers.wiki.tool.revisions import read_body
from malde_ostrel.workers.wiki.tool.store import STALE_MARK_KEY, Repository
from malde_ostrel.workers.wiki.types import PagePlan
from malde_ostrel.workers.wiki.verify import prose_citations

if TYPE_CHECKING:
    from malde_ostrel.workers.wiki.tool.wiki import Wiki

# Pages saved per store transaction.
BATCH: Final = 250
DIAGRAM_NAME: Final = "architecture.svg"
README_NAMES: Final = ("README.md", "README.rst", "README.txt", "README", "readme.md")
README_READ_MAX: Final = 64 << 10
# The columns a save changes: equal, nobody saved the page since it was read.
_ROW_STATE: Final = ("content_hash", "source_files", "source_hashes", "build_cache", "updated_at")

Progress = Callable[[int, int], None]


class BuildReport(Record):
    def __init__(
        self,
        branch: str,
        planned: bool,
        to_write: int,
        written: list[str],
        sections_written: int,
        failed: list[dict[str, str]],
        skipped: list[str],
        personal_stale: list[dict[str, Any]],
        diagram: str | None,
        warnings: list[str],
    ) -> None:
        self.branch = branch
        self.planned = planned  # the build planned first (a fresh store)
        self.to_write = to_write
        self.written = written
        self.sections_written = sections_written
        self.failed = failed  # {page_id, reason}: the page keeps its previous text
        self.skipped = skipped  # written by another run meanwhile
        self.personal_stale = personal_stale  # {page_id, heading, files}: for a person to revise
        self.diagram = diagram  # where the architecture diagram was written
        self.warnings = warnings


@dataclass
class _Page:
    """One page to write, as read before writing."""

    plan: PagePlan
    row: dict[str, Any] | None
    body: str | None
    changes: dict[str, Any]
    drafts: list[dict[str, str]]
    text: str | None = None  # the merged body to save
    sections_written: int = 0
    personal_stale: list[dict[str, Any]] = field(default_factory=list)
    held: dict[str, str] = field(default_factory=dict)  # recorded hashes kept for a person's stale sections
    failure: str | None = None
    stored: dict[str, Any] | None = None  # the row as the store held it when read
    optional: bool = False  # not stale: written only when its text changes


class _Saver(WikiGenerator):
    """The generator reading back only the row of the page it just saved
    (``save_page`` reloads after each save; a build saves thousands)."""

    saving = ""

    def reload(self) -> None:
        row = self.repository.row(self.branch, self.saving)
        if row is not None:
            self._existing[self.saving] = row


def run(
    wiki: Wiki, *, command: Sequence[str] | None = None, jobs: int = 1, timeout: float, progress: Progress | None = None
) -> BuildReport:
    planned = not _of_record(wiki)
    if planned:
        wiki.plan()
    read = _read_all(wiki, progress)
    if read is None:
        # Pages planned since the last plan (a new directory): the plan goes first.
        planned = True
        wiki.plan()
        read = _read_all(wiki, progress)
        if read is None:
            raise WikiError(f"the plan of branch {wiki.branch} keeps changing under this build; run it again")
    snap, steering, plans, pages, cache, facts = read
    readme = _readme(snap)
    by_id = {plan.page_id: plan for plan in plans}
    diagram_svg: bytes | None = None
    if any(page.plan.page_id == planner.ARCHITECTURE_ID for page in pages):
        edges = graph.page_edges(plans, facts)
        diagram_svg = graph.render_svg(graph.dot_source(plans, edges)) if edges else None
    else:
        edges = {}
    total = len(pages)

    def fresh(page: _Page) -> list[marks.Section]:
        plan = page.plan
        if plan.page_id == planner.OVERVIEW_ID:
            return writer.overview_page(plan, plans, readme)
        if plan.page_id == planner.ARCHITECTURE_ID:
            return writer.architecture_page(plan, plans, edges, DIAGRAM_NAME if diagram_svg else None)
        if plan.children:
            return writer.parent_page(plan, [by_id[c] for c in plan.children if c in by_id], facts)
        if plan.page_id.startswith(planner.STEERING_PREFIX):
            return writer.steering_page(plan, facts)
        return writer.code_page(plan, facts)

    if command:
        pages = [page for page in pages if not page.optional]
        total = len(pages)
        held = {page.plan.page_id: citecheck.covered(page.plan, plans, snap.paths) for page in pages}
        parents = {child: plan.page_id for plan in plans for child in plan.children}
        briefs = {page.plan.page_id: _brief(page, plans, by_id, parents, facts) for page in pages}
        done = 0

        def one(page: _Page) -> _Page:
            try:
                output = external.run(command, briefs[page.plan.page_id], timeout=timeout)
                external.check_citations(output, held[page.plan.page_id])
            except external.WriterFailure as exc:
                page.failure = f"writer {exc}"
                return page
            _merge(page, _from_writer(output), everything=True)
            return page

        with ThreadPoolExecutor(max(1, jobs)) as pool:
            try:
                for _page in pool.map(one, pages):
                    done += 1
                    if progress is not None:
                        progress(done, total)
            except BaseException:
                pool.shutdown(wait=False, cancel_futures=True)
                external.stop_all()  # an interrupted build waits for no writer
                raise
    else:
        for done, page in enumerate(pages, 1):
            _merge(page, fresh(page), everything=False)
            if progress is not None:
                progress(done, total)
    pages = [page for page in pages if not page.optional or (not command and page.text != page.body)]
    return _save(wiki, snap, steering, pages, cache, planned, diagram_svg)


# ---------------------------------------------------------------- reading


_Read = tuple[Any, Any, list[PagePlan], list["_Page"], FactsCache, dict[str, FileFacts]]


def _read_all(wiki: Wiki, progress: Progress | None) -> _Read | None:
    """What to write and the facts it needs, read without the store's lock;
    None when a planned page is not of record yet."""
    snap = wiki._snapshot()
    with wiki._session(write=False) as db:
        derived, steering = wiki._derive(snap, db)
        gen = wiki._generator(db, snap, steering)
        stored = dict(gen._existing)  # as in the store: the pinning follows renames in memory
        plans = wiki._pinned(gen, derived, snap)
        if any(plan.page_id not in gen._existing for plan in plans):
            return None
        stale = gen._select_stale(plans, gen._existing, False)
        drafts = carry.drafts_by_page(Repository(db).archived(wiki.branch))
        pages = [_read(wiki, gen, plan, drafts.get(plan.page_id, [])) for plan in plans if plan.page_id in stale]
        # The overview lists every page: checked on each build, written when that list changed.
        overview = next((p for p in plans if p.page_id == planner.OVERVIEW_ID and p.page_id not in stale), None)
        if overview is not None and (gen._existing.get(overview.page_id) or {}).get("content_hash"):
            pages.append(_read(wiki, gen, overview, drafts.get(overview.page_id, [])))
            pages[-1].optional = True
        for page in pages:
            page.stored = stored.get(page.plan.page_id)
            _find_personal(page)
        cache = FactsCache(db)
        return snap, steering, plans, pages, cache, _facts(pages, plans, snap, cache, progress)


def _of_record(wiki: Wiki) -> bool:
    if not wiki.store.exists():
        return False
    with wiki._session(write=False) as db:
        return bool(Repository(db).page_ids(wiki.branch))


def _read(wiki: Wiki, gen: WikiGenerator, plan: PagePlan, held: list[dict[str, Any]]) -> _Page:
    row = gen._existing.get(plan.page_id)
    written = bool(row and row.get("content_hash"))
    changes = gen._page_changes(plan, row) if written else {}
    drafts = [{"from": str(e["page_id"]), "title": str(e["title"] or ""), "body": str(e["body"] or "")} for e in held]
    body = read_body(wiki.pages_dir / f"{plan.page_id}.md")
    return _Page(plan, row, body, changes, drafts)


def _facts(
    pages: list[_Page], plans: list[PagePlan], snap: Any, cache: FactsCache, progress: Progress | None
) -> dict[str, FileFacts]:
    """The facts of every file the pages to write need."""
    ids = {page.plan.page_id for page in pages}
    wanted: list[str] = []
    if planner.ARCHITECTURE_ID in ids:
        wanted = [path for plan in plans if not plan.children for path in plan.source_files]
    else:
        children = {child for page in pages for child in page.plan.children}
        for plan in plans:
            if plan.page_id in ids or plan.page_id in children:
                wanted.extend(plan.source_files)
    wanted = list(dict.fromkeys(wanted))
    return gather(wanted, snap.hashes(wanted), partial(_read_file, snap), cache, progress=progress)


def _read_file(snap: Any, path: str) -> bytes | None:
    """A file's bytes; None for a symbolic link in the work tree (never followed)."""
    if snap.checked_out and os.path.islink(os.path.join(snap.root, path)):
        return None
    data: bytes | None = snap.read_bytes(path)
    return data


def _readme(snap: Any) -> str | None:
    for name in README_NAMES:
        data = _read_file(snap, name)
        if data is not None:
            return bytes(data[:README_READ_MAX]).decode("utf-8", "replace")
    return None


# ---------------------------------------------------------------- writing


def _touched(page: _Page) -> set[str]:
    files = page.changes.get("changed_files") or {}
    return set(files.get("removed") or []) | set(files.get("modified") or [])


def _find_personal(page: _Page) -> None:
    """The sections of the page a person wrote that cite a changed file; the
    hashes those files had when the page was last saved."""
    touched = _touched(page)
    if not touched:
        return
    cache = (page.row or {}).get("build_cache") or {}
    recorded = {**((page.row or {}).get("source_hashes") or {}), **(cache.get("file_hashes") or {})}
    # What the section map recorded at the last save (its paths follow renames), and what the text cites now.
    mapped: dict[str, set[str]] = {}
    for entry in page.changes.get("stale_sections") or []:
        mapped.setdefault(str(entry["heading"]), set()).update(str(path) for path in entry.get("files") or [])
    for section in marks.split(page.body or ""):
        if marks.generated(section.text):
            continue
        cites = {str(c["path"]) for c in prose_citations(section.text)} | mapped.get(section.heading, set())
        cited = sorted(cites & touched)
        if cited:
            page.personal_stale.append({"page_id": page.plan.page_id, "heading": section.heading, "files": cited})
            page.held.update({path: recorded[path] for path in cited if path in recorded})


def _merge(page: _Page, fresh: list[marks.Section], *, everything: bool) -> None:
    """The page's new body: ``fresh`` sections merged into its current text."""
    plan, changes = page.plan, page.changes
    files = changes.get("changed_files") or {}
    stale = list(changes.get("stale_sections") or [])
    recorded_hashes = (page.row or {}).get("source_hashes") or {}
    whole = (
        everything
        or page.body is None
        or not changes
        or not plan.source_files
        or STALE_MARK_KEY in recorded_hashes
        or not any(files.get(kind) for kind in ("added", "removed", "modified"))
    )
    touched = _touched(page)
    redo = {str(s["heading"]) for s in stale} | {s.heading for s in fresh if s.path in touched}
    if touched:
        redo.add("")  # the lead-in quotes one of the files: written again, the same unless that changed
    added = set(files.get("added") or [])
    # Files new to the page, and new sections of a changed file (a class grown big).
    new = {s.heading for s in fresh if s.path in added or s.path in touched}
    merged = marks.merge(page.body, fresh, (lambda _h: True) if whole else redo.__contains__,
                         (lambda _h: True) if whole else new.__contains__)  # fmt: skip
    page.text = merged.body
    page.sections_written = len(merged.written)


def _from_writer(output: str) -> list[marks.Section]:
    """A writer's page as generated sections, each marked."""
    sections = []
    for section in marks.split(marks.strip_marks(output)):
        titled = section.heading or section.text.startswith("# ")
        head, _, rest = section.text.partition("\n") if titled else ("", "", section.text)
        sections.append(marks.Section(section.heading, marks.marked(head.rstrip("\r"), rest)))
    return sections


def _brief(
    page: _Page, plans: list[PagePlan], by_id: dict[str, PagePlan], parents: dict[str, str], facts: dict[str, FileFacts]
) -> bytes:
    """The JSON brief of one page (see ``brief.schema.json``)."""
    plan = page.plan
    parent = parents.get(plan.page_id)
    if plan.level == "overview":
        linked = [p for p in plans if p is not plan]
    else:
        family = set(plan.children) | ({parent} if parent else set())
        if parent:
            family.update(by_id[parent].children)
        linked = [p for p in plans if p.page_id in family and p is not plan]
    paths = plan.source_files or [f for c in plan.children if c in by_id for f in by_id[c].source_files]
    personal = {s["heading"] for s in page.personal_stale}
    files = []
    for path in paths:
        found = facts.get(path)
        files.append(
            {
                "path": path,
                "language": found.language if found else "",
                "lines": found.lines if found else 0,
                "summary": found.summary if found else "",
                "symbols": [s._asdict() for s in (found.symbols if found else [])],
            }
        )
    brief = {
        "brief_version": 1,
        "page_id": plan.page_id,
        "title": plan.title,
        "level": plan.level,
        "description": plan.description,
        "files": files,
        "family": {"parent": parent, "children": list(plan.children)},
        "links": [{"page_id": p.page_id, "title": p.title} for p in linked],
        "body": page.body,
        "stale_sections": [
            {
                "heading": str(s["heading"]),
                "files": list(s.get("files") or []),
                "symbols": list(s.get("symbols") or []),
                "personal": s["heading"] in personal,
            }
            for s in page.changes.get("stale_sections") or []
        ],
        "changed_files": page.changes.get("changed_files") or {"added": [], "removed": [], "modified": []},
        "drafts": page.drafts,
    }
    return json.dumps(brief, ensure_ascii=False).encode("utf-8", "surrogateescape")


# ---------------------------------------------------------------- saving


def _unchanged(page: _Page, now: dict[str, Any] | None, body: str | None) -> bool:
    """The page's row and text are as this build read them."""
    before = page.stored or {}
    if now is None:
        return False
    same_row = all(before.get(key) == now.get(key) for key in _ROW_STATE)
    return same_row and body == page.body


def _holding(build_cache: dict[str, Any], page: _Page) -> dict[str, Any]:
    """The build cache of a page saved with a person's stale sections: the
    files they cite keep the hashes their text was written against, and only
    those sections name them, so that the rest of the page reads as fresh."""
    personal: dict[str, set[str]] = {}
    for entry in page.personal_stale:
        personal.setdefault(entry["heading"], set()).update(entry["files"])
    sections = []
    for section in build_cache.get("sections") or []:
        files = section.get("files") or []
        if section.get("heading") in personal:
            files = sorted(set(files) | personal[section["heading"]])
        else:
            files = [path for path in files if path not in page.held]
        sections.append({**section, "files": files})
    # A cited file that is gone records no hash: until the next plan, renames
    # are followed into these keys, and a gone file's None would win over a held one.
    file_hashes = {path: digest for path, digest in (build_cache.get("file_hashes") or {}).items() if digest}
    file_hashes.update(page.held)
    return {**build_cache, "sections": sections, "file_hashes": file_hashes}


def _save(
    wiki: Wiki,
    snap: Any,
    steering: Any,
    pages: list[_Page],
    cache: FactsCache,
    planned: bool,
    diagram_svg: bytes | None,
) -> BuildReport:
    from malde_ostrel.workers.wiki.tool.wiki import PROG, _finish

    written: list[str] = []
    skipped: list[str] = []
    failed = [{"page_id": p.plan.page_id, "reason": p.failure} for p in pages if p.failure]
    warnings: list[str] = []
    diagram: str | None = None
    ready = [page for page in pages if page.text is not None]
    with wiki._session(write=True) as db:
        repo, journal = Repository(db), Journal(db)
        cache.db = db
        saver = _Saver(
            wiki.root, repo, wiki.branch, wiki.pages_dir, steering.text, hasher=partial(snap.hashes, progress=None)
        )
        for start in range(0, max(len(ready), 1), BATCH):
            records: list[dict[str, Any]] = []
            with db.transaction():
                cache.keep()
                for page in ready[start : start + BATCH]:
                    page_id = page.plan.page_id
                    now = repo.row(wiki.branch, page_id)
                    if now is None:
                        failed.append({"page_id": page_id, "reason": f"not of record yet; run `{PROG} plan` first"})
                        continue
                    if not _unchanged(page, now, read_body(wiki.pages_dir / f"{page_id}.md")):
                        skipped.append(page_id)
                        continue
                    assert page.text is not None
                    repo.settle_archive(wiki.branch, carried_to=page_id)
                    saver.saving = page_id
                    row = saver.save_page(page.plan, page.text, prose_citations(page.text), replaced_by="build")
                    if page.held:
                        build_cache = _holding(row.get("build_cache") or {}, page)
                        repo.upsert_wiki_page(wiki.branch, page_id, page.plan.title, build_cache=build_cache)
                    if page_id == planner.ARCHITECTURE_ID and diagram_svg is not None:
                        target = wiki.pages_dir / DIAGRAM_NAME
                        journal.write(target, diagram_svg.decode("utf-8", "replace"))
                        diagram = str(target)
                    written.append(page_id)
                    records.append(
                        {
                            "action": "write",
                            "page_id": page_id,
                            "reason": f"built: {page.sections_written} section(s) written",
                        }
                    )
                if records:
                    journal.log_run(wiki.log_path, records, build=True)
            warnings += _finish(journal)
    done = set(written)
    kept = [page for page in pages if page.plan.page_id in done]
    return BuildReport(
        wiki.branch, planned, len(pages), written, sum(page.sections_written for page in kept), failed, skipped,
        [entry for page in kept for entry in page.personal_stale], diagram, warnings,
    )  # fmt: skip
