"""Symbols and imports of C, C++, JavaScript, TypeScript, Go, Rust and Java,
read through tree-sitter.

One table names, for each language, its grammar wheel, the tags queries it
starts from (each wheel's own ``queries/tags.scm``: the definitions and their
names) and a query of its imports. A language's parser and queries are made
on first use, once per process; one extractor serves every language.
"""

from __future__ import annotations

import importlib
from collections.abc import Callable
from importlib import resources
from typing import Any, NamedTuple

import tree_sitter

# A symbol as the extractor sees it: kind, name, signature, doc sentence, first and last line.
Found = tuple[str, str, str, str, int, int]

SIGNATURE_MAX = 160


class Grammar(NamedTuple):
    """Where a language's grammar and tags queries come from."""

    module: str
    # The function of the module that returns the grammar.
    entry: str
    # Wheels whose ``queries/tags.scm`` are read, in order (TypeScript builds on JavaScript's).
    tags_from: tuple[str, ...]
    # Import statements: ``@path`` is the imported name.
    imports: str


_C_INCLUDES = "(preproc_include path: (_) @path)"
_JS_IMPORTS = """
(import_statement source: (string) @path)
(export_statement source: (string) @path)
((call_expression function: (identifier) @fn arguments: (arguments (string) @path)) (#eq? @fn "require"))
"""

GRAMMARS: dict[str, Grammar] = {
    "c": Grammar("tree_sitter_c", "language", ("tree_sitter_c",), _C_INCLUDES),
    "cpp": Grammar("tree_sitter_cpp", "language", ("tree_sitter_cpp",), _C_INCLUDES),
    "javascript": Grammar("tree_sitter_javascript", "language", ("tree_sitter_javascript",), _JS_IMPORTS),
    "typescript": Grammar(
        "tree_sitter_typescript",
        "language_typescript",
        ("tree_sitter_javascript", "tree_sitter_typescript"),
        _JS_IMPORTS,
    ),
    "tsx": Grammar(
        "tree_sitter_typescript", "language_tsx", ("tree_sitter_javascript", "tree_sitter_typescript"), _JS_IMPORTS
    ),
    "go": Grammar("tree_sitter_go", "language", ("tree_sitter_go",), "(import_spec path: (_) @path)"),
    "rust": Grammar(
        "tree_sitter_rust",
        "language",
        ("tree_sitter_rust",),
        "(use_declaration argument: (_) @path)\n(mod_item name: (identifier) @path !body)",
    ),
    "java": Grammar("tree_sitter_java", "language", ("tree_sitter_java",), "(import_declaration (_) @path)"),
}

# The definition's kind from its capture name (``definition.function`` -> ``function``).
_CAPTURE_PREFIX = "definition."
# Nodes that name a definition without spanning it: the extent climbs to the declaration.
_DECLARATOR_PARENTS = frozenset(
    {
        "function_declarator", "pointer_declarator", "reference_declarator", "parenthesized_declarator",
        "function_definition", "declaration", "field_declaration", "template_declaration",
    }
)  # fmt: skip
_OUTERMOST = frozenset({"function_definition", "declaration", "field_declaration", "template_declaration"})
# Definitions whose members are named ``Outer.member``.
_CONTAINERS = frozenset({"class", "interface", "module", "type"})


class _Loaded(NamedTuple):
    parser: tree_sitter.Parser
    tags: tree_sitter.Query
    imports: tree_sitter.Query


_loaded: dict[str, _Loaded] = {}


def _tags_source(wheel: str) -> str:
    return resources.files(wheel).joinpath("queries", "tags.scm").read_text(encoding="utf-8")


def _load(language: str) -> _Loaded:
    loaded = _loaded.get(language)
    if loaded is None:
        grammar = GRAMMARS[language]
        entry: Callable[[], Any] = getattr(importlib.import_module(grammar.module), grammar.entry)
        lang = tree_sitter.Language(entry())
        tags = "\n".join(_tags_source(wheel) for wheel in grammar.tags_from)
        loaded = _Loaded(
            tree_sitter.Parser(lang), tree_sitter.Query(lang, tags), tree_sitter.Query(lang, grammar.imports)
        )
        _loaded[language] = loaded
    return loaded


def _text(source: bytes, start: int, end: int) -> str:
    return source[start:end].decode("utf-8", "replace")


def _extent(node: tree_sitter.Node) -> tree_sitter.Node:
    """The node spanning a whole definition: a C declarator climbs to its declaration."""
    while node.parent is not None and node.parent.type in _DECLARATOR_PARENTS:
        node = node.parent
        if node.type in _OUTERMOST and (node.parent is None or node.parent.type != "template_declaration"):
            break
    return node


def _in_body(node: tree_sitter.Node) -> bool:
    """Whether a C or C++ definition lies inside a function's body."""
    parent = node.parent
    while parent is not None:
        if parent.type == "compound_statement":
            return True
        parent = parent.parent
    return False


