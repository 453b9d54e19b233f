"""The structural plan of a repository's wiki, derived from its live paths alone.

Rules (the same paths and steering always give the same plan, in the same order):

* A source file is a file whose extension is in ``SOURCE_EXTENSIONS``; every
  other file is left to the steering pages.
* Each directory that directly holds source files is one code-unit page,
  ``module-<directory>`` (``ROOT_UNIT_ID`` for top-level files), level
  "module", titled by the directory's own name, with as many parent
  directories as it takes to tell same-named directories apart.  Its
  importance score is its file count divided by the largest directory's.
* A directory with more than ``MAX_FILES_PER_PAGE`` source files becomes a
  decomposed family: a parent page that lists its children and holds no
  files, and parts that take the sorted files in runs cut where the names
  say (see ``splits``), so that a file added or removed mostly leaves the
  other parts alone.  A part is ``<parent>-part-<its first file's name>``.
  A directory whose parent the store already holds (its id in ``families``)
  stays a family down to ``MIN_FAMILY_FILES`` files, its parts cut at the
  same names, so a file added or removed at the split size does not flip
  the structure.
* Two non-code pages with literal ids: ``overview`` always, ``architecture``
  when there are at least ``ARCHITECTURE_MIN_CODE_PAGES`` code-unit pages.
* Steering pages come from ``STEERING_FILE`` at the repository root (see
  ``read_steering``): ``custom-<slug of title>``, level "module", with the
  live paths its glob patterns match.
* ``derive`` leaves out paths before planning: the tool's own output, what
  ``.gitattributes`` files mark vendored or generated (see ``attributes``),
  and the steering file's ``exclude`` globs.

Page ids use lower-case letters, digits and single hyphens.  Two directories
whose ids would collide (``a_b`` and ``a-b``) are told apart by a numeric
suffix given in path order; a directory id never takes the catch-all page's
id form (``module-additional``), which pinning reserves.
"""

from __future__ import annotations

import operator
import re
from collections.abc import Callable, Collection, Iterable
from pathlib import Path
from typing import Any, NamedTuple, Protocol

from malde_ostrel.workers.wiki.page_sources import unit_topic
from malde_ostrel.workers.wiki.tool import attributes, plan_cache, splits
from malde_ostrel.workers.wiki.tool.globs import glob_regex
from malde_ostrel.workers.wiki.tool.repo_scan import Snapshot
from malde_ostrel.workers.wiki.types import PagePlan

SOURCE_EXTENSIONS: frozenset[str] = frozenset(
    {
        ".c", ".h", ".cc", ".cpp", ".cxx", ".hh", ".hpp", ".hxx", ".m", ".mm",
        ".py", ".pyi", ".pyx", ".rs", ".go", ".java", ".kt", ".kts", ".scala",
        ".js", ".jsx", ".mjs", ".cjs", ".ts", ".tsx", ".rb", ".php", ".cs",
        ".swift", ".lua", ".pl", ".pm", ".sh", ".bash", ".zig", ".hs", ".ml",
        ".ex", ".exs", ".erl", ".clj", ".dart", ".jl", ".r", ".sql",
    }
)  # fmt: skip
MAX_FILES_PER_PAGE = 12
MIN_FAMILY_FILES = 9  # a stored family collapses only below this many files
ARCHITECTURE_MIN_CODE_PAGES = 3
STEERING_FILE = ".ostrel-wiki.toml"

UNIT_PREFIX = "module-"
ROOT_UNIT_ID = "module-root"
STEERING_PREFIX = "custom-"
OVERVIEW_ID = "overview"
ARCHITECTURE_ID = "architecture"

# Same form as the catch-all page id that plan pinning owns.
_RESERVED_RE = re.compile(r"^module-additional(-\d+)?$")
_UNSAFE_RE = re.compile(r"[^a-z0-9]+")
_STEERING_KEYS = frozenset({"steering", "page", "exclude"})
_PAGE_KEYS = frozenset({"title", "files", "description"})


class SteeringError(ValueError):
    """The steering file cannot be read or does not have the expected form."""


# The records below are defined at every start: named tuples take a small
# part of the time generated dataclasses do.


class SteeringPage(NamedTuple):
    """A page the user asks for: a title and the glob patterns of its files."""

    title: str
    files: tuple[str, ...] = ()
    description: str = ""


class Steering(NamedTuple):
    """The contents of the steering file; empty when there is none."""

    text: str | None = None
    pages: tuple[SteeringPage, ...] = ()
    # Glob patterns of paths the wiki leaves out altogether.
    exclude: tuple[str, ...] = ()


class Derived(NamedTuple):
    """The fresh plan of a snapshot and the paths it was made from."""

    fresh: list[PagePlan]
    # The source paths the code pages document (what pinning takes as live).
    live: set[str]
    # The paths considered, after exclusions.
    paths: list[str]
    # The steering file it was planned with.
    steering: Steering


