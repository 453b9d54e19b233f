"""``ostrel-wiki``: keep the plan of record of a repository's wiki from the shell.

Subcommands:

* ``plan [--replan]``: derive the fresh plan, pin it against the store,
  apply the amendments (retired pages go, new pages get skeleton rows),
  append them to the branch's plan log and show the pinned plan.
* ``save PAGE_ID BODY.md``: store the prose of one page of the pinned plan.
* ``status``: the pages to write, and what changed under each written page.
* ``log [-n N]``: the last runs of the plan log.

Exit status: 0 on success, 1 on a user error (one ``ostrel-wiki: error:``
line on stderr, nothing written), 2 on bad usage.
"""

from __future__ import annotations

import argparse
import dataclasses
import json
import logging
import os
import sqlite3
import sys
from collections.abc import Callable, Iterator, Sequence
from contextlib import contextmanager
from pathlib import Path
from typing import Any

from malde_ostrel.workers.wiki import plan_record, planner, repo_scan
from malde_ostrel.workers.wiki.orchestrator import WikiGenerator, page_columns
from malde_ostrel.workers.wiki.planner import SteeringError
from malde_ostrel.workers.wiki.replan_carry import amend
from malde_ostrel.workers.wiki.repo_facts import _norm
from malde_ostrel.workers.wiki.store import SCHEMA_VERSION, Database, Repository, StoreError
from malde_ostrel.workers.wiki.types import PagePlan
from malde_ostrel.workers.wiki.verify import prose_citations
from malde_ostrel.workers.wiki_types import PINNED_LEVELS

PROG = "ostrel-wiki"
STORE_ENV = "OSTREL_WIKI_STORE"
DEFAULT_STORE = Path(".ostrel-wiki") / "store.sqlite3"
WIKI_ROOT = Path("memory") / "lorebook"
PAGES_DIR = "pages"
DEFAULT_LOG_RUNS = 10


class UserError(Exception):
    """Bad input from the user: reported as one line, exit status 1."""


@dataclasses.dataclass(frozen=True)
class Context:
    """Where one invocation works: the repository, its branch, store and wiki."""

    repo: Path
    branch: str
    store: Path
    wiki_dir: Path
    as_json: bool


@dataclasses.dataclass
class Inputs:
    """What the repository holds now, and the fresh plan derived from it."""

    paths: list[str]
    steering: planner.Steering
    fresh: list[PagePlan]
    live: set[str]


# ---------------------------------------------------------------- setup


def _context(args: argparse.Namespace) -> Context:
    repo = Path(getattr(args, "repo", None) or ".").expanduser()
    if not repo.exists():
        raise UserError(f"repository {repo} does not exist")
    if not repo.is_dir():
        raise UserError(f"repository {repo} is not a directory")
    repo = repo.resolve()
    branch = getattr(args, "branch", None) or repo_scan.current_branch(repo)
    steps = branch.split("/")
    if branch.startswith("/") or "\\" in branch or any(s in ("", ".", "..") for s in steps):
        raise UserError(f"branch name {branch!r} cannot name a wiki directory")
    store_arg = getattr(args, "store", None) or os.environ.get(STORE_ENV) or ""
    store = Path(store_arg).expanduser() if store_arg else repo / DEFAULT_STORE
    wiki_arg = getattr(args, "wiki_dir", None)
    wiki_dir = Path(wiki_arg).expanduser() if wiki_arg else repo / WIKI_ROOT / branch
    return Context(repo, branch, store, wiki_dir, bool(getattr(args, "json", False)))


def _own_output(ctx: Context) -> list[str]:
    """Repository paths of what this tool writes (the wiki directories and the
    store), which are never documented themselves."""
    prefixes: list[str] = []
    for place in (ctx.repo / WIKI_ROOT, ctx.wiki_dir, ctx.store):
        try:
            prefixes.append(place.resolve().relative_to(ctx.repo).as_posix())
        except ValueError:
            continue  # outside the repository
    return prefixes


def _inputs(ctx: Context) -> Inputs:
    own = _own_output(ctx)
    paths = [
        path
        for path in repo_scan.live_paths(ctx.repo)
        if not any(path == p or path.startswith(p + "/") for p in own)
    ]
    steering = planner.read_steering(ctx.repo)
    fresh = planner.plan_pages(paths, steering)
    return Inputs(paths, steering, fresh, planner.source_paths(paths))


_SQLITE_MAGIC = b"SQLite format 3\x00"


