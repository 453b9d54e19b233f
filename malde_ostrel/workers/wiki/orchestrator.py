"""The wiki generator of one branch: its state, file hashes and page saving.

``GeneratorBase`` is what the plan-of-record mixin runs on: the branch, its
page store and stored rows, the repository's file hashes and steering digest,
and the save path for a page's prose. ``WikiGenerator`` adds the mixin.
"""

from __future__ import annotations

from collections.abc import Callable
from pathlib import Path
from typing import TYPE_CHECKING, Any

from malde_ostrel.workers.wiki.page_retirement import PageRetirementMixin
from malde_ostrel.workers.wiki.plan_record import PlanRecordMixin
from malde_ostrel.workers.wiki.repo_facts import _norm, _text_hash, file_hash
from malde_ostrel.workers.wiki.steering import SteeringMixin
from malde_ostrel.workers.wiki.tool import revisions
from malde_ostrel.workers.wiki.tool.journal import Journal, finish, temp_beside
from malde_ostrel.workers.wiki.tool.revisions import body_bytes
from malde_ostrel.workers.wiki.tool.store import Repository
from malde_ostrel.workers.wiki.types import PagePlan, section_of
from malde_ostrel.workers.wiki.verify import prose_citations


def page_columns(plan: PagePlan) -> dict[str, Any]:
    """The columns of a page's row that come from its plan alone."""
    return {
        "description": plan.description or "",
        "importance": plan.importance or "medium",
        "level": plan.level,
        "parent_section": section_of(plan),
        "rel_path": f"pages/{plan.page_id}.md",
        "page_type": plan.type,
    }


class GeneratorBase(PageRetirementMixin, SteeringMixin):
    """Host state and operations of the generator, without the plan-of-record mixin."""

    repository: Repository

    def __init__(
        self,
        repo_root: Path,
        repository: Repository,
        branch: str,
        pages_dir: Path,
        steering_text: str | None = None,
        hasher: Callable[[list[str]], dict[str, str | None]] | None = None,
    ) -> None:
        self.repo_root = repo_root
        self.hasher = hasher
        self.repository = repository
        self.branch = branch
        self.pages_dir = pages_dir
        self.steering_text = steering_text
        self._existing: dict[str, dict[str, Any]] = repository.rows(branch)
        self.kept: dict[str, int] = {}  # page id -> the revision its last save kept

    if TYPE_CHECKING:
        # Provided by the plan-of-record mixin; defining it here would shadow it.
        def _section_cache(self, body: str, citations: list[dict[str, Any]]) -> dict[str, Any]: ...

    def reload(self) -> None:
        """Read the branch's stored rows again."""
        self._existing = self.repository.rows(self.branch)

    def _source_hashes(self, paths: list[str]) -> dict[str, str | None]:
        """The content hash of each repository path; None for a missing file.

        A path that names a directory or leads out of the repository counts as
        missing, so a stray citation never reads outside the checkout. With a
        ``hasher`` (the repository snapshot's) every hash comes from it.
        """
        if self.hasher is not None:
            return self.hasher(list(paths))
        return {path: self._file_hash(path) for path in paths}

    def _file_hash(self, path: str) -> str | None:
        rel = _norm(path)
        if rel == "." or rel == ".." or rel.startswith("../"):
            return None
        try:
            return file_hash(self.repo_root / rel)
        except (IsADirectoryError, NotADirectoryError):
            return None

    def _hashes_with_steering(self, files: list[str]) -> dict[str, str | None]:
        """Hashes of a page's files, with the steering digest when there is steering."""
        hashes = self._source_hashes(list(files))
        # Without steering (the usual case) the hashes are returned as they came.
        return self._with_steering(hashes) if self.steering_text else hashes

    def save_page(
        self, plan: PagePlan, body: str, citations: list[dict[str, Any]] | None = None, *, replaced_by: str = "save"
    ) -> dict[str, Any]:
        """Store a page's prose: its body file and its row, now fresh.

        The row's hashes cover the plan's files, or the files the row records
        when the plan has none; those recorded files are kept on such a row, so
        the next stale check hashes the same set. The text the page held is
        kept as a revision in the same commit (``kept`` maps the page id to its
        number; ``replaced_by`` names the writer). Outside a caller's
        transaction the body is moved into place at once; a failure after the
        commit is left to the next run to finish, since the save itself took
        effect.
        """
        if citations is None:
            citations = prose_citations(body)
        target = self.pages_dir / f"{plan.page_id}.md"
        cache = self._section_cache(body, citations)
        # The body goes to a file beside its place first; the row and the move
        # into place are one commit, and the move itself follows it (the
        # journal finishes it should this process stop in between).
        data = body_bytes(body)
        temp = temp_beside(target, data)
        journal = Journal(self.repository.db)
        try:
            with self.repository.db.transaction():
                stored = self.repository.row(self.branch, plan.page_id)
                recorded: list[str] = list(stored["source_files"]) if stored else []
                kept = revisions.keep(
                    self.repository,
                    self.branch,
                    self.pages_dir,
                    plan.page_id,
                    data,
                    replaced_by=replaced_by,
                    recorded=str(stored.get("content_hash") or "") if stored else "",
                )
                if plan.source_files or plan.children:
                    source_files = plan.stored_source_files()
                else:
                    source_files = recorded
                self.repository.upsert_wiki_page(
                    self.branch,
                    plan.page_id,
                    plan.title,
                    **page_columns(plan),
                    source_files=source_files,
                    source_hashes=self._hashes_with_steering(plan.source_files or recorded),
                    related_pages=plan.children,
                    status="fresh",
                    content_hash=_text_hash(body),
                    build_cache=cache,
                )
                journal.move(temp, target)
        except BaseException:
            temp.unlink(missing_ok=True)
            raise
        self.kept.pop(plan.page_id, None)
        if kept is not None:
            self.kept[plan.page_id] = kept
        if not self.repository.db.in_transaction:  # else the caller's commit comes first, then its replay
            finish(journal)
        self.reload()
        return self._existing[plan.page_id]


class WikiGenerator(GeneratorBase, PlanRecordMixin):
    """The generator of one branch's wiki."""


def generator_class(mixin: type) -> type:
    """The generator class built over another plan-of-record mixin (same bases order)."""
    return type("WikiGenerator", (GeneratorBase, mixin), {})
