"""One branch's wiki of one repository: plan, save, status and their records.

``Wiki`` is the whole flow the ``ostrel-wiki`` tool runs, as one object:

* ``plan`` derives the fresh plan from the branch's tree, follows renamed
  files in the stored rows, pins the plan against the store, applies the
  amendments (new pages get rows, retired pages go, their texts go where their
  files went or to the archive, changed family parents are marked to write)
  and journals the audit record, all in one store transaction;
* ``save`` stores a page's text: the body beside its place, the row, the
  text it replaces (as a revision) and the move into place in one commit;
* ``status``, ``show``, ``log``, ``history``, ``archive``, ``revisions`` and
  ``revision`` read; ``restore`` gives an archived text to a planned page,
  ``restore_revision`` a page one of its earlier texts; ``doctor`` checks
  and repairs the store and the log.

Runs that write hold the store's lock and do every read that decides what to
write inside the write transaction, so concurrent runs serialise; the file
work after a commit is journalled in the store and finished by the next run
when this one is stopped (see ``journal``).
"""

from __future__ import annotations

import os
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from functools import partial
from pathlib import Path
from typing import TYPE_CHECKING, Any, Final

from malde_ostrel.workers.wiki import plan_record
from malde_ostrel.workers.wiki.orchestrator import WikiGenerator, page_columns
from malde_ostrel.workers.wiki.replan_carry import ReplanRemap, amend
from malde_ostrel.workers.wiki.repo_facts import _norm, _text_hash
from malde_ostrel.workers.wiki.tool import carry, planner, renames, repo_scan, revisions
from malde_ostrel.workers.wiki.tool.auditlog import page_history, read_runs
from malde_ostrel.workers.wiki.tool.journal import PLAN_LOG_NAME, Journal, finish
from malde_ostrel.workers.wiki.tool.locking import store_lock
from malde_ostrel.workers.wiki.tool.reports import (
    ArchiveEntry,
    CitationError,
    DoctorReport,
    HistoryEvent,
    LogReport,
    PageLine,
    PlanReport,
    RestoreReport,
    Revision,
    RevisionRestore,
    SaveReport,
    ShowReport,
    StatusPage,
    StatusReport,
    WikiError,
)
from malde_ostrel.workers.wiki.tool.store import SCHEMA_VERSION, Database, Repository, StoredPlans, StoreError
from malde_ostrel.workers.wiki.types import PagePlan
from malde_ostrel.workers.wiki.verify import prose_citations
from malde_ostrel.workers.wiki_types import PINNED_LEVELS

if TYPE_CHECKING:
    from malde_ostrel.workers.wiki.tool.build import BuildReport
    from malde_ostrel.workers.wiki.tool.publish.model import SiteInput

PROG: Final = "ostrel-wiki"
# Seconds a writer command may take for one page.
WRITER_TIMEOUT: Final = 300.0
STORE_NAME: Final = "store.sqlite3"
PAGES_DIR: Final = "pages"
# Where earlier releases kept the store and the wikis, inside the work tree.
LEGACY_STORE: Final = Path(".ostrel-wiki") / STORE_NAME
LEGACY_WIKI_ROOT: Final = Path("memory") / "lorebook"
_SQLITE_MAGIC: Final = b"SQLite format 3\x00"


def check_branch_name(branch: str) -> None:
    steps = branch.split("/")
    if branch.startswith("/") or "\\" in branch or any(s in ("", ".", "..") for s in steps):
        raise WikiError(f"branch name {branch!r} cannot name a wiki directory")


def check_store_file(path: Path) -> None:
    """Refuse, untouched, a store that is not a file, is empty or is newer
    than this release; opening would change it."""
    if not path.exists():
        return
    if not path.is_file():
        raise WikiError(f"page store {path} is not a file; name another with --store")
    try:
        with path.open("rb") as file:
            header = file.read(100)
    except OSError:
        return  # opening reports it
    if not header:
        raise WikiError(
            f"page store {path} is empty (0 bytes) and holds no pages; restore it from a "
            f"backup, or run `{PROG} doctor` to set it aside and start a new one"
        )
    if len(header) >= 64 and header.startswith(_SQLITE_MAGIC):
        version = int.from_bytes(header[60:64], "big")
        if version > SCHEMA_VERSION:
            raise StoreError(
                f"page store {path} has schema version {version}, newer than the "
                f"{SCHEMA_VERSION} this release knows; use a newer release"
            )