def _check_schema(path: Path) -> None:
    """Refuse a store written by a newer release before opening it, since
    opening switches the file's journal mode: such a file stays untouched.
    The version is read from the file header (bytes 60-63, big-endian)."""
    try:
        with path.open("rb") as file:
            header = file.read(100)
    except OSError:
        return  # opening reports it
    if len(header) < 64 or not header.startswith(_SQLITE_MAGIC):
        return
    version = int.from_bytes(header[60:64], "big")
    if version > SCHEMA_VERSION:
        raise StoreError(
            f"page store {path} has schema version {version}, newer than the "
            f"{SCHEMA_VERSION} this release knows; use a newer release"
        )


@contextmanager
def _store(ctx: Context, *, create: bool) -> Iterator[Database]:
    """The page store; an empty one in memory when it does not exist and
    ``create`` is false, so that read-outs never make a file."""
    if not create and not ctx.store.exists():
        target: Path | str = ":memory:"
    else:
        if ctx.store.exists() and not ctx.store.is_file():
            raise UserError(f"page store {ctx.store} is not a file")
        if ctx.store.exists():
            _check_schema(ctx.store)
        target = ctx.store
    db = Database.open(target)
    try:
        yield db
    finally:
        db.close()


def _generator(ctx: Context, db: Database, inputs: Inputs) -> WikiGenerator:
    return WikiGenerator(
        ctx.repo, Repository(db), ctx.branch, ctx.wiki_dir / PAGES_DIR, inputs.steering.text
    )


def _persist_skeleton(gen: WikiGenerator, plans: list[PagePlan]) -> int:
    return gen._persist_plan_skeleton([_as_record(plan) for plan in plans])


def _pinned(gen: WikiGenerator, inputs: Inputs) -> list[PagePlan]:
    """The pinned plan as ``plan`` would derive it, without writing anything."""
    plans, _amendments, _remap = plan_record.pin_plan(
        inputs.fresh, gen._existing, inputs.live, replan=False
    )
    return plans


def _as_record(plan: PagePlan) -> PagePlan:
    """The plan as its row should record it.

    A family part's back-link to its parent is for readers only: a stored
    code row whose related pages name stored pages is taken for a family
    parent by the next pinning, so only parents keep related pages.
    """
    if plan.children or not plan.related_pages:
        return plan
    return dataclasses.replace(plan, related_pages=[])


# ---------------------------------------------------------------- plan


def _record_new_pages(gen: WikiGenerator, plans: list[PagePlan]) -> None:
    """Skeleton rows for the planned pages the store lacks, so that their ids
    are of record and the next run neither adds them again nor repins them."""
    _persist_skeleton(gen, plans)
    for plan in plans:
        if plan.page_id in gen._existing:
            continue
        if plan.level in PINNED_LEVELS and not plan.page_id.startswith("custom-"):
            continue  # the skeleton above has them (or they have nothing to pin)
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
    existing: dict[str, dict[str, Any]],
    plans: list[PagePlan],
    amendments: list[dict[str, Any]],
) -> list[dict[str, Any]]:
    """Retirements that apply a replan: stored code pages its structure dropped
    (their prose is carried by the remap records) and not retired already."""
    keep = {plan.page_id for plan in plans}
    keep.update(str(a["page_id"]) for a in amendments if a.get("action") == "retire")
    records: list[dict[str, Any]] = []
    for page_id, row in existing.items():
        level = row.get("level") or "module"
        if page_id not in keep and level in PINNED_LEVELS:
            records.append(amend("retire", page_id, "not in the replanned structure", level=level))
    return records


def _state(plan: PagePlan, before: dict[str, dict[str, Any]]) -> str:
    row = before.get(plan.page_id)
    if row is None:
        return "new"
    same_files = sorted(plan.stored_source_files()) == sorted(row.get("source_files") or [])
    same_children = not plan.children or plan.children == (row.get("related_pages") or [])
    return "kept" if same_files and same_children else "changed"


