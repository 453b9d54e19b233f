"""One branch's wiki as a static site: index, pages, source views, search index.

Layout under the branch's directory::

    index.html              the page tree
    pages/<page>.html       one per planned page (and the diagrams they show)
    src/<blob id>.html      one per distinct cited file content
    search-index.js         the search index, loaded by assets/site.js on first use
    assets/                 style sheets and the script

Every output is made from inputs whose digest the manifest keeps, so
publishing again renders only the pages whose text, files, stale state or
history changed, and the source views of new cited contents.
"""

from __future__ import annotations

import concurrent.futures
import dataclasses
import functools
import hashlib
import json
import multiprocessing
import os
import re
from collections.abc import Callable, Iterable
from importlib import resources
from pathlib import Path
from typing import Any, Final, TypeVar

import jinja2
from markupsafe import Markup

from malde_ostrel.workers.wiki.tool.publish import highlight
from malde_ostrel.workers.wiki.tool.publish.model import SiteInput, SitePage
from malde_ostrel.workers.wiki.tool.publish.output import SiteDir, digest
from malde_ostrel.workers.wiki.tool.publish.render import Citation, Links, Renderer, cited_ranges, repo_path

PACKAGE: Final = "malde_ostrel.workers.wiki.tool.publish"
SEARCH_INDEX: Final = "search-index.js"
SEARCH_PREFIX: Final = "window.OSTREL_SEARCH_INDEX = "
# What each page text cites, by the text's digest: read again only for new texts.
CITES_CACHE: Final = ".ostrel-cites.json"
MAX_SVG_BYTES: Final = 4 * 1024 * 1024
_PLAIN_ID: Final = re.compile(r"[A-Za-z0-9][A-Za-z0-9._-]{0,120}")
# Pages go to a worker in tasks of this many; a pool works from POOL_FROM
# pages and views on, one process per core up to MAX_WORKERS.
PAGES_PER_TASK: Final = 48
POOL_FROM: Final = 64
MAX_WORKERS: Final = 4
T = TypeVar("T")
_SVG_NAME: Final = re.compile(r"[A-Za-z0-9][A-Za-z0-9._-]{0,120}\.svg")


@functools.cache
def _environment() -> jinja2.Environment:
    loader = jinja2.PackageLoader(PACKAGE, "templates")
    env = jinja2.Environment(loader=loader, autoescape=True, undefined=jinja2.StrictUndefined)
    env.policies["json.dumps_kwargs"] = {"sort_keys": True, "ensure_ascii": True}
    return env


@functools.cache
def fingerprint() -> str:
    """A digest of the publisher itself: templates, assets and code. A
    release that renders differently publishes everything again."""
    parts: list[str] = []
    base = resources.files(PACKAGE)
    for sub in ("", "templates", "assets"):
        folder = base.joinpath(sub) if sub else base
        for entry in sorted(folder.iterdir(), key=lambda e: e.name):
            if entry.is_file() and not entry.name.endswith(".pyc"):
                parts.append(entry.name + ":" + digest(entry.read_bytes().hex()))
    return digest(parts)


def page_file(page_id: str) -> str:
    """The file name of a page's HTML: its id when that is a plain name."""
    if _PLAIN_ID.fullmatch(page_id) and not page_id.endswith(".svg"):
        return f"{page_id}.html"
    return f"p-{digest(page_id)[:16]}.html"


@dataclasses.dataclass
class SourceView:
    path: str
    ranges: set[tuple[int, int]] = dataclasses.field(default_factory=set)
    key: str = ""  # the digest of what the view is made from


@dataclasses.dataclass
class Branches:
    """The branches of an all-branches site: this one and the others' directories."""

    current: str
    dirs: dict[str, str]  # branch -> directory under the site root