def _suffix(name: str) -> str:
    """The extension of a file name, lower-cased ("" for none or a dot file)."""
    dot = name.rfind(".")
    return name[dot:].lower() if dot > 0 else ""


def _by_directory(
    paths: Iterable[str],
    prefixes: tuple[str, ...] = (),
    exact: frozenset[str] = frozenset(),
    drop: Callable[[str], bool] | None = None,
) -> tuple[list[str], dict[str, list[str]]]:
    """In one pass over ``paths`` (sorted): the paths kept (not under one of
    the ``prefixes``, not in ``exact``, not dropped) and their source files
    grouped by directory."""
    known: dict[str, bool] = {}
    kept: list[str] = []
    by_dir: dict[str, list[str]] = {}
    for path in paths:
        if path.startswith(prefixes) or path in exact or (drop is not None and drop(path)):
            continue
        kept.append(path)
        slash = path.rfind("/")
        dot = path.rfind(".")
        if dot <= slash + 1:
            continue  # no extension, or a dot file
        suffix = path[dot:]
        source = known.get(suffix)
        if source is None:
            source = known[suffix] = suffix.lower() in SOURCE_EXTENSIONS
        if source:
            directory = path[:slash] if slash > 0 else ""
            files = by_dir.get(directory)
            if files is None:
                by_dir[directory] = [path]
            else:
                files.append(path)
    return kept, by_dir


def slug(text: str) -> str:
    """Lower-case letters and digits of ``text``, other runs replaced by one hyphen."""
    return _UNSAFE_RE.sub("-", text.lower()).strip("-")


def _unique(base: str, taken: set[str], *extra: str) -> str:
    """``base``, or ``base-2``, ``base-3``, ...: the first id that, with the
    given suffixes appended, is not taken; a reserved base gets "-code" first."""
    if _RESERVED_RE.match(base):
        base += "-code"
    n = 1
    while True:
        candidate = base if n == 1 else f"{base}-{n}"
        ids = [candidate, *(candidate + suffix for suffix in extra)]
        if not taken.intersection(ids):
            taken.update(ids)
            return candidate
        n += 1


def _importance(score: float) -> str:
    if score >= 2 / 3:
        return "high"
    if score >= 1 / 3:
        return "medium"
    return "low"


def _titles(directories: list[str]) -> dict[str, str]:
    """A title per directory: its own name, with as many parent directories
    as it takes to tell apart directories of the same name."""
    titles = {d: d.rpartition("/")[2] or "top level" for d in directories}
    groups: dict[str, list[str]] = {}
    for directory, title in titles.items():
        groups.setdefault(title, []).append(directory)
    for group in groups.values():
        depth = 1
        while len(group) > 1 and depth <= max(d.count("/") for d in group):
            depth += 1
            named = {d: "/".join(d.split("/")[-depth:]) for d in group}
            if len(set(named.values())) == len(group):
                titles.update(named)
                break
            counts: dict[str, int] = {}
            for title in named.values():
                counts[title] = counts.get(title, 0) + 1
            for directory, title in named.items():
                if counts[title] == 1:
                    titles[directory] = title
            group = [d for d in group if counts[named[d]] > 1]
    return titles


def _part_suffixes(chunks: list[list[str]]) -> list[str]:
    """Distinct id suffixes for the parts, from the name of each part's first file."""
    suffixes: list[str] = []
    for chunk in chunks:
        name = chunk[0].rpartition("/")[2]
        base = "-part-" + (slug(name.rpartition(".")[0]) or slug(name) or "file")
        suffix, n = base, 1
        while suffix in suffixes:
            n += 1
            suffix = f"{base}-{n}"
        suffixes.append(suffix)
    return suffixes


def _span(files: list[str]) -> str:
    first, last = files[0].rpartition("/")[2], files[-1].rpartition("/")[2]
    return first if len(files) == 1 else f"{first} to {last}"