def _run_plan(ctx: Context, replan: bool) -> dict[str, Any]:
    """Derive, pin and apply this run's plan; the report of what happened."""
    inputs = _inputs(ctx)
    with _store(ctx, create=True) as db:
        gen = _generator(ctx, db, inputs)
        before = dict(gen._existing)
        first = not before
        # Every store write of the run, or none of them; the log comes after,
        # so a refused write leaves no log line either.
        with db.transaction():
            if first:
                _persist_skeleton(gen, inputs.fresh)
                gen.reload()
            plans, amendments, remap = plan_record.pin_plan(
                inputs.fresh, gen._existing, inputs.live, replan=replan
            )
            if replan:
                amendments.extend(_replaced(gen._existing, plans, amendments))
            retired = gen._retire_pages(amendments)
            _record_new_pages(gen, plans)
        gen.reload()
        plan_record.append_plan_log(ctx.wiki_dir, amendments, replan=replan)
        # A replan is the cure the drift warning suggests: no warning after one.
        drift = None if first or replan else plan_record.drift_signal(amendments, len(plans))
        stale = gen._select_stale(plans, gen._existing, False)
    pages: list[dict[str, Any]] = [
        {
            "page_id": plan.page_id,
            "level": plan.level,
            "title": plan.title,
            "files": len(plan.source_files),
            "source_files": list(plan.source_files),
            "children": list(plan.children),
            "state": _state(plan, before),
            "to_write": plan.page_id in stale,
        }
        for plan in plans
    ]
    return {
        "branch": ctx.branch,
        "first_plan": first,
        "replan": replan,
        "pages": pages,
        "amendments": amendments,
        "remap": dict(remap),
        "merged": dict(remap.merged),
        "retired": retired,
        "drift": drift,
    }


def cmd_plan(ctx: Context, args: argparse.Namespace) -> int:
    report = _run_plan(ctx, bool(args.replan))
    drift: str | None = report["drift"]
    if drift:
        print(f"{PROG}: warning: {drift}", file=sys.stderr)
    if ctx.as_json:
        _print_json(report)
        return 0
    pages: list[dict[str, Any]] = report["pages"]
    amendments: list[dict[str, Any]] = report["amendments"]
    kind = "first plan" if report["first_plan"] else "replan" if report["replan"] else "pinned"
    to_write = sum(1 for page in pages if page["to_write"])
    print(f"Plan of record, branch {ctx.branch} ({kind}): {len(pages)} pages, {to_write} to write")
    print()
    rows = [
        [
            str(page["page_id"]),
            str(page["level"]),
            str(page["title"]),
            f"{len(page['children'])} parts" if page["children"] else str(page["files"]),
            str(page["state"]),
            "to write" if page["to_write"] else "",
        ]
        for page in pages
    ]
    _print_table(["PAGE", "LEVEL", "TITLE", "FILES", "STATE", "WRITE"], rows)
    print()
    if amendments:
        print(f"Amendments ({len(amendments)}):")
        _print_amendments(amendments)
    else:
        print("Amendments: none")
    if drift:
        print()
        print(f"Drift: {drift}")
    return 0


# ---------------------------------------------------------------- save


def _read_body(name: str) -> str:
    try:
        raw = sys.stdin.buffer.read() if name == "-" else Path(name).read_bytes()
    except OSError as exc:
        raise UserError(f"cannot read body {name}: {exc.strerror or exc}") from None
    try:
        return raw.decode("utf-8")
    except UnicodeDecodeError as exc:
        raise UserError(f"body {name} is not UTF-8 text (bad byte at {exc.start})") from None


@contextmanager
def _undo_file_on_error(path: Path) -> Iterator[None]:
    """Put ``path`` and the directories leading to it back as they were when
    the block fails, so a failed save leaves the wiki as it found it."""
    previous = path.read_bytes() if path.is_file() else None
    created = [d for d in (path.parent, *path.parent.parents) if not d.exists()]
    try:
        yield
    except BaseException:
        try:
            if previous is None:
                path.unlink(missing_ok=True)
            else:
                path.write_bytes(previous)
            for directory in created:  # deepest first
                directory.rmdir()
        except OSError:
            pass
        raise


def cmd_save(ctx: Context, args: argparse.Namespace) -> int:
    page_id = str(args.page_id)
    body = _read_body(str(args.body))
    inputs = _inputs(ctx)
    with _store(ctx, create=False) as db:
        gen = _generator(ctx, db, inputs)
        if not gen._existing:
            raise UserError(
                f"no plan of record for branch {ctx.branch} yet; run `{PROG} plan` first"
            )
        plan = next((p for p in _pinned(gen, inputs) if p.page_id == page_id), None)
        if plan is None:
            raise UserError(f"unknown page id {page_id!r}: not in the plan of branch {ctx.branch}")
        citations = prose_citations(body)
        with _undo_file_on_error(gen.pages_dir / f"{page_id}.md"):
            row = gen.save_page(_as_record(plan), body, citations)
        sections = list((row.get("build_cache") or {}).get("sections") or [])
    known = set(inputs.paths)
    unknown = sorted({str(c["path"]) for c in citations if _norm(str(c["path"])) not in known})
    for path in unknown:
        print(f"{PROG}: warning: {page_id} cites {path}, not a repository file", file=sys.stderr)
    report = {
        "page_id": page_id,
        "path": str(gen.pages_dir / f"{page_id}.md"),
        "citations": len(citations),
        "sections": sections,
        "unknown_citations": unknown,
    }
    if ctx.as_json:
        _print_json(report)
        return 0
    print(f"saved {page_id}: {len(citations)} citation(s), {len(sections)} citing section(s)")
    print(f"  body: {report['path']}")
    for section in sections:
        heading = section["heading"] or "(lead-in)"
        print(f"  {heading}: {', '.join(section['files'])}")
    return 0


