"""``ostrel-wiki``: keep a repository's per-branch wiki from the shell.

The commands parse their arguments, call one ``Wiki`` operation and print its
report (``--json``: the report as JSON). ``ostrel-wiki --replan`` is
``ostrel-wiki plan --replan``.

Exit status: 0 on success (also when the output pipe closes early), 1 on an
error (one ``ostrel-wiki: error:`` line on stderr naming the thing and what to
do; nothing was written), 2 on bad usage, 3 on an unexpected failure (one
line; the store holds whole transactions only), 4 when ``build`` left some
pages unwritten (one line each names the page and why; the others are
saved), 130 when interrupted.
"""

from __future__ import annotations

import argparse
import gc
import json
import logging
import os
import shlex
import sqlite3
import sys
from collections.abc import Callable, Iterator, Sequence
from contextlib import contextmanager
from pathlib import Path
from typing import Any

from malde_ostrel.workers.wiki.tool import termui
from malde_ostrel.workers.wiki.tool.planner import SteeringError
from malde_ostrel.workers.wiki.tool.repo_scan import RepoError
from malde_ostrel.workers.wiki.tool.reports import CitationError, HistoryReport, WikiError, as_json
from malde_ostrel.workers.wiki.tool.store import DOCTOR_HINT, StoreError
from malde_ostrel.workers.wiki.tool.wiki import PROG, WRITER_TIMEOUT, Wiki

STORE_ENV = "OSTREL_WIKI_STORE"
DEFAULT_LOG_RUNS = 10
COMMANDS = (
    "plan",
    "save",
    "status",
    "log",
    "show",
    "history",
    "archive",
    "restore",
    "doctor",
    "build",
    "publish",
    "serve",
)
# Exit status of a build that left pages unwritten.
EXIT_UNWRITTEN = 4


def _open(args: argparse.Namespace) -> Wiki:
    store_arg = getattr(args, "store", None) or os.environ.get(STORE_ENV) or ""
    wiki_arg = getattr(args, "wiki_dir", None)
    repo_arg = getattr(args, "repo", None)
    return Wiki.open(
        Path(repo_arg) if repo_arg else None,
        branch=getattr(args, "branch", None),
        store=Path(store_arg) if store_arg else None,
        wiki_dir=Path(wiki_arg) if wiki_arg else None,
    )


def _warn(message: str) -> None:
    print(f"{PROG}: warning: {message}", file=sys.stderr)


@contextmanager
def _hashing(wiki: Wiki, label: str = "hashing files") -> Iterator[termui.Progress]:
    """A progress bar while the wiki hashes files (on a terminal, after a
    second), wiped before the command prints."""
    with termui.Progress(label) as progress:
        wiki.progress = progress
        try:
            yield progress
        finally:
            wiki.progress = None


# ---------------------------------------------------------------- commands


def cmd_publish(wiki: Wiki, args: argparse.Namespace) -> Any:
    from malde_ostrel.workers.wiki.tool.publish import publish

    with _hashing(wiki):
        report = publish(wiki, Path(args.dir), all_branches=bool(args.all_branches))
    if args.json:
        return report
    print(
        f"published {report.pages} page(s) of {', '.join(report.branches)} in {report.seconds:.1f} s: "
        f"{len(report.written)} file(s) written, {len(report.removed)} removed"
    )
    print((Path(args.dir).resolve() / "index.html").as_uri())
    return None


def cmd_serve(wiki: Wiki, args: argparse.Namespace) -> Any:
    from malde_ostrel.workers.wiki.tool.publish.model import PublishReport
    from malde_ostrel.workers.wiki.tool.serve import Server

    site = Path(args.dir) if args.dir else wiki.wiki_dir / "site"
    server = Server(wiki, site, int(args.port), all_branches=bool(args.all_branches))
    with _hashing(wiki):
        server.publish()
    print(f"serving {site} at {server.url} (Ctrl-C stops)", flush=True)

    def told(outcome: PublishReport | Exception) -> None:
        if isinstance(outcome, Exception):
            _warn(f"publishing again failed: {outcome}; the site is unchanged")
        else:
            print(f"published again: {len(outcome.written)} file(s) written", flush=True)

    server.run(told)
    return None