def _code_pages(by_dir: dict[str, list[str]], families: Collection[str] = ()) -> list[PagePlan]:
    if not by_dir:
        return []
    largest = max(len(files) for files in by_dir.values())
    directories = sorted(by_dir)
    titles = _titles(directories)
    taken: set[str] = set()
    pages: list[PagePlan] = []
    for directory in directories:
        files = by_dir[directory]
        name = titles[directory]
        where = f"{directory}/" if directory else "the top-level directory"
        base = UNIT_PREFIX + slug(directory) if slug(directory) else ROOT_UNIT_ID
        score = len(files) / largest
        kept_family = base in families and len(files) >= MIN_FAMILY_FILES
        if len(files) <= MAX_FILES_PER_PAGE and not kept_family:
            pages.append(
                PagePlan(
                    page_id=_unique(base, taken),
                    title=name,
                    level="module",
                    importance=_importance(score),
                    description=f"Code in {where}",
                    topic=f"{name.lower()} {directory or '.'}",
                    source_files=files,
                    importance_score=score,
                )
            )
            continue
        chunks = splits.split(files, MAX_FILES_PER_PAGE, parts=True)
        suffixes = _part_suffixes(chunks)
        parent_id = _unique(base, taken, *suffixes)
        parts = [
            PagePlan(
                page_id=parent_id + suffix,
                title=f"{name} ({_span(chunk)})",
                level="module",
                importance=_importance(len(chunk) / largest),
                description=f"Code in {where}: {_span(chunk)}",
                topic=f"{name.lower()} {directory or '.'}",
                source_files=chunk,
                importance_score=len(chunk) / largest,
            )
            for suffix, chunk in zip(suffixes, chunks, strict=True)
        ]
        pages.append(
            PagePlan(
                page_id=parent_id,
                title=name,
                level="module",
                importance=_importance(score),
                description=f"Code in {where}, in {len(chunks)} parts",
                topic=f"{name.lower()} {directory or '.'}",
                children=[part.page_id for part in parts],
                importance_score=score,
            )
        )
        pages.extend(parts)
    return pages


def matching(patterns: Iterable[str], paths: Iterable[str]) -> list[str]:
    """The paths matched by any of the glob patterns, sorted."""
    regexes = [glob_regex(pattern) for pattern in patterns if pattern.strip()]
    return sorted({path for path in paths if any(rx.fullmatch(path) for rx in regexes)})


def _steering_pages(steering: Steering, paths: list[str]) -> list[PagePlan]:
    taken: set[str] = set()
    pages: list[PagePlan] = []
    for page in steering.pages:
        files = matching(page.files, paths)
        pages.append(
            PagePlan(
                page_id=_unique(STEERING_PREFIX + (slug(page.title) or "page"), taken),
                title=page.title,
                level="module",
                description=page.description or f"{page.title} (asked for in {STEERING_FILE})",
                topic=unit_topic(page.title, files),
                source_files=files,
            )
        )
    return pages


def plan_pages(
    paths: Iterable[str], steering: Steering | None = None, families: Collection[str] = ()
) -> list[PagePlan]:
    """The fresh plan: overview pages, code-unit pages in path order, steering
    pages; ``families``: the ids of the family parents the store holds."""
    every, by_dir = _by_directory(sorted(set(paths)))
    return _plan(every, by_dir, steering, families)


def _plan(
    every: list[str], by_dir: dict[str, list[str]], steering: Steering | None, families: Collection[str] = ()
) -> list[PagePlan]:
    code = _code_pages(by_dir, families)
    plans = [
        PagePlan(
            page_id=OVERVIEW_ID,
            title="Overview",
            level="overview",
            importance="high",
            description="What the repository is for and how it is laid out",
        )
    ]
    if len(code) >= ARCHITECTURE_MIN_CODE_PAGES:
        plans.append(
            PagePlan(
                page_id=ARCHITECTURE_ID,
                title="Architecture",
                level="overview",
                importance="high",
                description="How the code units fit together",
            )
        )
    plans.extend(code)
    if steering is not None:
        plans.extend(_steering_pages(steering, every))
    return plans


def _text(value: Any, where: str) -> str:
    if not isinstance(value, str):
        raise SteeringError(f"{where} must be a string")
    return value


def _page(table: Any, index: int) -> SteeringPage:
    where = f"[[page]] #{index}"
    if not isinstance(table, dict):
        raise SteeringError(f"{where} must be a table")
    unknown = sorted(set(table) - _PAGE_KEYS)
    if unknown:
        raise SteeringError(f"{where}: unknown key(s) {', '.join(unknown)}")
    if "title" not in table:
        raise SteeringError(f"{where} has no title")
    title = _text(table["title"], f"{where} title").strip()
    if not title:
        raise SteeringError(f"{where} has an empty title")
    raw = table.get("files", [])
    patterns = [raw] if isinstance(raw, str) else raw
    if not isinstance(patterns, list):
        raise SteeringError(f"{where} files must be a list of glob patterns")
    files = tuple(_text(p, f"{where} files entry") for p in patterns)
    description = _text(table.get("description", ""), f"{where} description")
    return SteeringPage(title=title, files=files, description=description)


