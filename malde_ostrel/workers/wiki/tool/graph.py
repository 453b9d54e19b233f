"""Which pages' files import or include which, and its diagram.

Imported names are matched to repository paths without reading anything
more: a relative name from the importing file's directory, else the paths
whose name without extension ends with the imported name (dots and ``::``
read as slashes), a package as its ``__init__`` or ``mod`` file, a Go import
as the directory it ends with. A name matching no path (the standard library,
a third-party package) is no edge.

The diagram is Graphviz ``dot`` laid out into SVG; without ``dot`` there is
none and the page shows the list alone.
"""

from __future__ import annotations

import posixpath
import shutil
import subprocess
from collections.abc import Iterable, Mapping, Sequence
from typing import Final

from malde_ostrel.workers.wiki.tool.facts import FileFacts
from malde_ostrel.workers.wiki.types import PagePlan

DOT_TIMEOUT: Final = 20.0
# More pages than this are drawn as the directories that hold them.
DIAGRAM_NODES: Final = 60
_EXTENSIONS: Final = (
    ".py", ".pyi", ".h", ".hpp", ".hh", ".c", ".cc", ".cpp", ".js", ".mjs", ".ts", ".tsx", ".jsx", ".go", ".rs",
    ".java",
)  # fmt: skip


def _stem(path: str) -> str:
    base, dot, ext = path.rpartition(".")
    return base if dot and "/" not in ext else path


class Resolver:
    """Imported names to repository paths."""

    def __init__(self, paths: Iterable[str]) -> None:
        self.paths = set(paths)
        # Every tail of every path's stem (``a/b/c`` gives ``c``, ``b/c``, ``a/b/c``) to its paths.
        self.tails: dict[str, list[str]] = {}
        self.dirs: dict[str, list[str]] = {}
        self._known: dict[tuple[str, str, str], list[str]] = {}
        for path in sorted(self.paths):
            steps = _stem(path).split("/")
            for index in range(len(steps)):
                self.tails.setdefault("/".join(steps[index:]), []).append(path)
            folder = steps[:-1]
            for index in range(len(folder)):
                self.dirs.setdefault("/".join(folder[index:]), []).append(path)

    def resolve(self, source: str, name: str, language: str) -> list[str]:
        if not name or len(name) > 300:
            return []
        here = posixpath.dirname(source)
        # A name that is not relative to its file resolves the same from every file.
        key = (here if name.startswith(".") or language in ("c", "cpp") else "", name, language)
        found = self._known.get(key)
        if found is None:
            found = self._known[key] = self._resolve(here, name, language)
        return found

    def _resolve(self, here: str, name: str, language: str) -> list[str]:
        if language in ("c", "cpp"):
            near = posixpath.normpath(posixpath.join(here, name))
            if near in self.paths:
                return [near]
            return self.tails.get(_stem(name), [])[:1] if "." in name.rpartition("/")[2] else []
        if name.startswith("."):
            if language == "python":
                level = len(name) - len(name.lstrip("."))
                base = posixpath.normpath(posixpath.join(here, *([".."] * (level - 1)))) if level > 1 else here
                rest = name[level:].replace(".", "/")
                target = posixpath.normpath(posixpath.join(base, rest)) if rest else base
            else:
                target = posixpath.normpath(posixpath.join(here, name))
            return self._near(_stem(target) if target.endswith(_EXTENSIONS) else target)
        if language == "go":
            steps = name.split("/")
            for index in range(len(steps)):
                found = self.dirs.get("/".join(steps[index:]))
                if found:
                    return found[:1]
            return []
        key = name.replace("::", "/").replace(".", "/") if language in ("python", "rust", "java") else name
        key = key.removeprefix("crate/").removeprefix("self/").removeprefix("super/")
        for candidate in (key, key.rpartition("/")[0]):
            if not candidate:
                continue
            found = (
                self.tails.get(candidate)
                or self.tails.get(candidate + "/__init__")
                or self.tails.get(candidate + "/mod")
            )
            if found:
                return found[:1]
        return []

    def _near(self, stem: str) -> list[str]:
        for tail in (stem, stem + "/__init__", stem + "/index", stem + "/mod"):
            for ext in _EXTENSIONS:
                if tail + ext in self.paths:
                    return [tail + ext]
        return []