# The row columns stale page selection reads.
STALE_INPUTS: Final = ("source_files", "source_hashes")


class Wiki:
    """The wiki of one branch: its repository root, store and wiki directory."""

    def __init__(self, root: Path, branch: str | None, store: Path, wiki_dir: Path, *, named: bool) -> None:
        self.root = root
        self.branch = branch or repo_scan.DEFAULT_BRANCH
        self.store = store
        self.wiki_dir = wiki_dir
        self._named = named  # the branch was asked for by name
        self._snap: repo_scan.Snapshot | None = None
        self._unused: repo_scan.Snapshot | None = None  # taken by open(), not used yet
        # Told (done, total) while files are hashed; the command line draws a bar.
        self.progress: repo_scan.Progress | None = None

    def close(self) -> None:
        """Stop the git reader of the last snapshot, if any."""
        for snap in (self._snap, self._unused):
            if snap is not None:
                snap.close()
        self._snap = self._unused = None

    def __enter__(self) -> Wiki:
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    @classmethod
    def open(
        cls,
        repo: Path | None = None,
        *,
        branch: str | None = None,
        store: Path | None = None,
        wiki_dir: Path | None = None,
    ) -> Wiki:
        """The wiki of ``branch`` (default: the checked-out one) of the
        repository holding ``repo`` (default: the current directory). The
        first operation works on the tree as it was when the wiki was opened;
        every later one looks at the tree again."""
        start = (repo or Path.cwd()).expanduser()
        if not start.exists():
            raise WikiError(f"repository {start} does not exist")
        if not start.is_dir():
            raise WikiError(f"repository {start} is not a directory")
        root, state = repo_scan.locate(start.resolve())
        if branch is not None:
            check_branch_name(branch)
        snap = _snapshot(root, branch)
        try:
            check_branch_name(snap.branch)
        except BaseException:
            snap.close()
            raise
        legacy = root / LEGACY_STORE
        # A store an earlier release made in the work tree stays in use, with its wikis.
        use_legacy = (
            store is None and legacy != state / STORE_NAME and legacy.is_file() and not (state / STORE_NAME).exists()
        )
        if store is None:
            store = legacy if use_legacy else state / STORE_NAME
        if wiki_dir is None:
            base = root / LEGACY_WIKI_ROOT if use_legacy else state / "wiki"
            wiki_dir = base / snap.branch
        wiki = cls(root, snap.branch, store.expanduser(), wiki_dir.expanduser(), named=branch is not None)
        wiki._unused = snap  # the first operation plans from it: one listing per command
        return wiki

    # ------------------------------------------------------------ plumbing

    @property
    def pages_dir(self) -> Path:
        return self.wiki_dir / PAGES_DIR

    @property
    def log_path(self) -> Path:
        return self.wiki_dir / PLAN_LOG_NAME

    def _snapshot(self) -> repo_scan.Snapshot:
        unused, self._unused = self._unused, None
        if self._snap is not None:
            self._snap.close()
        self._snap = unused or _snapshot(self.root, self.branch if self._named else None)
        return self._snap

    def _own_output(self) -> list[str]:
        """Repository paths of what this tool writes, never documented themselves."""
        prefixes: list[str] = []
        for place in (self.root / LEGACY_WIKI_ROOT, self.wiki_dir, self.store, self.root / LEGACY_STORE.parent):
            try:
                prefixes.append(place.resolve().relative_to(self.root).as_posix())
            except ValueError:
                continue  # outside the repository
        return prefixes

    def _derive(
        self, snap: repo_scan.Snapshot, db: Database | None = None, *, write: bool = False
    ) -> tuple[planner.Derived, planner.Steering]:
        """The fresh plan; with the store, one kept there from the same inputs
        (a ``write`` keeps the one derived now), and the store's families kept
        down to their smaller size."""
        if db is None:
            derived = planner.derive(snap, exclude=self._own_output())
        else:
            cache = StoredPlans(db, self.branch, write=write)
            rows = Repository(db).rows(self.branch, columns=("related_pages",))
            families = {page_id for page_id, row in rows.items() if row["related_pages"]}
            derived = planner.derive(snap, exclude=self._own_output(), cache=cache, families=families)
        return derived, derived.steering

    @contextmanager
    def _session(self, *, write: bool) -> Iterator[Database]:
        """The open store; for a write, under the store's lock, with the
        journal of earlier runs finished first. A read of a store that does
        not exist gets an empty one in memory and makes no file."""
        if not write and not self.store.exists():
            with Database.open(":memory:") as db:
                yield db
            return
        with store_lock(self.store) if write else _no_lock():
            # Under the lock: a first run making the store leaves it empty until it commits.
            check_store_file(self.store)
            db = Database.open(self.store)
            try:
                if write:
                    Journal(db).replay()
                yield db
            finally:
                db.close()

    def _generator(self, db: Database, snap: repo_scan.Snapshot, steering: planner.Steering) -> WikiGenerator:
        return WikiGenerator(
            self.root,
            Repository(db),
            self.branch,
            self.pages_dir,
            steering.text,
            hasher=partial(snap.hashes, progress=self.progress),
        )

    def _moves(self, repo: Repository, snap: repo_scan.Snapshot) -> dict[str, str]:
        commit = repo.plan_commit(self.branch)
        if not commit:
            return {}
        moved = snap.renames_since(commit)
        return renames.usable(moved, set(snap.paths)) if moved else {}

    def _pinned(self, gen: WikiGenerator, derived: planner.Derived, snap: repo_scan.Snapshot) -> list[PagePlan]:
        """The pinned plan as ``plan`` would make it, writing nothing: the
        stored rows with the renames since the last plan followed."""
        changed, _ = renames.follow(gen._existing, self._moves(gen.repository, snap))
        gen._existing.update(changed)
        plans, _amendments, _remap = plan_record.pin_plan(derived.fresh, gen._existing, derived.live, replan=False)
        return plans

    # ------------------------------------------------------------ plan

    def plan(self, *, replan: bool = False) -> PlanReport:
        """Derive, pin and apply the branch's plan; what happened."""
        snap = self._snapshot()
        warnings: list[str] = []
        with self._session(write=True) as db:
            repo, journal = Repository(db), Journal(db)
            with db.transaction():
                # In the transaction: the plan it keeps goes with the rest, or not at all.
                derived, steering = self._derive(snap, db, write=True)
                unwritten = db.changes
                gen = self._generator(db, snap, steering)
                moves = self._moves(repo, snap)
                changed, records = renames.follow(gen._existing, moves)
                for page_id, row in changed.items():
                    repo.upsert_wiki_page(
                        self.branch,
                        page_id,
                        str(row["title"]),
                        **{k: row[k] for k in ("source_files", "source_hashes", "build_cache")},
                    )
                if changed:
                    gen.reload()
                before = dict(gen._existing)
                first = not before
                if first:
                    gen._persist_plan_skeleton(derived.fresh)
                    gen.reload()
                plans, amendments, remap = plan_record.pin_plan(
                    derived.fresh, gen._existing, derived.live, replan=replan
                )
                if replan:
                    amendments.extend(_replaced(gen._existing, plans, amendments))
                rows = dict(gen._existing)
                retired = gen._retire_pages(amendments)
                gen._persist_plan_skeleton(plans)
                # Nothing written since the rows were read: their ids are the stored ones.
                stored = set(gen._existing) if db.changes == unwritten else repo.page_ids(self.branch)
                _record_new_pages(gen, plans, stored)
                gen._mark_synthesis_stale(self._settle_parents(repo, plans, rows))
                records.extend(amendments)
                if not first:
                    records.extend(self._settle_files(repo, plans, rows, amendments))
                carrier = carry.Carrier(repo, journal, self.branch, self.pages_dir)
                # Only the texts of retired pages go anywhere: the live paths tell where.
                live = set(snap.paths) if retired else set()
                records.extend(_carry(carrier, retired, rows, amendments, remap, plans, live, moves))
                if not first and {plan.page_id for plan in plans}.difference(rows):
                    for entry in carry.returning(repo.archived(self.branch), plans, rows):
                        records.append(carrier.give_back(entry))
                gen._mark_synthesis_stale(carrier.finish())
                if snap.commit:
                    repo.set_plan_commit(self.branch, snap.commit)
                if records:
                    journal.log_run(self.log_path, records, replan=replan)
            warnings += _finish(journal)
            if db.changes != unwritten:
                # Only the files and hashes a row records decide which pages to write.
                gen._existing = repo.rows(self.branch, columns=STALE_INPUTS)
            # A replan is the cure the drift warning suggests: no warning after one.
            drift = None if first or replan else plan_record.drift_signal(amendments, len(plans))
            if drift:
                drift = drift.replace("/ostrel-wiki --replan", f"`{PROG} --replan`")
            stale = gen._select_stale(plans, gen._existing, False)
        pages = [
            PageLine(
                plan.page_id,
                plan.level,
                plan.title,
                len(plan.source_files),
                list(plan.source_files),
                list(plan.children),
                _state(plan, before),
                plan.page_id in stale,
            )
            for plan in plans
        ]
        return PlanReport(
            self.branch, first, replan, pages, records, dict(remap), dict(remap.merged), retired, drift, warnings
        )

    def _settle_parents(self, repo: Repository, plans: list[PagePlan], rows: dict[str, dict[str, Any]]) -> list[str]:
        """Code pages that became a family parent, changed children, or stopped
        being a parent: their rows take the new shape (a parent lists its
        children and owns no files); their ids, to be marked to write."""
        changed: list[str] = []
        for plan in plans:
            row = rows.get(plan.page_id)
            if row is None or plan.level not in PINNED_LEVELS or plan.page_id.startswith("custom-"):
                continue
            stored_kids = list(row.get("related_pages") or [])
            if plan.children:
                if not row.get("source_files") and stored_kids == plan.children:
                    continue
            elif not stored_kids and (row.get("source_files") or not plan.source_files):
                continue
            repo.upsert_wiki_page(
                self.branch,
                plan.page_id,
                str(row.get("title") or ""),
                source_files=plan.stored_source_files(),
                related_pages=list(plan.children),
            )
            changed.append(plan.page_id)
        return changed

    def _settle_files(
        self, repo: Repository, plans: list[PagePlan], rows: dict[str, dict[str, Any]], amendments: list[dict[str, Any]]
    ) -> list[dict[str, Any]]:
        """Record in the rows the files each code page documents now, and give
        the records the pinning does not: pages new to the store, and files
        that joined or left a page (a family part's share of its directory)."""
        named = {(str(a.get("action")), str(a.get("page_id"))) for a in amendments}
        records: list[dict[str, Any]] = []
        for plan in plans:
            row = rows.get(plan.page_id)
            if row is None:
                if not any((act, plan.page_id) in named for act in ("add", "remap")):
                    records.append(amend("add", plan.page_id, f"new {plan.level} page", level=plan.level))
                continue
            if (
                plan.children
                or plan.level not in PINNED_LEVELS
                or not plan.source_files
                or plan.page_id.startswith("custom-")
            ):
                continue
            recorded = row.get("source_files") or []
            if recorded == plan.source_files:
                continue  # the usual case, without building sets
            old, new = set(recorded), set(plan.source_files)
            if old == new:
                continue
            repo.upsert_wiki_page(self.branch, plan.page_id, str(row.get("title") or ""), source_files=sorted(new))
            if ("extend", plan.page_id) not in named:
                joined, left = sorted(new - old), sorted(old - new)
                record = amend("files", plan.page_id, f"{len(joined)} file(s) joined, {len(left)} left")
                record.update(joined=joined, left=left)
                records.append(record)
        return records

    # ------------------------------------------------------------ save

    def save(self, page_id: str, body: str, *, allow_empty: bool = False, strict: bool = False) -> SaveReport:
        """Store the text of one page of the plan of record. Citations that
        point nowhere are reported; with ``strict`` they refuse the save."""
        if not body.strip() and not allow_empty:
            raise WikiError(f"the body for {page_id} is empty; pass --allow-empty to save it anyway")
        snap = self._snapshot()
        if not self.store.exists():
            raise WikiError(f"no plan of record for branch {self.branch} yet; run `{PROG} plan` first")
        with self._session(write=True) as db:
            repo = Repository(db)
            derived, steering = self._derive(snap, db)
            try:
                with db.transaction():
                    gen = self._generator(db, snap, steering)
                    if not gen._existing:
                        raise WikiError(f"no plan of record for branch {self.branch} yet; run `{PROG} plan` first")
                    stored = set(gen._existing)
                    plans = self._pinned(gen, derived, snap)
                    plan = next((p for p in plans if p.page_id == page_id), None)
                    if plan is None:
                        raise WikiError(
                            f"unknown page id {page_id!r}: not in the plan of branch "
                            f"{self.branch}; `{PROG} status` lists the pages"
                        )
                    if page_id not in stored:
                        raise WikiError(
                            f"page {page_id} is planned but not yet of record on "
                            f"branch {self.branch}; run `{PROG} plan` first"
                        )
                    from malde_ostrel.workers.wiki.tool import citecheck

                    problems = citecheck.check(body, citecheck.covered(plan, plans, snap.paths), snap)
                    if problems and strict:
                        raise CitationError(page_id, problems)
                    citations = prose_citations(body)
                    drafts = carry.drafts_by_page(repo.archived(self.branch)).get(page_id, [])
                    left_out = [str(e["page_id"]) for e in drafts if not _holds(body, str(e["body"]))]
                    repo.settle_archive(self.branch, carried_to=page_id)
                    row = gen.save_page(plan, body, citations)
            except BaseException:
                # The body waiting beside its place, should the commit have failed.
                for temp in self.pages_dir.glob(f".{page_id}.md.{os.getpid()}.*.tmp"):
                    temp.unlink(missing_ok=True)
                raise
            warnings = _finish(Journal(db))
        sections = list((row.get("build_cache") or {}).get("sections") or [])
        known = set(snap.paths)
        unknown = sorted({str(c["path"]) for c in citations if _norm(str(c["path"])) not in known})
        return SaveReport(
            page_id,
            str(self.pages_dir / f"{page_id}.md"),
            len(citations),
            sections,
            unknown,
            left_out,
            warnings,
            citation_problems=problems,
            revision=gen.kept.get(page_id),
        )

    # ------------------------------------------------------------ read-outs

    def status(self) -> StatusReport:
        snap = self._snapshot()
        with self._session(write=False) as db:
            derived, steering = self._derive(snap, db)
            gen = self._generator(db, snap, steering)
            of_record = bool(gen._existing)
            plans = self._pinned(gen, derived, snap)
            stale = gen._select_stale(plans, gen._existing, False)
            archive = Repository(db).archived(self.branch)
            pages: list[StatusPage] = []
            drafts = carry.drafts_by_page(archive)
            for plan, written, changes in _page_states(gen, plans):
                carried = [str(e["page_id"]) for e in drafts.get(plan.page_id, [])]
                pages.append(
                    StatusPage(
                        plan.page_id,
                        written,
                        plan.page_id in stale,
                        changes.get("changed_files", {}),
                        list(changes.get("stale_sections", [])),
                        carried,
                        draft=bool(carried),
                    )
                )
        return StatusReport(
            self.branch,
            of_record,
            [p.page_id for p in pages if p.to_write],
            pages,
            [e["page_id"] for e in archive if e["carried_to"] is None],
        )

    def show(self, page_id: str, *, rev: int | None = None) -> ShowReport:
        """A planned page: its files, its text (with ``rev``, that revision's
        text instead), whether it is to write and holds a draft."""
        status = self.status()
        page = next((p for p in status.pages if p.page_id == page_id), None)
        if page is None:
            raise WikiError(
                f"unknown page id {page_id!r}: not in the plan of branch {self.branch}; `{PROG} status` lists the pages"
            )
        snap = self._snapshot()
        with self._session(write=False) as db:
            derived, steering = self._derive(snap, db)
            gen = self._generator(db, snap, steering)
            plan = next(p for p in self._pinned(gen, derived, snap) if p.page_id == page_id)
            kept = Repository(db).revision_count(self.branch, page_id)
        if rev is None:
            body = revisions.read_body(self.pages_dir / f"{page_id}.md")
        else:
            body = self.revision(page_id, rev).text
        return ShowReport(
            page_id,
            plan.title,
            list(plan.source_files),
            list(plan.children),
            body,
            page.to_write,
            page.stale_sections,
            draft_from=page.carried_from,
            revisions=kept,
            rev=rev,
        )

    # ------------------------------------------------------------ revisions

    def revisions(self, page_id: str) -> list[Revision]:
        """The texts the page held before something replaced them, oldest
        (number 1) first; a page that left the plan keeps its own."""
        with self._session(write=False) as db:
            return [_revision(page_id, r) for r in Repository(db).revisions(self.branch, page_id)]

    def revision(self, page_id: str, n: int) -> Revision:
        """Revision ``n`` of the page, with its text."""
        with self._session(write=False) as db:
            found = Repository(db).revisions(self.branch, page_id, n)
        if not found:
            raise WikiError(f"page {page_id} has no revision {n}; `{PROG} history {page_id}` lists them")
        return _revision(page_id, found[0], with_text=True)

    def restore_revision(self, page_id: str, n: int) -> RevisionRestore:
        """Make revision ``n`` the page's text again, marked to write; the
        text it replaces becomes the newest revision."""
        snap = self._snapshot()
        with self._session(write=True) as db:
            repo, journal = Repository(db), Journal(db)
            derived, steering = self._derive(snap, db)
            with db.transaction():
                gen = self._generator(db, snap, steering)
                if page_id not in gen._existing or page_id not in {p.page_id for p in self._pinned(gen, derived, snap)}:
                    raise WikiError(
                        f"page {page_id} is not of record on branch {self.branch}; "
                        f"`{PROG} status` lists the pages, `{PROG} restore` gives texts to them"
                    )
                found = repo.revisions(self.branch, page_id, n)
                if not found:
                    raise WikiError(f"page {page_id} has no revision {n}; `{PROG} history {page_id}` lists them")
                data: bytes = found[0]["body"]
                kept = revisions.keep(repo, self.branch, self.pages_dir, page_id, data, replaced_by="restore")
                text = data.decode("utf-8", "surrogateescape")
                journal.write(self.pages_dir / f"{page_id}.md", text)
                repo.upsert_wiki_page(
                    self.branch, page_id, str(gen._existing[page_id]["title"]), content_hash=_text_hash(text)
                )
                gen._mark_synthesis_stale([page_id])
                reason = f"revision {n} restored" + (
                    "" if kept is None else f"; the text it replaces is revision {kept}"
                )
                record = {"action": "restore", "page_id": page_id, "reason": reason, "revision": n}
                journal.log_run(self.log_path, [record])
            warnings = _finish(journal)
        return RevisionRestore(page_id, n, kept, warnings)

    def log(self, n: int) -> LogReport:
        runs, bad = read_runs(self.log_path)
        return LogReport(runs[-n:] if n > 0 else [], bad)

    def history(self, page_id: str) -> list[HistoryEvent]:
        return page_history(read_runs(self.log_path)[0], page_id)

    def archive(self) -> list[ArchiveEntry]:
        with self._session(write=False) as db:
            return [
                ArchiveEntry(
                    e["id"], e["page_id"], e["title"], e["files"], e["reason"], e["carried_to"], e["open"], e["at"]
                )
                for e in Repository(db).archived(self.branch)
            ]

    def restore(self, entry: int, *, into: str | None = None) -> RestoreReport:
        """Give an archived text to a planned page (``into``, else the one that
        holds most of its files), marked to write."""
        snap = self._snapshot()
        with self._session(write=True) as db:
            repo, journal = Repository(db), Journal(db)
            derived, steering = self._derive(snap, db)
            with db.transaction():
                found = next((e for e in repo.archived(self.branch) if e["id"] == entry), None)
                if found is None:
                    raise WikiError(f"no archive entry {entry} on branch {self.branch}; `{PROG} archive` lists them")
                gen = self._generator(db, snap, steering)
                plans = self._pinned(gen, derived, snap)
                leaving = carry.Leaving(found["page_id"], found["title"], found["files"], found["body"])
                target = carry.receiver(leaving, into, ReplanRemap(), plans, set(snap.paths))
                if target is None or (into is not None and target != into):
                    where = f"page {into!r} is not planned" if into else "no planned page holds its files"
                    raise WikiError(f"cannot restore entry {entry}: {where}; name a planned page with --into PAGE")
                carrier = carry.Carrier(repo, journal, self.branch, self.pages_dir)
                carrier.drafts[target] = carry.compose(carrier.body(target), leaving)
                gen._mark_synthesis_stale(carrier.finish("restore") or [target])
                repo.settle_archive(self.branch, entry=entry, to=target, still_open=True)
                journal.log_run(
                    self.log_path,
                    [
                        {
                            "action": "restore",
                            "page_id": target,
                            "reason": f"text of {found['page_id']} restored from the archive (entry {entry})",
                            "from": found["page_id"],
                            "entry": entry,
                        }
                    ],
                )
            _finish(journal)
        return RestoreReport(entry, found["page_id"], target)

    def build(
        self,
        *,
        command: list[str] | None = None,
        jobs: int = 1,
        timeout: float = WRITER_TIMEOUT,
        progress: Callable[[int, int], None] | None = None,
    ) -> BuildReport:
        """Write every page to write, planning first on a fresh store; with
        ``command``, a writer process per page, ``jobs`` at once (see ``build``)."""
        from malde_ostrel.workers.wiki.tool import build

        return build.run(self, command=command, jobs=jobs, timeout=timeout, progress=progress)

    def doctor(self) -> DoctorReport:
        """Check the store and the branch's log and texts; repair what can be
        repaired, keeping a backup of what it changes."""
        from malde_ostrel.workers.wiki.tool import doctor

        return doctor.doctor(self.store, self.wiki_dir, self.branch)

    # ------------------------------------------------------------ publishing

    def site_input(self) -> SiteInput:
        """Every planned page as published: text, files, stale sections and
        history, in reading order (a family's parts after their parent)."""
        from malde_ostrel.workers.wiki.tool.publish.model import SiteInput, SitePage

        snap = self._snapshot()
        runs = _runs_by_page(read_runs(self.log_path)[0])
        with self._session(write=False) as db:
            derived, steering = self._derive(snap, db)
            gen = self._generator(db, snap, steering)
            plans = self._pinned(gen, derived, snap)
            stale = gen._select_stale(plans, gen._existing, False)
            pages: list[SitePage] = []
            for plan, written, changes in _page_states(gen, plans):
                pages.append(
                    SitePage(
                        plan.page_id,
                        plan.title,
                        plan.description,
                        plan.level,
                        list(plan.children),
                        [p for p in plan.related_pages if p not in plan.children],
                        list(plan.source_files),
                        written,
                        plan.page_id in stale,
                        revisions.read_body(self.pages_dir / f"{plan.page_id}.md") if written else None,
                        changes.get("changed_files", {}),
                        list(changes.get("stale_sections", [])),
                        page_history(runs.get(plan.page_id, []), plan.page_id),
                    )
                )
        return SiteInput(self.branch, snap.commit, pages, snap.hashes, snap.read_bytes, self.pages_dir, self.root)

    def branches(self) -> list[str]:
        """The branches of the store that have pages."""
        with self._session(write=False) as db:
            return Repository(db).branches()

    def reopened(self, branch: str | None = None) -> Wiki:
        """The same wiki (or ``branch``'s, beside it) opened again: a new look at the tree."""
        if branch is None or branch == self.branch:
            return Wiki.open(
                self.root, branch=self.branch if self._named else None, store=self.store, wiki_dir=self.wiki_dir
            )
        return Wiki.open(self.root, branch=branch, store=self.store)