def cmd_plan(wiki: Wiki, args: argparse.Namespace) -> Any:
    with _hashing(wiki):
        report = wiki.plan(replan=bool(args.replan))
    for warning in report.warnings:
        _warn(warning)
    if report.drift:
        _warn(report.drift)
    if args.json:
        return report
    kind = "first plan" if report.first_plan else "replan" if report.replan else "pinned"
    to_write = sum(1 for page in report.pages if page.to_write)
    print(f"Plan of record, branch {report.branch} ({kind}): {len(report.pages)} pages, {to_write} to write")
    print()
    rows = [
        [
            p.page_id,
            p.level,
            p.title,
            f"{len(p.children)} parts" if p.children else str(p.files),
            p.state,
            "to write" if p.to_write else "",
        ]
        for p in report.pages
    ]
    _print_table(["PAGE", "LEVEL", "TITLE", "FILES", "STATE", "WRITE"], rows, shrink=[2, 0])
    print()
    if report.amendments:
        print(f"Amendments ({len(report.amendments)}):")
        _print_amendments(report.amendments)
    else:
        print("Amendments: none")
    if report.drift:
        print()
        print(f"Drift: {report.drift}")
    return None


def _read_body(name: str) -> str:
    try:
        raw = sys.stdin.buffer.read() if name == "-" else Path(name).read_bytes()
    except OSError as exc:
        raise WikiError(f"cannot read body {name}: {exc.strerror or exc}") from None
    try:
        return raw.decode("utf-8")
    except UnicodeDecodeError as exc:
        raise WikiError(f"body {name} is not UTF-8 text (bad byte at {exc.start})") from None


def cmd_save(wiki: Wiki, args: argparse.Namespace) -> Any:
    body = _read_body(str(args.body))
    try:
        with _hashing(wiki):
            report = wiki.save(str(args.page_id), body, allow_empty=bool(args.allow_empty), strict=bool(args.strict))
    except CitationError as exc:
        for problem in exc.problems:
            _warn(f"{args.page_id}: {problem}")
        raise
    for warning in report.warnings:
        _warn(warning)
    for problem in report.citation_problems:
        _warn(f"{report.page_id}: {problem}")
    for page in report.replaced_carried:
        where = (
            f"`{PROG} show {report.page_id} --rev {report.revision}`"
            if report.revision is not None
            else f"`{PROG} archive`"
        )
        _warn(
            f"{report.page_id}: the new text leaves out the draft carried from {page} that it replaces; "
            f"the draft is kept ({where})"
        )
    if args.json:
        return report
    print(f"saved {report.page_id}: {report.citations} citation(s), {len(report.sections)} citing section(s)")
    print(f"  body: {report.path}")
    if report.revision is not None:
        print(f"  the text it replaces is revision {report.revision} (`{PROG} history {report.page_id}`)")
    for section in report.sections:
        print(f"  {section['heading'] or '(lead-in)'}: {', '.join(section['files'])}")
    return None


def cmd_status(wiki: Wiki, args: argparse.Namespace) -> Any:
    with _hashing(wiki):
        report = wiki.status()
    if args.json:
        return report
    if not report.plan_of_record:
        print(f"No plan of record for branch {report.branch} yet; run `{PROG} plan`.")
    print(f"Branch {report.branch}: {len(report.pages)} planned pages, {len(report.to_write)} to write")
    width = max((len(p.page_id) for p in report.pages), default=0)
    for page in report.pages:
        if page.to_write:
            why = "inputs changed" if page.written else "not written yet"
            if page.draft:
                why = f"draft: text carried from {', '.join(page.carried_from)}"
            print(f"  {page.page_id:<{width}}  {why}")
    written = [p for p in report.pages if p.written]
    if written:
        print()
        print("Written pages:")
    for page in written:
        files = [(kind, path) for kind in ("added", "removed", "modified") for path in page.changed_files.get(kind, [])]
        summary = (
            f"{len(files)} changed file(s), {len(page.stale_sections)} stale section(s)"
            if files or page.stale_sections
            else "up to date"
        )
        if page.draft:
            summary += f"; holds a draft carried from {', '.join(page.carried_from)}"
        print(f"  {page.page_id:<{width}}  {summary}")
        for kind, path in files:
            print(f"    {kind:<8}  {path}")
        for section in page.stale_sections:
            print(f'    stale section "{section["heading"] or "(lead-in)"}" cites {", ".join(section["files"])}')
    if report.archived:
        print()
        print(f"Archived texts of pages whose files are gone: {', '.join(report.archived)} (`{PROG} archive`)")
    return None