class BranchSite:
    """Publishes one branch's wiki into ``out`` (a ``SiteDir``) under ``prefix``."""

    def __init__(self, data: SiteInput, out: SiteDir, prefix: str = "", branches: Branches | None = None) -> None:
        self.data = data
        self.out = out
        self.prefix = prefix
        self.branches = branches
        self.by_id = {page.page_id: page for page in data.pages}
        for page in data.pages:
            for child in page.children:
                if child in self.by_id and self.by_id[child].parent is None and child != page.page_id:
                    self.by_id[child].parent = page.page_id
        self.env = _environment()
        self.body_digests: dict[str, str] = {}  # the sha-256 of each page's text, filled with ``cites``
        self.cites = self._cited_ranges()
        self.cited = self._cited_blobs()
        self.maker = PageMaker(data.branch, self.by_id, self.cited, self._branch_links())

    # ------------------------------------------------------------ inputs

    def _cited_ranges(self) -> dict[str, dict[str, list[int]]]:
        """Each page's ``cited_ranges``; those of a text the last publish saw
        come from its cache in the site (a wiki cites hundreds of thousands
        of lines: reading them all again would cost most of a republish)."""
        rel = f"{self.prefix}{CITES_CACHE}"
        old: Any = {}
        if rel in self.out.old:
            try:
                old = json.loads((self.out.root / rel).read_text("utf-8"))
            except (OSError, ValueError):
                old = {}
        if not isinstance(old, dict):
            old = {}
        kept: dict[str, dict[str, list[int]]] = {}
        by_page: dict[str, dict[str, list[int]]] = {}
        for page in self.data.pages:
            body = page.body or ""
            self.body_digests[page.page_id] = full = hashlib.sha256(body.encode("utf-8", "surrogateescape")).hexdigest()
            key = full[:32]
            ranges = old.get(key)
            if not _ranges_shape(ranges):
                ranges = cited_ranges(body)
            kept[key] = by_page[page.page_id] = ranges
        self.out.put(rel, json.dumps(kept, separators=(",", ":")))
        return by_page

    def _cited_blobs(self) -> dict[str, str]:
        """The blob id of every repository path some page cites."""
        paths: set[str] = set()
        for found in self.cites.values():
            for raw in found:
                rel = repo_path(raw)
                if rel is not None:
                    paths.add(rel)
        if not paths:
            return {}
        ids = self.data.blob_ids(sorted(paths))
        root = os.path.realpath(self.data.root)
        inside = functools.lru_cache(maxsize=None)(functools.partial(_inside, root))
        return {path: blob for path, blob in ids.items() if blob and inside(path)}

    def _svgs(self, page: SitePage) -> dict[str, Path]:
        """Diagrams the page's text names that lie beside the page bodies."""
        found: dict[str, Path] = {}
        if ".svg" not in (page.body or ""):
            return found
        for name in set(_SVG_NAME.findall(page.body or "")):
            path = self.data.pages_dir / name
            try:
                if not path.is_symlink() and path.is_file() and path.stat().st_size <= MAX_SVG_BYTES:
                    found[name] = path
            except OSError:
                continue
        return found

    def _page_key(self, page: SitePage, svgs: dict[str, Path]) -> str:
        linked = [page.parent, *page.children, *page.related, *(e.other for e in page.history)]
        titles = {p: self.by_id[p].title for p in linked if p and p in self.by_id}
        blobs = {raw: self.cited.get(repo_path(raw) or "") for raw in self.cites[page.page_id]}
        diagrams = {name: digest(path.read_bytes().hex()) for name, path in svgs.items()}
        ids = sorted(self.by_id) if "](" in (page.body or "") else []
        return digest(
            fingerprint(),
            self.data.branch,
            self._branch_links(),
            [getattr(page, field.name) for field in PAGE_FIELDS],
            None if page.body is None else self.body_digests[page.page_id],
            [vars(event) for event in page.history],
            titles,
            blobs,
            diagrams,
            ids,
        )

    def _branch_links(self) -> list[tuple[str, str]]:
        if self.branches is None:
            return []
        return sorted(self.branches.dirs.items())

    # ------------------------------------------------------------ output

    def publish(self) -> None:
        """Write the branch's site: changed pages, new source views, index, search index."""
        views = self._views()
        todo = {blob: view for blob, view in views.items() if not self.out.unchanged(self._view_rel(blob), view.key)}
        pages = self._pages_to_render()
        # Pages and source views are made in other processes when there are
        # many (one per core), and written here as they come.
        with Workers(self.maker, len(todo) + len(pages)) as workers:
            views_made = {
                blob: workers.submit(_make_view, blob, view.path, sorted(view.ranges), self.data.read(view.path))
                for blob, view in todo.items()
            }
            chunks = [pages[n : n + PAGES_PER_TASK] for n in range(0, len(pages), PAGES_PER_TASK)]
            made = [workers.submit(_make_pages, [(p.page_id, sorted(svgs), key) for p, svgs, key in c]) for c in chunks]
            for chunk, future in zip(chunks, made, strict=True):
                for (page, svgs, key), (html, entry) in zip(chunk, future.result(), strict=True):
                    self.out.write(f"{self.prefix}pages/{page_file(page.page_id)}", key, html)
                    for name, svg in svgs.items():
                        self.out.put(f"{self.prefix}pages/{name}", svg.read_bytes())
                    self.entries[page.page_id] = entry
            for blob, view in todo.items():
                self.out.write(self._view_rel(blob), view.key, views_made[blob].result())
        entries = [self.entries[page.page_id] for page in self.data.pages]
        self.out.put(f"{self.prefix}{SEARCH_INDEX}", SEARCH_PREFIX + json.dumps({"pages": entries}) + ";\n")
        self.out.put(f"{self.prefix}index.html", self._index())
        self.out.put(f"{self.prefix}assets/site.css", _asset("site.css"))
        self.out.put(f"{self.prefix}assets/site.js", _asset("site.js"))
        colours = f"{self.prefix}assets/pygments.css"
        if not self.out.unchanged(colours, fingerprint()):
            self.out.write(colours, fingerprint(), highlight.stylesheet())

    def _views(self) -> dict[str, SourceView]:
        """The source view of each cited file content, with the ranges cited in it."""
        views: dict[str, SourceView] = {}
        # Each path as written, resolved once: a wiki cites the same files many times.
        ranges_of: dict[str, set[tuple[int, int]] | None] = {}
        for page in self.data.pages:
            for raw, flat in self.cites[page.page_id].items():
                if raw not in ranges_of:
                    path = repo_path(raw)
                    blob = self.cited.get(path or "")
                    ranges_of[raw] = None
                    if path and blob:
                        view = views.setdefault(blob, SourceView(path))
                        view.path = min(view.path, path)
                        ranges_of[raw] = view.ranges
                ranges = ranges_of[raw]
                if ranges is not None:
                    ranges.update(zip(flat[::2], flat[1::2], strict=True))
        for view in views.values():
            view.key = digest(fingerprint(), self._branch_links(), view.path, sorted(view.ranges))
        return views

    def _view_rel(self, blob: str) -> str:
        return f"{self.prefix}src/{blob}.html"

    def _pages_to_render(self) -> list[tuple[SitePage, dict[str, Path], str]]:
        """The pages whose inputs changed, with their diagrams and input
        digests; the search entries of the others are kept."""
        search = self._previous_search()
        self.entries: dict[str, dict[str, Any]] = {}
        todo: list[tuple[SitePage, dict[str, Path], str]] = []
        for page in self.data.pages:
            svgs = self._svgs(page)
            key = self._page_key(page, svgs)
            rel = f"{self.prefix}pages/{page_file(page.page_id)}"
            entry = search.get(rel[len(self.prefix) :])
            if entry is not None and entry.get("k") == key and self.out.unchanged(rel, key):
                self.entries[page.page_id] = entry
                for name in svgs:
                    shown = f"{self.prefix}pages/{name}"
                    self.out.new.setdefault(shown, self.out.old.get(shown, ""))
            else:
                todo.append((page, svgs, key))
        return todo

    def _previous_search(self) -> dict[str, dict[str, Any]]:
        """The last publish's search entries by page file, to keep those of unchanged pages."""
        try:
            text = (self.out.root / self.prefix / SEARCH_INDEX).read_text("utf-8")
            data = json.loads(text[len(SEARCH_PREFIX) :].rstrip().rstrip(";"))
            return {str(e["u"]): e for e in data["pages"] if isinstance(e, dict) and "u" in e}
        except (OSError, ValueError, KeyError, TypeError):
            return {}

    def _index(self) -> str:
        top = [p for p in self.data.pages if p.parent is None]
        return self.env.get_template("index.html").render(
            **self.maker.common(""),
            commit=self.data.commit,
            top=top,
            parts=lambda page: [self.by_id[c] for c in page.children if c in self.by_id],
            page_file=page_file,
            pages=len(self.data.pages),
            written=sum(1 for p in self.data.pages if p.written),
            stale=sum(1 for p in self.data.pages if p.written and (p.to_write or p.stale_sections)),
        )


