"""What the code says about itself: each file's symbols, imports and opening text.

Python is read through the standard ``ast``; C, C++, JavaScript, TypeScript,
Go, Rust and Java through tree-sitter (``languages``); other files get their
line count only. A symbol carries its kind, name, signature, the first
sentence of its docstring or doc comment, and its exact first and last line.

Facts are kept in the store by git blob id (and language): a file whose
content did not change is never read again, across builds and across
identical copies of a file. The table is made by the first write, so a store
without it simply holds no facts yet.
"""

from __future__ import annotations

import ast
import json
import os
import warnings
from collections.abc import Callable, Iterable, Mapping
from concurrent.futures import ProcessPoolExecutor
from multiprocessing import get_context
from typing import Final, NamedTuple

from malde_ostrel.workers.wiki.tool.store import Database

# Raise whenever what the extractors find changes: older facts are read again.
FACTS_VERSION: Final = 3
# A file larger than this is listed, not parsed.
MAX_PARSE_BYTES: Final = 2 << 20
SENTENCE_MAX: Final = 200
# Below this many files to read, one process is quicker than a pool.
POOL_FROM: Final = 400

_TABLE = "CREATE TABLE IF NOT EXISTS symbol_facts (key TEXT PRIMARY KEY, facts TEXT NOT NULL)"

LANGUAGES: Final[dict[str, str]] = {
    ".py": "python", ".pyi": "python",
    ".c": "c", ".h": "c",
    ".cc": "cpp", ".cpp": "cpp", ".cxx": "cpp", ".hh": "cpp", ".hpp": "cpp", ".hxx": "cpp",
    ".js": "javascript", ".jsx": "javascript", ".mjs": "javascript", ".cjs": "javascript",
    ".ts": "typescript", ".mts": "typescript", ".cts": "typescript", ".tsx": "tsx",
    ".go": "go", ".rs": "rust", ".java": "java",
}  # fmt: skip


class Symbol(NamedTuple):
    kind: str
    name: str
    signature: str
    doc: str
    line_start: int
    line_end: int


class FileFacts(NamedTuple):
    language: str  # "" for a file no extractor reads
    lines: int
    symbols: list[Symbol]
    imports: list[str]
    # The module docstring or the file's opening comment, first sentence.
    summary: str
    # The line range the summary came from (0, 0 when there is none).
    summary_lines: tuple[int, int]


def language_of(path: str) -> str:
    name = path.rpartition("/")[2]
    dot = name.rfind(".")
    return LANGUAGES.get(name[dot:].lower(), "") if dot > 0 else ""


def first_sentence(text: str) -> str:
    """The first sentence of a docstring or comment, on one line, bounded."""
    paragraph = text.strip().split("\n\n", 1)[0]
    words = " ".join(paragraph.split())
    for index, char in enumerate(words):
        if char in ".!?" and (index + 1 == len(words) or words[index + 1] == " "):
            words = words[: index + 1]
            break
    return words if len(words) <= SENTENCE_MAX else words[: SENTENCE_MAX - 1] + "…"


def _line_count(data: bytes) -> int:
    return data.count(b"\n") + (not data.endswith(b"\n") and data != b"")


# ---------------------------------------------------------------- Python

# Statement fields that hold statements.
_BLOCKS: Final = ("body", "orelse", "finalbody")


def _python_signature(node: ast.AST) -> str:
    if isinstance(node, ast.ClassDef):
        bases = ", ".join(ast.unparse(base) for base in node.bases)
        return f"class {node.name}({bases})" if bases else f"class {node.name}"
    assert isinstance(node, ast.FunctionDef | ast.AsyncFunctionDef)
    prefix = "async def" if isinstance(node, ast.AsyncFunctionDef) else "def"
    returns = f" -> {ast.unparse(node.returns)}" if node.returns is not None else ""
    text = f"{prefix} {node.name}({ast.unparse(node.args)}){returns}"
    return text if len(text) <= 160 else text[:159] + "…"


def _python(data: bytes) -> FileFacts:
    lines = _line_count(data)
    try:
        with warnings.catch_warnings():
            warnings.simplefilter("ignore")  # the file's own invalid escapes and the like are not ours to tell
            tree = ast.parse(data)
    except (SyntaxError, ValueError, MemoryError, RecursionError):
        return FileFacts("python", lines, [], [], "", (0, 0))
    symbols: list[Symbol] = []

    def visit(body: list[ast.stmt], outer: str) -> None:
        for node in body:
            if not isinstance(node, ast.FunctionDef | ast.AsyncFunctionDef | ast.ClassDef):
                continue
            if node.name.startswith("_") and not (node.name.startswith("__") and node.name.endswith("__")):
                continue
            if isinstance(node, ast.ClassDef):
                kind = "class"
            else:
                kind = "method" if outer else "function"
            name = f"{outer}.{node.name}" if outer else node.name
            doc = ast.get_docstring(node, clean=True) or ""
            end = node.end_lineno or node.lineno
            symbols.append(Symbol(kind, name, _python_signature(node), first_sentence(doc), node.lineno, end))
            if isinstance(node, ast.ClassDef):
                visit(node.body, name)

    visit(tree.body, "")
    imports: list[str] = []
    # Statements only, at any depth: expressions hold no import statement.
    pending: list[ast.stmt] = list(tree.body)
    while pending:
        node = pending.pop()
        if isinstance(node, ast.Import):
            imports.extend(alias.name for alias in node.names)
        elif isinstance(node, ast.ImportFrom):
            base = "." * node.level + (node.module or "")
            imports.append(base)
            imports.extend(f"{base}.{alias.name}" if node.module else base + alias.name for alias in node.names)
        else:
            for name in _BLOCKS:
                block = getattr(node, name, None)
                if block:
                    pending.extend(block)
            for handler in getattr(node, "handlers", None) or ():
                pending.extend(handler.body)
            for case in getattr(node, "cases", None) or ():
                pending.extend(case.body)
    imports.reverse()
    summary, where = "", (0, 0)
    first = tree.body[0] if tree.body else None
    if isinstance(first, ast.Expr) and isinstance(first.value, ast.Constant) and isinstance(first.value.value, str):
        summary = first_sentence(ast.get_docstring(tree, clean=True) or "")
        where = (first.lineno, first.end_lineno or first.lineno)
    return FileFacts("python", lines, symbols, imports, summary, where)