def cmd_log(wiki: Wiki, args: argparse.Namespace) -> Any:
    report = wiki.log(args.n)
    if report.skipped_lines:
        _warn(
            f"{wiki.log_path}: skipped unreadable line(s) "
            f"{', '.join(map(str, report.skipped_lines))}; `{PROG} doctor` sets them aside"
        )
    if args.json:
        return report.runs
    if not report.runs:
        print(f"No plan log for branch {wiki.branch} yet ({wiki.log_path}).")
    for index, run in enumerate(report.runs):
        if index:
            print()
        amendments = [a for a in run.get("amendments") or [] if isinstance(a, dict)]
        kind = "build" if run.get("build") else "replan" if run.get("replan") else "plan"
        print(f"{run.get('at', '?')}  {kind}  ({len(amendments)} amendment(s))")
        _print_amendments(amendments)
    return None


def cmd_show(wiki: Wiki, args: argparse.Namespace) -> Any:
    with _hashing(wiki):
        report = wiki.show(str(args.page_id), rev=args.rev)
    if args.json:
        return report
    print(f"{report.page_id}: {report.title}" + ("  (to write)" if report.to_write else ""))
    if report.draft_from:
        print(f"  draft: its text holds text carried from {', '.join(report.draft_from)}, not yet saved over")
    if report.revisions:
        print(f"  revisions: {report.revisions} earlier text(s) (`{PROG} history {report.page_id}`)")
    if report.rev is not None:
        print(f"  showing revision {report.rev}, not the current text")
    for path in report.source_files:
        print(f"  file  {path}")
    for child in report.children:
        print(f"  part  {child}")
    for section in report.stale_sections:
        print(f'  stale section "{section["heading"] or "(lead-in)"}" cites {", ".join(section["files"])}')
    print()
    print(report.body if report.body is not None else "(no text yet)")
    return None


def cmd_history(wiki: Wiki, args: argparse.Namespace) -> Any:
    page_id = str(args.page_id)
    report = HistoryReport(page_id, wiki.history(page_id), wiki.revisions(page_id))
    if args.json:
        return report
    if not report.events:
        print(f"No records of {page_id} in the plan log of branch {wiki.branch}.")
    for event in report.events:
        other = f"  [{event.other}]" if event.other else ""
        print(f"{event.at}  {event.action:<8} {event.page_id}  {event.reason}{other}")
    if report.revisions:
        print()
        print(f"Revisions (`{PROG} show {page_id} --rev N`, `{PROG} restore {page_id} --rev N`):")
    for rev in report.revisions:
        kind = "saved" if rev.saved else "draft"
        print(f"  {rev.n:>3}  {rev.at}  {kind}, replaced by {rev.replaced_by}, {rev.size} bytes  {rev.first_line}")
    return None


def cmd_archive(wiki: Wiki, args: argparse.Namespace) -> Any:
    entries = wiki.archive()
    if args.json:
        return entries
    if not entries:
        print(f"The archive of branch {wiki.branch} is empty.")
    for e in entries:
        where = f"carried to {e.carried_to}" if e.carried_to else "no page; restore it"
        print(f"{e.id:>4}  {e.at}  {e.page_id}  ({len(e.files)} file(s); {where})")
    return None