class PageMaker:
    """Makes the HTML of pages and source views from what they show; sent
    once to each worker process (the Markdown parser is made there)."""

    def __init__(
        self, branch: str, by_id: dict[str, SitePage], cited: dict[str, str], branches: list[tuple[str, str]]
    ) -> None:
        self.branch = branch
        self.by_id = by_id
        self.cited = cited
        self.branches = branches
        self._renderer: Renderer | None = None

    def __getstate__(self) -> dict[str, Any]:
        return {**vars(self), "_renderer": None}

    @property
    def renderer(self) -> Renderer:
        if self._renderer is None:
            self._renderer = Renderer()
        return self._renderer

    def common(self, root: str) -> dict[str, Any]:
        others = [(b, f"{root}../{d}/index.html") for b, d in self.branches]
        return {"root": root, "branch": self.branch, "branches": others, "search": True}

    def page(self, page_id: str, svgs: list[str], key: str) -> tuple[str, dict[str, Any]]:
        """A page's HTML and its search entry."""
        page = self.by_id[page_id]
        own = page_file(page.page_id)

        def cite(c: Citation) -> str | None:
            blob = self.cited.get(repo_path(c.path) or "")
            if blob is None:
                return None
            anchor = f"L{c.start}" if c.start == c.end else f"L{c.start}-L{c.end}"
            return f"../src/{blob}.html#{anchor}"

        def relative(href: str) -> str | None:
            target = href.partition("#")[0]
            name = target.removeprefix("./")
            if name in svgs:
                return name
            for suffix in (".md", ".html"):
                name = name.removesuffix(suffix)
            return page_file(name) if name in self.by_id else None

        def image(src: str) -> str | None:
            name = src.removeprefix("./")
            return name if name in svgs else None

        changed = {f for kind in ("modified", "removed", "added") for f in page.changed_files.get(kind, [])}
        rendered = None
        if page.body is not None:
            rendered = self.renderer.render(page.body, Links(cite, relative, image), page.stale_sections, changed)
        html = (
            _environment()
            .get_template("page.html")
            .render(
                **self.common("../"),
                page=page,
                body=Markup(rendered.html) if rendered else None,
                headings=[h for h in rendered.headings if h[0] <= 3] if rendered else [],
                parent=self.by_id.get(page.parent or ""),
                children=[self.by_id[c] for c in page.children if c in self.by_id],
                related=[self.by_id[r] for r in page.related if r in self.by_id],
                files=[(f, self._file_href(f)) for f in page.source_files],
                history=page.history,
                by_id=self.by_id,
                page_file=page_file,
            )
        )
        sections = [[s.heading, s.anchor, s.symbols, " ".join(s.words)] for s in rendered.sections] if rendered else []
        entry = {
            "u": f"pages/{own}",
            "t": page.title,
            "d": page.description,
            "i": page.page_id,
            "s": sections,
            "k": key,
        }
        return html, entry

    def _file_href(self, path: str) -> str | None:
        blob = self.cited.get(path)
        return f"../src/{blob}.html" if blob else None

    def source(self, blob: str, path: str, ranges: list[tuple[int, int]], data: bytes | None) -> str:
        """A source view's HTML: the file's lines, an anchor per cited range."""
        lines = None if data is None else highlight.source_lines(path, data)
        count = len(lines or [])
        starts: dict[int, list[tuple[int, int]]] = {}
        for start, end in ranges:
            if start < end and 1 <= start <= count:
                starts.setdefault(start, []).append((start, end))
        # Each range has an anchor before its first line; a line's place among
        # the code's children counts the anchors up to it (the CSS highlight).
        before: list[int] = [0]
        for number in range(1, count + 1):
            before.append(before[-1] + len(starts.get(number, ())))
        rows: list[str] = []
        marks: list[str] = []
        for number, line in enumerate(lines or [], start=1):
            for start, end in starts.get(number, []):
                last = min(end, count)
                rows.append(f'<span class="range" id="L{start}-L{end}"></span>')
                marks.append(f"#L{start}-L{end}:target ~ .line:nth-child(-n+{last + before[last]})")
            rows.append(f'<span class="line" id="L{number}"><a class="n" href="#L{number}">{number}</a>{line}\n</span>')
        # Citations past the end of the file (or backwards, or of a file not
        # shown) still land: on an anchor after the code.
        made = {f"L{start}-L{end}" for found in starts.values() for start, end in found}
        ends = sorted(
            {anchor for s, e in ranges if (anchor := f"L{s}" if s == e else f"L{s}-L{e}") not in made}
            - {f"L{n}" for n in range(1, count + 1)}
        )
        return (
            _environment()
            .get_template("source.html")
            .render(
                **self.common("../"),
                path=path,
                blob=blob,
                code=Markup("".join(rows)) if lines is not None else None,
                marks=Markup(",\n".join(marks)),
                ends=ends,
                line_count=len(lines or []),
            )
        )


