"""Path normalisation and content hashes of repository files."""

from __future__ import annotations

import hashlib
import pathlib
import posixpath

_DIGITS = 16


def _norm(path: str) -> str:
    """A repository path in canonical form: "/" separators, no "." or
    ".." steps where resolvable, no leading "./" or "/"; "." for the root."""
    text = posixpath.normpath(path.replace("\\", "/"))
    while text.startswith("./"):
        text = text[2:]
    text = text.lstrip("/")
    return text or "."


def _text_hash(text: str) -> str:
    """Short SHA-256 digest of a text (lone surrogates are hashed as-is)."""
    data = text.encode("utf-8", "surrogatepass")
    return hashlib.sha256(data).hexdigest()[:_DIGITS]


def file_hash(path: pathlib.Path) -> str | None:
    """Short SHA-256 digest of a file's bytes, None for a missing file."""
    try:
        data = path.read_bytes()
    except FileNotFoundError:
        return None
    return hashlib.sha256(data).hexdigest()[:_DIGITS]