def cmd_restore(wiki: Wiki, args: argparse.Namespace) -> Any:
    if args.rev is not None:
        if args.into is not None:
            raise WikiError("--into names the page for an archive entry; a revision goes back to its own page")
        revision = wiki.restore_revision(str(args.target), args.rev)
        for warning in revision.warnings:
            _warn(warning)
        if args.json:
            return revision
        kept = f"; the text it replaces is revision {revision.kept}" if revision.kept is not None else ""
        print(f"restored revision {revision.revision} of {revision.page_id}; it is marked to write{kept}")
        return None
    report = wiki.restore(int(args.target), into=args.into)
    if args.json:
        return report
    print(f"restored entry {report.entry} ({report.page_id}) into {report.into}; it is marked to write")
    return None


def cmd_doctor(wiki: Wiki, args: argparse.Namespace) -> Any:
    report = wiki.doctor()
    if args.json:
        return report
    for problem in report.problems:
        print(f"problem: {problem}")
    for repair in report.repairs:
        print(f"repaired: {repair}")
    if not report.problems:
        print(f"{report.store}: no problems found")
    return None


def cmd_build(wiki: Wiki, args: argparse.Namespace) -> Any:
    command = None
    if args.writer is not None:
        try:
            command = shlex.split(args.writer)
        except ValueError as exc:
            raise WikiError(f"--writer {args.writer!r} cannot be split into arguments ({exc})") from None
        if not command:
            raise WikiError("--writer is empty; name the writer command")
    with _hashing(wiki, "building") as progress:  # one bar, for the hashing and then the pages
        report = wiki.build(command=command, jobs=args.jobs, timeout=args.writer_timeout, progress=progress)
    for warning in report.warnings:
        _warn(warning)
    for failure in report.failed:
        print(f"{PROG}: {failure['page_id']}: not written: {failure['reason']}", file=sys.stderr)
    for entry in report.personal_stale:
        _warn(
            f'{entry["page_id"]}: section "{entry["heading"] or "(lead-in)"}" is a person\'s text and cites '
            f"changed {', '.join(entry['files'])}; revise it and save the page"
        )
    if report.failed:
        args.exit_status = EXIT_UNWRITTEN
    if args.json:
        return report
    first = "planned, then " if report.planned else ""
    others = f", {len(report.skipped)} written by another run" if report.skipped else ""
    print(
        f"Branch {report.branch}: {first}{len(report.written)} of {report.to_write} page(s) written, "
        f"{report.sections_written} section(s) written, {len(report.failed)} failed{others}"
    )
    return None


# ---------------------------------------------------------------- output


def _print_table(header: list[str], rows: list[list[str]], *, shrink: Sequence[int] = ()) -> None:
    """The table; on a terminal, the ``shrink`` columns are cut to fit its width."""
    lines = termui.fit_table(header, rows, termui.terminal_width(sys.stdout), shrink=shrink)
    print("\n".join(lines))


def _print_amendments(amendments: list[dict[str, Any]]) -> None:
    width = max((len(str(a.get("page_id", ""))) for a in amendments), default=0)
    for record in amendments:
        action = str(record.get("action", "?"))
        page_id = str(record.get("page_id", "?"))
        reason = str(record.get("reason", ""))
        if record.get("carried_to"):
            reason += f" (text to {record['carried_to']})"
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


def _seconds(text: str) -> float:
    try:
        value = float(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"not a number of seconds: {text!r}") from None
    if not value > 0 or value == float("inf"):
        raise argparse.ArgumentTypeError(f"must be a positive number of seconds: {text}")
    return value


def _common_options() -> argparse.ArgumentParser:
    """Global options, accepted before or after the command."""
    common = argparse.ArgumentParser(add_help=False, argument_default=argparse.SUPPRESS, formatter_class=_HelpFormatter)
    common.add_argument("--repo", metavar="PATH", help="a directory of the repository (default: the current one)")
    common.add_argument(
        "--store",
        metavar="PATH",
        help=f"page store file (default: ${STORE_ENV}, else <git dir>/ostrel-wiki/store.sqlite3)",
    )
    common.add_argument(
        "--wiki-dir", metavar="PATH", help="the branch's wiki directory (default: <git dir>/ostrel-wiki/wiki/<branch>)"
    )
    common.add_argument("--branch", metavar="B", help="branch (default: the checked-out one)")
    common.add_argument("--json", action="store_true", help="machine-readable output")
    return common


