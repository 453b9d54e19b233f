"""Cutting the sorted files of a large directory into parts that stay put.

A file starts a new part when the hash of its name falls below a threshold
(about one name in ``CUT_SPACING``), unless the file just before it did too.
A part still larger than the limit is cut again the same way with twice the
threshold, up to one name in two; past that (all but never), into even runs.

Cut points depend on the names alone, not on positions: one file added to a
directory changes only the part it falls in (which may split), and one file
removed changes only its part, or, when it started its part, merges what is
left of that part into the one before.  Every other part keeps its files.
"""

from __future__ import annotations

import hashlib

CUT_SPACING = 8
_SPAN = 1 << 64


def name_rank(path: str) -> int:
    """A fixed pseudo-random number for the file name of ``path``."""
    name = path.rpartition("/")[2].encode("utf-8", "surrogateescape")
    return int.from_bytes(hashlib.blake2b(name, digest_size=8).digest(), "big")


def _even(files: list[str], limit: int) -> list[list[str]]:
    count = -(-len(files) // limit)
    size = -(-len(files) // count)
    return [files[i : i + size] for i in range(0, len(files), size)]


def split(files: list[str], limit: int) -> list[list[str]]:
    """``files`` (sorted) in runs of at most ``limit`` files, cut where the
    names say (see the module text)."""
    if len(files) <= limit:
        return [files]
    ranks = {path: name_rank(path) for path in files}
    return _cut(files, limit, ranks, _SPAN // CUT_SPACING)


def _cut(files: list[str], limit: int, ranks: dict[str, int], threshold: int) -> list[list[str]]:
    if len(files) <= limit:
        return [files]
    if threshold >= _SPAN:
        return _even(files, limit)
    pieces: list[list[str]] = []
    current: list[str] = []
    previous_low = False
    for path in files:
        low = ranks[path] < threshold
        if current and low and not previous_low:
            pieces.append(current)
            current = []
        current.append(path)
        previous_low = low
    pieces.append(current)
    parts: list[list[str]] = []
    for piece in pieces:
        parts.extend(_cut(piece, limit, ranks, threshold * 2))
    return parts