def parse_steering(text: str) -> Steering:
    """Steering from the text of a steering file.

    A top-level ``steering = "..."`` is guidance for every page (a change of
    it makes the written pages stale); each ``[[page]]`` table asks for a
    page with a ``title``, glob patterns ``files`` and an optional
    ``description``; a top-level ``exclude`` lists glob patterns of paths
    the wiki leaves out altogether.
    """
    import tomllib  # only a repository with a steering file needs it

    try:
        data = tomllib.loads(text)
    except tomllib.TOMLDecodeError as exc:
        raise SteeringError(f"not valid TOML: {exc}") from None
    unknown = sorted(set(data) - _STEERING_KEYS)
    if unknown:
        raise SteeringError(f"unknown key(s) {', '.join(unknown)}")
    guidance = _text(data.get("steering", ""), "steering").strip() or None
    tables = data.get("page", [])
    if not isinstance(tables, list):
        raise SteeringError("page must be an array of tables ([[page]])")
    pages = tuple(_page(table, index) for index, table in enumerate(tables, start=1))
    raw = data.get("exclude", [])
    patterns = [raw] if isinstance(raw, str) else raw
    if not isinstance(patterns, list):
        raise SteeringError("exclude must be a list of glob patterns")
    exclude = tuple(_text(p, "exclude entry") for p in patterns)
    return Steering(text=guidance, pages=pages, exclude=exclude)


def read_steering(source: Snapshot | Path) -> Steering:
    """The steering file of a snapshot (or of a directory), parsed; empty
    steering when there is none."""
    if isinstance(source, Snapshot):
        return _steering_of(source, source.read_bytes(STEERING_FILE))
    path = source / STEERING_FILE
    try:
        raw = path.read_bytes()
    except FileNotFoundError:
        return Steering()
    except OSError as exc:
        raise SteeringError(f"{path}: {exc.strerror or exc}") from None
    return _parse_raw(raw, str(path))


def _steering_of(snapshot: Snapshot, raw: bytes | None) -> Steering:
    """The snapshot's steering from the bytes of its steering file (None: no file)."""
    if raw is None:
        return Steering()
    where = str(snapshot.root / STEERING_FILE)
    if not snapshot.checked_out:
        where = f"{STEERING_FILE} of branch {snapshot.branch}"
    return _parse_raw(raw, where)


def _parse_raw(raw: bytes, where: str) -> Steering:
    try:
        text = raw.decode("utf-8")
    except UnicodeDecodeError:
        raise SteeringError(f"{where}: not UTF-8 text") from None
    try:
        return parse_steering(text)
    except SteeringError as exc:
        raise SteeringError(f"{where}: {exc}") from None


class PlanCache(Protocol):
    """Where derived plans are kept between runs, by the key of their inputs."""

    def get(self, key: str) -> str | None: ...

    def put(self, key: str, value: str) -> None: ...


def derive(
    snapshot: Snapshot, *, exclude: Iterable[str] = (), cache: PlanCache | None = None, families: Collection[str] = ()
) -> Derived:
    """The fresh plan of a snapshot.

    Reads the steering file from the snapshot and leaves out the paths under
    the ``exclude`` prefixes (the tool's own output, when it lives in the work
    tree), those ``.gitattributes`` files mark ``linguist-vendored`` or
    ``linguist-generated``, and those the steering file's ``exclude`` globs
    match. ``families`` are the ids of the family parents the store holds.

    With a ``cache``, a plan derived before from the same inputs (paths,
    exclusions, steering and attributes files, and this code) is taken from
    it, and a plan derived now is put in it.
    """
    raw_steering = snapshot.read_bytes(STEERING_FILE)
    steering = _steering_of(snapshot, raw_steering)
    exclude = tuple(exclude)
    prefixes = tuple(p.strip("/") + "/" for p in exclude if p.strip("/"))
    exact = frozenset(p.strip("/") for p in exclude)
    paths = snapshot.paths
    if not all(map(operator.lt, paths, paths[1:])):  # not strictly increasing
        paths = sorted(set(paths))
    texts = {path: snapshot.read_text(path) for path in attributes.attribute_files(paths)}
    key = plan_cache.key(paths, exclude, raw_steering, texts, families) if cache is not None else None
    if cache is not None and key is not None:
        found = plan_cache.decode(cache.get(key), paths)
        if found is not None:
            fresh, live, kept = found
            return Derived(fresh, live, kept, steering)
    globs = [glob_regex(p) for p in steering.exclude if p.strip()]
    marked = attributes.marked_paths(texts, texts.get) if texts else None

    def drop(path: str) -> bool:
        return any(rx.fullmatch(path) for rx in globs) or (marked is not None and marked(path))

    kept, by_dir = _by_directory(paths, prefixes, exact, drop if globs or marked else None)
    live = {path for files in by_dir.values() for path in files}
    fresh = _plan(kept, by_dir, steering, families)
    if cache is not None and key is not None:
        start = sum(1 for plan in fresh[:2] if plan.page_id in (OVERVIEW_ID, ARCHITECTURE_ID))
        cache.put(key, plan_cache.encode(fresh, (start, len(fresh) - len(steering.pages)), paths, kept))
    return Derived(fresh, live, kept, steering)