# ---------------------------------------------------------------- status


def cmd_status(ctx: Context, args: argparse.Namespace) -> int:
    inputs = _inputs(ctx)
    with _store(ctx, create=False) as db:
        gen = _generator(ctx, db, inputs)
        of_record = bool(gen._existing)
        plans = _pinned(gen, inputs)
        stale = gen._select_stale(plans, gen._existing, False)
        pages: list[dict[str, Any]] = []
        for plan in plans:
            row = gen._existing.get(plan.page_id)
            written = bool(row and row.get("content_hash"))
            changes = gen._page_changes(plan, row) if written else {}
            pages.append(
                {
                    "page_id": plan.page_id,
                    "written": written,
                    "to_write": plan.page_id in stale,
                    "changed_files": changes.get("changed_files", {}),
                    "stale_sections": list(changes.get("stale_sections", [])),
                }
            )
    to_write = [str(page["page_id"]) for page in pages if page["to_write"]]
    report: dict[str, Any] = {
        "branch": ctx.branch,
        "plan_of_record": of_record,
        "to_write": to_write,
        "pages": pages,
    }
    if ctx.as_json:
        _print_json(report)
        return 0
    if not of_record:
        print(f"No plan of record for branch {ctx.branch} yet; run `{PROG} plan`.")
    print(f"Branch {ctx.branch}: {len(pages)} planned pages, {len(to_write)} to write")
    width = max((len(str(page["page_id"])) for page in pages), default=0)
    for page in pages:
        if page["to_write"]:
            why = "inputs changed" if page["written"] else "not written yet"
            print(f"  {page['page_id']:<{width}}  {why}")
    written_pages = [page for page in pages if page["written"]]
    if written_pages:
        print()
        print("Written pages:")
    for page in written_pages:
        changed = page["changed_files"]
        files = [(kind, path) for kind in ("added", "removed", "modified")
                 for path in changed.get(kind, [])]
        sections = page["stale_sections"]
        summary = (
            f"{len(files)} changed file(s), {len(sections)} stale section(s)"
            if files or sections else "up to date"
        )
        print(f"  {page['page_id']:<{width}}  {summary}")
        for kind, path in files:
            print(f"    {kind:<8}  {path}")
        for section in sections:
            heading = section["heading"] or "(lead-in)"
            print(f"    stale section \"{heading}\" cites {', '.join(section['files'])}")
    return 0


# ---------------------------------------------------------------- log


def _log_runs(wiki_dir: Path) -> list[dict[str, Any]]:
    path = wiki_dir / plan_record._PLAN_LOG_NAME
    try:
        text = path.read_text(encoding="utf-8", errors="replace")
    except FileNotFoundError:
        return []
    runs: list[dict[str, Any]] = []
    for line in text.split("\n"):
        try:
            record = json.loads(line)
        except ValueError:
            continue  # a blank line, or one cut short by a crash
        if isinstance(record, dict):
            runs.append(record)
    return runs


def cmd_log(ctx: Context, args: argparse.Namespace) -> int:
    runs = _log_runs(ctx.wiki_dir)[-args.n :]
    if ctx.as_json:
        _print_json(runs)
        return 0
    if not runs:
        path = ctx.wiki_dir / plan_record._PLAN_LOG_NAME
        print(f"No plan log for branch {ctx.branch} yet ({path}).")
        return 0
    for index, run in enumerate(runs):
        if index:
            print()
        amendments = [a for a in run.get("amendments") or [] if isinstance(a, dict)]
        kind = "replan" if run.get("replan") else "plan"
        print(f"{run.get('at', '?')}  {kind}  ({len(amendments)} amendment(s))")
        _print_amendments(amendments)
    return 0


# ---------------------------------------------------------------- output


def _print_json(value: Any) -> None:
    json.dump(value, sys.stdout, indent=2, ensure_ascii=False, sort_keys=False)
    sys.stdout.write("\n")