# ---------------------------------------------------------------- helpers


def _page_states(gen: WikiGenerator, plans: list[PagePlan]) -> Iterator[tuple[PagePlan, bool, dict[str, Any]]]:
    """Each plan, whether its page is written, and its changes since (files, stale sections)."""
    for plan in plans:
        row = gen._existing.get(plan.page_id)
        written = bool(row and row.get("content_hash"))
        yield plan, written, gen._page_changes(plan, row) if written else {}


def _runs_by_page(runs: list[dict[str, Any]]) -> dict[str, list[dict[str, Any]]]:
    """Per page id, the runs cut to the records that name it (as the page,
    or as where its text came from): ``page_history`` reads each page's own."""
    by_page: dict[str, dict[int, dict[str, Any]]] = {}
    for number, run in enumerate(runs):
        for record in run.get("amendments") or []:
            if not isinstance(record, dict):
                continue
            for name in {record.get("page_id"), record.get("from")}:
                if isinstance(name, str):
                    cut = by_page.setdefault(name, {}).setdefault(number, {**run, "amendments": []})
                    cut["amendments"].append(record)
    return {page_id: list(cut.values()) for page_id, cut in by_page.items()}


def _snapshot(root: Path, branch: str | None) -> repo_scan.Snapshot:
    try:
        return repo_scan.snapshot(root, branch)
    except repo_scan.RepoError as exc:
        raise WikiError(str(exc)) from None


