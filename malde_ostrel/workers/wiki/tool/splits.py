"""Cutting the sorted files of a large directory into parts that stay put.

A file starts a new part when the hash of its name falls below a threshold
(about one name in ``CUT_SPACING``), unless one of the ``CUT_GAP`` files just
before it did too, which keeps most parts from being tiny.  A part still
larger than the limit is cut again the same way with twice the threshold, up
to one name in two; past that (all but never), into even runs.

Cut points depend on the names alone, not on positions.  One file added or
removed changes the part it falls in and, at times, the parts around it up
to the next top-level cut (when a cut comes or goes with the file, or a run
grows past the limit or back under it); the parts beyond stay as they are.
On random directories of 13 to 150 files about one addition in thirteen and
one removal in five touch more than one part, where cutting by position
moves nearly every later part.
"""

from __future__ import annotations

import functools

from malde_ostrel.workers.wiki.repo_facts import blake2b

CUT_SPACING = 8
CUT_GAP = 2
_SPAN = 1 << 64


def name_rank(path: str) -> int:
    """A fixed pseudo-random number for the file name of ``path``."""
    return _rank(path.rpartition("/")[2])


# Names repeat across directories (__init__.py, README.md): each is hashed once.
@functools.lru_cache(maxsize=1 << 16)
def _rank(name: str) -> int:
    return int.from_bytes(blake2b(name.encode("utf-8", "surrogateescape"), digest_size=8).digest(), "big")


def _even(files: list[str], limit: int) -> list[list[str]]:
    count = -(-len(files) // limit)
    size = -(-len(files) // count)
    return [files[i : i + size] for i in range(0, len(files), size)]


def split(files: list[str], limit: int, *, parts: bool = False) -> list[list[str]]:
    """``files`` (sorted) in runs of at most ``limit`` files, cut where the
    names say (see the module text). With ``parts``, a directory that fits
    the limit is still cut in two or more runs, at the names that cut it
    when it was larger (a family kept at a smaller size)."""
    if len(files) <= limit and not (parts and len(files) > 1):
        return [files]
    ranks = {path: name_rank(path) for path in files}
    return _cut(files, min(limit, len(files) - 1), ranks, _SPAN // CUT_SPACING)


def _cut(files: list[str], limit: int, ranks: dict[str, int], threshold: int) -> list[list[str]]:
    if len(files) <= limit:
        return [files]
    if threshold >= _SPAN:
        return _even(files, limit)
    pieces: list[list[str]] = []
    current: list[str] = []
    since_low = CUT_GAP  # files since the last one below the threshold
    for path in files:
        low = ranks[path] < threshold
        if current and low and since_low >= CUT_GAP:
            pieces.append(current)
            current = []
        current.append(path)
        since_low = 0 if low else since_low + 1
    pieces.append(current)
    parts: list[list[str]] = []
    for piece in pieces:
        parts.extend(_cut(piece, limit, ranks, threshold * 2))
    return parts