_MAKER: PageMaker | None = None  # a worker process's


def _start_worker(maker: PageMaker) -> None:
    global _MAKER
    _MAKER = maker


def _make_pages(pages: list[tuple[str, list[str], str]]) -> list[tuple[str, dict[str, Any]]]:
    assert _MAKER is not None
    return [_MAKER.page(page_id, svgs, key) for page_id, svgs, key in pages]


def _make_view(blob: str, path: str, ranges: list[tuple[int, int]], data: bytes | None) -> str:
    assert _MAKER is not None
    return _MAKER.source(blob, path, ranges, data)


class Workers:
    """Runs page and view making in a pool of processes (one per core, spawned:
    the publishing process may hold threads) when there is much to make,
    else here."""

    def __init__(self, maker: PageMaker, count: int) -> None:
        self._pool: concurrent.futures.ProcessPoolExecutor | None = None
        cores = os.cpu_count() or 1
        if count >= POOL_FROM and cores > 1:
            self._pool = concurrent.futures.ProcessPoolExecutor(
                max_workers=min(cores, MAX_WORKERS),
                mp_context=multiprocessing.get_context("spawn"),
                initializer=_start_worker,
                initargs=(maker,),
            )
        else:
            _start_worker(maker)

    def submit(self, fn: Callable[..., T], *args: Any) -> concurrent.futures.Future[T]:
        if self._pool is not None:
            return self._pool.submit(fn, *args)
        done: concurrent.futures.Future[T] = concurrent.futures.Future()
        done.set_result(fn(*args))
        return done

    def __enter__(self) -> Workers:
        return self

    def __exit__(self, *exc: object) -> None:
        if self._pool is not None:
            self._pool.shutdown(cancel_futures=True)