@contextmanager
def _no_lock() -> Iterator[bool]:
    yield False


def _finish(journal: Journal) -> list[str]:
    """Do the journalled file work; a failure leaves it for the next run."""
    return unfinished(finish(journal))


def unfinished(cause: str | None) -> list[str]:
    """The warning for file work a committed change left to the next run."""
    return [] if cause is None else [f"{cause}; the store holds the change and the next `{PROG}` run finishes it"]


def _holds(body: str, text: str) -> bool:
    """Whether ``body`` still holds ``text`` (whitespace aside)."""
    return " ".join(text.split()) in " ".join(body.split())


def _revision(page_id: str, raw: dict[str, Any], *, with_text: bool = False) -> Revision:
    data: bytes = raw["body"]
    text = data.decode("utf-8", "surrogateescape")
    first = next((line.strip() for line in text.splitlines() if line.strip()), "")
    return Revision(
        page_id,
        raw["n"],
        raw["at"],
        raw["replaced_by"],
        raw["saved"],
        len(data),
        first[:80],
        text if with_text else None,
    )


def _record_new_pages(gen: WikiGenerator, plans: list[PagePlan], stored: set[str]) -> None:
    """Rows for the planned pages the skeleton does not give one (pages of
    other levels, steering pages), so that their ids are of record."""
    for plan in plans:
        if plan.page_id in stored:
            continue
        if plan.level in PINNED_LEVELS and not plan.page_id.startswith("custom-"):
            if plan.source_files or plan.children:
                continue  # the skeleton has them
        gen.repository.upsert_wiki_page(
            gen.branch,
            plan.page_id,
            plan.title,
            **page_columns(plan),
            source_files=plan.stored_source_files(),
            source_hashes={plan_record._STALE_SENTINEL: "pending"},
            related_pages=list(plan.children),
            status="stale",
        )