class _HelpFormatter(argparse.HelpFormatter):
    """argparse's own layout at the width it would choose, found without
    importing shutil (and the compression modules shutil brings) on every run."""

    def __init__(self, prog: str) -> None:
        super().__init__(prog, width=_terminal_columns() - 2)


def _terminal_columns() -> int:
    """``shutil.get_terminal_size().columns``: $COLUMNS when positive, else
    standard output's terminal, else 80."""
    try:
        columns = int(os.environ["COLUMNS"])
    except (KeyError, ValueError):
        columns = 0
    if columns > 0:
        return columns
    try:
        return os.get_terminal_size(sys.__stdout__.fileno()).columns or 80  # type: ignore[union-attr]
    except (AttributeError, ValueError, OSError):
        return 80


def build_parser() -> argparse.ArgumentParser:
    common = _common_options()
    parser = argparse.ArgumentParser(
        prog=PROG, parents=[common], description="Keep a repository's per-branch wiki.", formatter_class=_HelpFormatter
    )
    commands = parser.add_subparsers(dest="command", required=True, metavar="COMMAND")

    def add(name: str, handler: Callable[[Wiki, argparse.Namespace], Any], text: str) -> argparse.ArgumentParser:
        sub = commands.add_parser(name, parents=[common], help=text, formatter_class=_HelpFormatter)
        sub.set_defaults(handler=handler)
        return sub

    add("plan", cmd_plan, "derive and pin the plan, record its amendments").add_argument(
        "--replan",
        action="store_true",
        help="let the fresh structure win; old texts go to the pages taking their files",
    )
    save = add("save", cmd_save, "store the text of one page")
    save.add_argument("page_id", metavar="PAGE_ID")
    save.add_argument("body", metavar="BODY.md", help="the page body (Markdown, UTF-8; - for stdin)")
    save.add_argument("--allow-empty", action="store_true", help="accept an empty body")
    save.add_argument(
        "--strict", action="store_true", help="refuse a body whose citations point nowhere (exit 1, nothing written)"
    )
    add("status", cmd_status, "pages to write, and changes under written pages")
    log = add("log", cmd_log, "the plan audit log, last runs")
    log.add_argument(
        "-n",
        type=_positive,
        default=DEFAULT_LOG_RUNS,
        metavar="N",
        help=f"how many runs to show (default {DEFAULT_LOG_RUNS})",
    )
    show = add("show", cmd_show, "a page's text, files and stale sections")
    show.add_argument("page_id", metavar="PAGE_ID")
    show.add_argument("--rev", type=_positive, metavar="N", help="show revision N of its text (see history)")
    add("history", cmd_history, "where a page and its text came from and went, and its revisions").add_argument(
        "page_id", metavar="PAGE_ID"
    )
    add("archive", cmd_archive, "texts of pages that left the plan")
    restore = add("restore", cmd_restore, "give an archived text to a planned page, or a page a revision back")
    restore.add_argument("target", metavar="ID|PAGE_ID", help="archive entry, or with --rev the page")
    restore.add_argument("--rev", type=_positive, metavar="N", help="make revision N the page's text again")
    restore.add_argument(
        "--into", metavar="PAGE_ID", help="the receiving page (default: the one holding most of its files)"
    )
    add("doctor", cmd_doctor, "check and repair the store and the log (keeps backups)")
    build = add("build", cmd_build, "write every page to write, and only what went stale")
    build.add_argument(
        "--writer",
        metavar="CMD",
        help="a writer command (split like a shell would, never run by one): a JSON brief on its stdin, "
        "the page's Markdown on its stdout, once per page (default: the built-in writer)",
    )
    build.add_argument("-j", "--jobs", type=_positive, default=1, metavar="N", help="writers run at once (default 1)")
    build.add_argument(
        "--writer-timeout",
        type=_seconds,
        default=WRITER_TIMEOUT,
        metavar="SECONDS",
        help=f"a writer that takes longer fails its page (default {WRITER_TIMEOUT:g})",
    )
    publish = add("publish", cmd_publish, "write the wiki as a static site (works from file://)")
    publish.add_argument("dir", metavar="DIR", help="the site directory: new, empty, or published before")
    publish.add_argument("--all-branches", action="store_true", help="every branch, with a switcher")
    serve = add("serve", cmd_serve, "publish and serve the site on 127.0.0.1, again as the wiki changes")
    serve.add_argument("dir", metavar="DIR", nargs="?", help="the site directory (default: beside the wiki's pages)")
    serve.add_argument("--port", type=int, default=8000, metavar="P", help="the port (default 8000; 0 picks one)")
    serve.add_argument("--all-branches", action="store_true", help="every branch, with a switcher")
    return parser