# What a page's HTML is made from, its text and history aside (the text is
# hashed as bytes, the history's records as their fields).
PAGE_FIELDS: Final = tuple(f for f in dataclasses.fields(SitePage) if f.name not in ("body", "history"))


def _inside(root: str, rel: str) -> bool:
    """The repository path, links followed, stays inside ``root`` (a real
    path); a directory's real path is looked up once."""
    head, _, name = rel.rpartition("/")
    folder = _real_dir(root, head) if head else root
    if not folder.startswith(root + os.sep) and folder != root:
        return False
    path = os.path.join(folder, name)
    return not os.path.islink(path) or os.path.realpath(path).startswith(root + os.sep)


@functools.lru_cache(maxsize=4096)
def _real_dir(root: str, rel: str) -> str:
    return os.path.realpath(os.path.join(root, rel))


def _asset(name: str) -> bytes:
    return resources.files(PACKAGE).joinpath("assets", name).read_bytes()


def branch_dir(branch: str, taken: Iterable[str] = ()) -> str:
    """A directory name for a branch: its name with "/" and odd characters made plain."""
    base = re.sub(r"[^A-Za-z0-9._-]", "_", branch.replace("/", "__")).lstrip(".") or "branch"
    name, n = base, 1
    while name in set(taken):
        n += 1
        name = f"{base}-{n}"
    return name


def branch_list(dirs: dict[str, str]) -> str:
    """The top page of an all-branches site."""
    return (
        _environment()
        .get_template("branches.html")
        .render(
            root="",
            branch="all branches",
            branches=[(b, f"{d}/index.html") for b, d in sorted(dirs.items())],
            search=False,
        )
    )


def _ranges_shape(value: Any) -> bool:
    """True when a cached entry has the shape ``cited_ranges`` gives."""
    return isinstance(value, dict) and all(
        isinstance(flat, list) and len(flat) % 2 == 0 and all(type(n) is int for n in flat) for flat in value.values()
    )