def _replaced(
    existing: dict[str, dict[str, Any]], plans: list[PagePlan], amendments: list[dict[str, Any]]
) -> list[dict[str, Any]]:
    """Retirements that apply a replan: stored code pages its structure dropped."""
    keep = {plan.page_id for plan in plans}
    keep.update(str(a["page_id"]) for a in amendments if a.get("action") == "retire")
    return [
        amend("retire", page_id, "not in the replanned structure", level=level)
        for page_id, row in existing.items()
        if page_id not in keep and (level := row.get("level") or "module") in PINNED_LEVELS
    ]


def _carry(
    carrier: carry.Carrier,
    retired: list[str],
    rows: dict[str, dict[str, Any]],
    amendments: list[dict[str, Any]],
    remap: ReplanRemap,
    plans: list[PagePlan],
    live: set[str],
    moves: dict[str, str],
) -> list[dict[str, Any]]:
    """Give the texts of the retired pages to the pages that take their files
    (where git saw them move); make the retire and remap records say where
    texts really went."""
    planned = {plan.page_id for plan in plans}
    leaving = [page_id for page_id in retired if page_id not in planned]  # else it keeps its text
    texts = {t.page_id: t for t in carry.leaving_texts(leaving, rows, carrier.pages_dir)}
    records: list[dict[str, Any]] = []
    went: dict[str, str | None] = {}
    for record in amendments:
        page_id = str(record.get("page_id"))
        if record.get("action") != "retire":
            continue
        named = record.pop("carried_to", None)
        if page_id in texts and page_id not in went:
            named_id = named if isinstance(named, str) else None
            target = carry.receiver(texts[page_id], named_id, remap, plans, live, moves)
            records.append(carrier.carry(texts[page_id], target, str(record.get("reason", ""))))
            went[page_id] = target
        if went.get(page_id):
            record["carried_to"] = went[page_id]
    for record in amendments:
        if record.get("action") == "remap" and record.get("from") not in texts:
            record["reason"] = f"takes the place of {record.get('from')} (no text to carry)"
    return records


def _state(plan: PagePlan, before: dict[str, dict[str, Any]]) -> str:
    row = before.get(plan.page_id)
    if row is None:
        return "new"
    files, recorded = plan.stored_source_files(), row.get("source_files") or []
    same_files = files == recorded or sorted(files) == sorted(recorded)
    same_children = not plan.children or plan.children == (row.get("related_pages") or [])
    return "kept" if same_files and same_children else "changed"