def _print_table(header: list[str], rows: list[list[str]]) -> None:
    widths = [max(len(cell) for cell in column) for column in zip(header, *rows, strict=True)]
    for line in [header, *rows]:
        cells = (cell.ljust(width) for cell, width in zip(line, widths, strict=True))
        print("  ".join(cells).rstrip())


def _print_amendments(amendments: list[dict[str, Any]]) -> None:
    width = max((len(str(a.get("page_id", ""))) for a in amendments), default=0)
    for record in amendments:
        action = str(record.get("action", "?"))
        page_id = str(record.get("page_id", "?"))
        reason = str(record.get("reason", ""))
        if record.get("carried_to"):
            reason += f" (prose to {record['carried_to']})"
        print(f"  {action:<7} {page_id:<{width}}  {reason}")


# ---------------------------------------------------------------- entry point


def _positive(text: str) -> int:
    try:
        value = int(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"not a whole number: {text!r}") from None
    if value < 1:
        raise argparse.ArgumentTypeError(f"must be at least 1: {value}")
    return value


def _common_options() -> argparse.ArgumentParser:
    """Global options, accepted before or after the subcommand."""
    common = argparse.ArgumentParser(add_help=False, argument_default=argparse.SUPPRESS)
    common.add_argument(
        "--repo", metavar="PATH", help="repository root (default: the current directory)"
    )
    common.add_argument(
        "--store", metavar="PATH",
        help=f"page store file (default: ${STORE_ENV}, else <repo>/{DEFAULT_STORE.as_posix()})",
    )
    common.add_argument(
        "--wiki-dir", metavar="PATH",
        help=f"the branch's wiki directory (default: <repo>/{WIKI_ROOT.as_posix()}/<branch>)",
    )
    common.add_argument("--branch", metavar="B", help="branch (default: the checked-out branch)")
    common.add_argument("--json", action="store_true", help="machine-readable output")
    return common


def build_parser() -> argparse.ArgumentParser:
    common = _common_options()
    parser = argparse.ArgumentParser(
        prog=PROG,
        parents=[common],
        description="Keep the plan of record of a repository's per-branch wiki.",
    )
    commands = parser.add_subparsers(dest="command", required=True, metavar="COMMAND")
    plan = commands.add_parser(
        "plan", parents=[common], help="derive and pin the plan, record its amendments"
    )
    plan.add_argument(
        "--replan", action="store_true",
        help="let the fresh structure win; old pages map to new ids by file overlap",
    )
    plan.set_defaults(handler=cmd_plan)
    save = commands.add_parser("save", parents=[common], help="store the prose of one page")
    save.add_argument("page_id", metavar="PAGE_ID")
    save.add_argument(
        "body", metavar="BODY.md", help="the page body (Markdown, UTF-8; - for stdin)"
    )
    save.set_defaults(handler=cmd_save)
    status = commands.add_parser(
        "status", parents=[common], help="pages to write, and changes under written pages"
    )
    status.set_defaults(handler=cmd_status)
    log = commands.add_parser("log", parents=[common], help="the plan audit log, last runs")
    log.add_argument("-n", type=_positive, default=DEFAULT_LOG_RUNS, metavar="N",
                     help=f"how many runs to show (default {DEFAULT_LOG_RUNS})")
    log.set_defaults(handler=cmd_log)
    return parser


class _OneLineFormatter(logging.Formatter):
    """Warnings as ``ostrel-wiki: warning: message: cause``, never a traceback."""

    def format(self, record: logging.LogRecord) -> str:
        text = record.getMessage()
        if record.exc_info and record.exc_info[1] is not None:
            text += f": {record.exc_info[1]}"
        return f"{PROG}: {record.levelname.lower()}: {text}"


def _error(message: str) -> int:
    print(f"{PROG}: error: {' '.join(message.split())}", file=sys.stderr)
    return 1


def main(argv: Sequence[str] | None = None) -> int:
    args = build_parser().parse_args(argv)
    handler: Callable[[Context, argparse.Namespace], int] = args.handler
    log_handler = logging.StreamHandler(sys.stderr)
    log_handler.setFormatter(_OneLineFormatter())
    package_logger = logging.getLogger("malde_ostrel")
    package_logger.addHandler(log_handler)
    store = "?"
    try:
        ctx = _context(args)
        store = str(ctx.store)
        return handler(ctx, args)
    except (UserError, SteeringError, StoreError) as exc:
        return _error(str(exc))
    except sqlite3.Error as exc:
        return _error(f"page store {store}: {exc}")
    except OSError as exc:
        where = f"{exc.filename}: " if exc.filename else ""
        return _error(f"{where}{exc.strerror or exc}")
    finally:
        package_logger.removeHandler(log_handler)