# ---------------------------------------------------------------- any file


def extract(path: str, data: bytes) -> FileFacts:
    """The facts of one file's content."""
    language = language_of(path)
    lines = _line_count(data)
    if not language or len(data) > MAX_PARSE_BYTES or b"\0" in data[:8192]:
        return FileFacts("", lines, [], [], "", (0, 0))
    if language == "python":
        return _python(data)
    from malde_ostrel.workers.wiki.tool import languages

    found, imports, opening = languages.extract(language, data)
    symbols = [Symbol(kind, name, sig, first_sentence(doc), a, b) for kind, name, sig, doc, a, b in found]
    summary = first_sentence(opening)
    where = (1, max(1, opening.count("\n") + 1)) if summary else (0, 0)
    return FileFacts(language, lines, symbols, imports, summary, where)


def _encode(facts: FileFacts) -> str:
    return json.dumps(
        [facts.language, facts.lines, [list(s) for s in facts.symbols], facts.imports, facts.summary,
         list(facts.summary_lines)],
        ensure_ascii=False, separators=(",", ":"),
    )  # fmt: skip


def _decode(text: str) -> FileFacts | None:
    try:
        language, lines, symbols, imports, summary, where = json.loads(text)
        return FileFacts(
            str(language), int(lines), [Symbol(*s) for s in symbols], list(imports), str(summary), (where[0], where[1])
        )
    except (ValueError, TypeError):
        return None


def _extract_pair(item: tuple[str, bytes]) -> FileFacts:
    return extract(*item)


class FactsCache:
    """Facts of file contents kept in the store, by blob id and language."""

    def __init__(self, db: Database) -> None:
        self.db = db
        self.new: dict[str, FileFacts] = {}  # found this run, written by ``keep``

    @staticmethod
    def key(path: str, blob: str) -> str:
        return f"{FACTS_VERSION}:{language_of(path)}:{blob}"

    def lookup(self, keys: Iterable[str]) -> dict[str, FileFacts]:
        wanted = sorted(set(keys))
        known = self.db.execute("SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = 'symbol_facts'")
        if known.fetchone() is None or not wanted:
            return {}
        found: dict[str, FileFacts] = {}
        for start in range(0, len(wanted), 500):
            chunk = wanted[start : start + 500]
            rows = self.db.execute(
                "SELECT key, facts FROM symbol_facts WHERE key IN (" + ",".join("?" * len(chunk)) + ")", chunk
            )
            for key, text in rows:
                facts = _decode(text)
                if facts is not None:
                    found[key] = facts
        return found

    def keep(self) -> None:
        """Write the facts found this run (inside the caller's transaction)."""
        if not self.new:
            return
        self.db.execute(_TABLE)
        for key, facts in self.new.items():
            self.db.execute("INSERT OR REPLACE INTO symbol_facts (key, facts) VALUES (?, ?)", (key, _encode(facts)))
        self.new.clear()


def gather(
    paths: Iterable[str],
    blobs: Mapping[str, str | None],
    read: Callable[[str], bytes | None],
    cache: FactsCache,
    *,
    parse: Callable[[str, bytes], FileFacts] | None = None,
    progress: Callable[[int, int], None] | None = None,
) -> dict[str, FileFacts]:
    """The facts of each readable path: from the cache when its blob is
    known there, else parsed (once per blob), and remembered in ``cache.new``."""
    wanted = [path for path in dict.fromkeys(paths) if blobs.get(path)]
    keys = {path: cache.key(path, str(blobs[path])) for path in wanted}
    known = cache.lookup(keys.values())
    known.update(cache.new)
    todo: dict[str, str] = {}  # key -> a path holding it
    for path in wanted:
        if keys[path] not in known:
            todo.setdefault(keys[path], path)
    contents = [(key, path, read(path)) for key, path in todo.items()]
    readable = [(key, path, data) for key, path, data in contents if data is not None]
    if parse is None and len(readable) >= POOL_FROM and (os.cpu_count() or 1) > 1:
        workers = min(os.cpu_count() or 1, 4)
        with ProcessPoolExecutor(workers, mp_context=get_context("spawn")) as pool:
            results = []
            for found in pool.map(_extract_pair, [(p, d) for _k, p, d in readable], chunksize=64):
                results.append(found)
                if progress is not None:
                    progress(len(results), len(readable))
    else:
        one = parse or extract
        results = []
        for _key, path, data in readable:
            results.append(one(path, data))
            if progress is not None:
                progress(len(results), len(readable))
    for (key, _path, _data), facts in zip(readable, results, strict=True):
        known[key] = facts
        cache.new[key] = facts
    return {path: known[keys[path]] for path in wanted if keys[path] in known}