def _argv(argv: Sequence[str]) -> list[str]:
    """``--replan`` without a command means ``plan --replan``."""
    args = list(argv)
    if "--replan" in args and not any(word in COMMANDS for word in args):
        args.insert(0, "plan")
    return args


class _OneLineFormatter(logging.Formatter):
    """Warnings as ``ostrel-wiki: warning: message: cause``, never a traceback."""

    def format(self, record: logging.LogRecord) -> str:
        text = record.getMessage()
        if record.exc_info and record.exc_info[1] is not None:
            text += f": {record.exc_info[1]}"
        return f"{PROG}: {record.levelname.lower()}: {text}"


def _error(message: str, code: int = 1) -> int:
    print(f"{PROG}: error: {' '.join(message.split())}", file=sys.stderr)
    return code


def _store_message(exc: sqlite3.Error, store: str) -> str:
    text = str(exc)
    if isinstance(exc, sqlite3.DatabaseError) and ("malformed" in text or "not a database" in text):
        return f"page store {store} is damaged ({text}); {DOCTOR_HINT}"
    return f"page store {store}: {text}"


def main(argv: Sequence[str] | None = None) -> int:
    parser = build_parser()
    args = parser.parse_args(_argv(sys.argv[1:] if argv is None else argv))
    if args.command == "restore" and args.rev is None and not str(args.target).isdigit():
        parser.error(f"restore: {args.target!r} is not an archive entry number (a page's revision: PAGE --rev N)")
    if not hasattr(args, "json"):
        args.json = False
    handler: Callable[[Wiki, argparse.Namespace], Any] = args.handler
    log_handler = logging.StreamHandler(sys.stderr)
    log_handler.setFormatter(_OneLineFormatter())
    package_logger = logging.getLogger("malde_ostrel")
    package_logger.addHandler(log_handler)
    store = "?"
    # One command is one short run whose objects form next to no cycles:
    # collection passes would only walk its growing heap, again and again.
    collecting = gc.isenabled()
    gc.disable()
    try:
        wiki = _open(args)
        store = str(wiki.store)
        with wiki:
            result = handler(wiki, args)
        if result is not None:
            json.dump(as_json(result), sys.stdout, indent=2, ensure_ascii=False)
            sys.stdout.write("\n")
        sys.stdout.flush()
        return int(getattr(args, "exit_status", 0))
    except BrokenPipeError:
        # The reader went away (``| head``): the work is done, the rest of the
        # output has nowhere to go.
        devnull = os.open(os.devnull, os.O_WRONLY)
        os.dup2(devnull, sys.stdout.fileno())
        return int(getattr(args, "exit_status", 0))
    except (WikiError, RepoError, SteeringError, StoreError) as exc:
        return _error(str(exc))
    except sqlite3.Error as exc:
        return _error(_store_message(exc, store))
    except OSError as exc:
        where = f"{exc.filename}: " if exc.filename else ""
        return _error(f"{where}{exc.strerror or exc}")
    except KeyboardInterrupt:
        return 130
    except Exception as exc:  # no traceback reaches a user
        return _error(
            f"unexpected failure ({type(exc).__name__}: {exc}); the store holds whole changes only; please report this",
            3,
        )
    finally:
        package_logger.removeHandler(log_handler)
        if collecting:
            gc.enable()