def page_edges(plans: Sequence[PagePlan], facts: Mapping[str, FileFacts]) -> dict[str, list[str]]:
    """For each code page, the other pages whose files its files import, in plan order."""
    owner = {path: plan.page_id for plan in plans if not plan.children for path in plan.source_files}
    order = {plan.page_id: index for index, plan in enumerate(plans)}
    resolver = Resolver(owner)
    edges: dict[str, set[str]] = {}
    for path, page_id in owner.items():
        found = facts.get(path)
        if found is None or not found.imports:
            continue
        for name in found.imports:
            for target in resolver.resolve(path, name, found.language):
                other = owner.get(target)
                if other is not None and other != page_id:
                    edges.setdefault(page_id, set()).add(other)
    return {
        source: sorted(targets, key=order.__getitem__)
        for source, targets in sorted(edges.items(), key=lambda item: order[item[0]])
    }


def _quoted(text: str) -> str:
    return '"' + text.replace("\\", "\\\\").replace('"', '\\"').replace("\n", " ") + '"'


def _grouped(
    plans: Sequence[PagePlan], edges: Mapping[str, Sequence[str]]
) -> tuple[dict[str, tuple[str, str]], set[tuple[str, str]]]:
    """The diagram's nodes (id -> label, link) and edges: the pages, or, when
    there are more than ``DIAGRAM_NODES``, the directories holding them at
    the deepest level that keeps to that many."""
    by_id = {plan.page_id: plan for plan in plans}
    used = sorted({page for source, targets in edges.items() for page in (source, *targets) if page in by_id})
    if len(used) <= DIAGRAM_NODES:
        nodes = {page: (by_id[page].title or page, page + ".md") for page in used}
        return nodes, {(s, t) for s, targets in edges.items() for t in targets if s in nodes and t in nodes}
    folders = {page: posixpath.dirname(by_id[page].source_files[0]).split("/") for page in used}
    depth = max(len(steps) for steps in folders.values())
    while depth > 1 and len({tuple(steps[:depth]) for steps in folders.values()}) > DIAGRAM_NODES:
        depth -= 1
    group = {page: "/".join(steps[:depth]) or "." for page, steps in folders.items()}
    nodes = {name: (name + "/", "") for name in sorted(set(group.values()))[:DIAGRAM_NODES]}
    pairs = {(group[s], group[t]) for s, targets in edges.items() for t in targets if s in group and t in group}
    return nodes, {(a, b) for a, b in pairs if a != b and a in nodes and b in nodes}


def dot_source(plans: Sequence[PagePlan], edges: Mapping[str, Sequence[str]]) -> str:
    nodes, arrows = _grouped(plans, edges)
    lines = ["digraph pages {", "  rankdir=LR;", '  node [shape=box, fontname="sans-serif", fontsize=10];']
    for node, (label, url) in nodes.items():
        link = f", URL={_quoted(url)}" if url else ""
        lines.append(f"  {_quoted(node)} [label={_quoted(label)}{link}];")
    lines.extend(f"  {_quoted(a)} -> {_quoted(b)};" for a, b in sorted(arrows))
    lines.append("}")
    return "\n".join(lines) + "\n"


def render_svg(source: str) -> bytes | None:
    """The graph laid out by ``dot`` as SVG; None without ``dot`` or when it fails."""
    dot = shutil.which("dot")
    if dot is None:
        return None
    try:
        done = subprocess.run(
            [dot, "-Tsvg"], input=source.encode("utf-8"), capture_output=True, timeout=DOT_TIMEOUT, check=False
        )
    except (OSError, subprocess.TimeoutExpired):
        return None
    return done.stdout if done.returncode == 0 and done.stdout.lstrip().startswith(b"<") else None
