"""Path normalisation and content hashes of repository files.

The content hash of a file is git's blob id of its bytes: the object id
git itself gives the file, so an unchanged tracked file's hash can be read
from git's index or a commit's tree instead of from the file.
"""

from __future__ import annotations

import pathlib
import posixpath

# hashlib loads the OpenSSL library when imported, a few milliseconds of every
# start: it is imported where a hash needs it.  blake2b, which every plan needs
# (see ``plan_cache``), is hashlib's own built-in one, taken from where hashlib
# takes it.
try:
    from _blake2 import blake2b as blake2b
except ImportError:  # an interpreter built without it
    from hashlib import blake2b as blake2b

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
    import hashlib

    data = text.encode("utf-8", "surrogatepass")
    return hashlib.sha256(data).hexdigest()[:_DIGITS]


def blob_id(data: bytes, algorithm: str = "sha1") -> str:
    """git's object id of a blob holding ``data`` (``algorithm``: "sha1" or "sha256")."""
    import hashlib

    digest = hashlib.new(algorithm, b"blob %d\0" % len(data), usedforsecurity=False)
    digest.update(data)
    return digest.hexdigest()


def file_hash(path: pathlib.Path) -> str | None:
    """The content hash of a file (git's blob id of its bytes), None for a missing file."""
    try:
        data = path.read_bytes()
    except FileNotFoundError:
        return None
    return blob_id(data)