def _signature(source: bytes, node: tree_sitter.Node) -> str:
    """The definition's text up to its body, on one line."""
    body = node.child_by_field_name("body")
    if body is None:
        # A template's body is its declaration's.
        inner = (child.child_by_field_name("body") for child in node.named_children)
        body = next((found for found in inner if found is not None), None)
    end = body.start_byte if body is not None else node.end_byte
    words = _text(source, node.start_byte, end).split()
    text = " ".join(words).rstrip("{:= ").strip()
    return text if len(text) <= SIGNATURE_MAX else text[: SIGNATURE_MAX - 1] + "…"


def _comment_text(raw: str) -> str:
    """A comment without its markers: ``//``, ``///``, ``/*``, ``*/`` and leading ``*``."""
    lines = []
    for line in raw.splitlines():
        line = line.strip()
        for opener in ("///", "//!", "//", "/**", "/*!", "/*"):
            if line.startswith(opener):
                line = line[len(opener) :]
                break
        if line.endswith("*/"):
            line = line[:-2]
        lines.append(line.strip().lstrip("*").strip())
    return "\n".join(lines)


def _doc(source: bytes, node: tree_sitter.Node) -> str:
    """The comment lines right above a definition, markers removed."""
    comments: list[str] = []
    row = node.start_point.row
    sibling = node.prev_sibling
    while sibling is not None and "comment" in sibling.type and sibling.end_point.row >= row - 1:
        comments.append(_text(source, sibling.start_byte, sibling.end_byte))
        row = sibling.start_point.row
        sibling = sibling.prev_sibling
    return _comment_text("\n".join(reversed(comments)))


def _public(language: str, name: str, node: tree_sitter.Node, source: bytes) -> bool:
    if language == "go":
        return name[:1].isupper()
    if language == "rust":
        if any(child.type == "visibility_modifier" for child in node.children):
            return True
        # A trait's items, and those of a trait's implementation, are the trait's.
        holder = node.parent.parent if node.parent is not None else None
        return holder is not None and (
            holder.type == "trait_item"
            or (holder.type == "impl_item" and holder.child_by_field_name("trait") is not None)
        )
    head = _text(source, node.start_byte, min(node.end_byte, node.start_byte + 200)).split()
    if language in ("c", "cpp"):
        return "static" not in head[:3]
    if language == "java":
        return "private" not in head[:4]
    return True


# Words no C file holds outside comments and strings, but most C++ headers do.
_CPP_WORDS = (b"namespace ", b"template <", b"template<", b"::")


def extract(language: str, source: bytes) -> tuple[list[Found], list[str], str]:
    """The public definitions of a file, in line order, its imported names
    and its opening comment."""
    if language == "c" and any(word in source for word in _CPP_WORDS):
        language = "cpp"  # a header with C++'s own keywords: not worth a C parse first
    loaded = _load(language)
    root = loaded.parser.parse(source).root_node
    if language == "c" and root.has_error:
        # A header the C grammar cannot read is most often C++ (``.h`` serves both).
        language, loaded = "cpp", _load("cpp")
        root = loaded.parser.parse(source).root_node
    best: dict[tuple[int, int], tuple[int, str, tree_sitter.Node, str]] = {}
    for pattern, captures in tree_sitter.QueryCursor(loaded.tags).matches(root):
        names = captures.get("name") or []
        for capture, nodes in captures.items():
            if not capture.startswith(_CAPTURE_PREFIX) or not names or not nodes:
                continue
            node = _extent(nodes[0])
            if language in ("c", "cpp") and _in_body(node):
                continue  # a local declaration (``dispatcher lt(time);`` reads like a function's)
            key = (node.start_byte, node.end_byte)
            if key not in best or best[key][0] > pattern:
                name = _text(source, names[0].start_byte, names[0].end_byte)
                best[key] = (pattern, capture[len(_CAPTURE_PREFIX) :], node, name)
    found: list[Found] = []
    # Enclosing containers, innermost last: (end byte, name).
    stack: list[tuple[int, str]] = []
    for (start, end), (_pattern, kind, node, name) in sorted(best.items(), key=lambda item: (item[0][0], -item[0][1])):
        while stack and stack[-1][0] <= start:
            stack.pop()
        qualified = f"{stack[-1][1]}.{name}" if stack else name
        if kind in _CONTAINERS:
            stack.append((end, qualified))
        if not _public(language, name, node, source):
            continue
        found.append(
            (
                kind,
                qualified,
                _signature(source, node),
                _doc(source, node),
                node.start_point.row + 1,
                node.end_point.row + 1,
            )
        )
    imports = []
    for _pattern, captures in tree_sitter.QueryCursor(loaded.imports).matches(root):
        for node in captures.get("path") or []:
            imports.append(_text(source, node.start_byte, node.end_byte).strip("\"'<>` "))
    opening = ""
    first = root.children[0] if root.children else None
    if first is not None and "comment" in first.type:
        opening = _comment_text(_text(source, first.start_byte, first.end_byte))
    return found, imports, opening
