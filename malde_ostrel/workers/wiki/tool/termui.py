"""Output that suits a terminal: tables cut to its width, a progress bar.

Everything here holds back when the output is not a terminal: a pipe or a
file gets full text and no progress bar, so scripts see every character.
"""

from __future__ import annotations

import os
import sys
import time
from collections.abc import Callable, Sequence
from typing import TextIO

ELLIPSIS = "…"
SEPARATOR = "  "
# A truncated column keeps at least its header and this many characters.
MIN_SHRUNK = 12
# Seconds of work before a progress bar shows, and between two redraws.
PROGRESS_DELAY = 1.0
PROGRESS_EVERY = 0.1
BAR_CELLS = 30


def terminal_width(stream: TextIO) -> int | None:
    """The column count of the terminal ``stream`` writes to; None when it
    is not a terminal (a pipe, a file, a closed stream).  ``$COLUMNS``, when
    set to a positive number, wins as it does for ``shutil``."""
    try:
        if not stream.isatty():
            return None
    except (AttributeError, OSError, ValueError):
        return None
    columns = os.environ.get("COLUMNS", "")
    if columns.isdigit() and int(columns) > 0:
        return int(columns)
    try:
        width = os.get_terminal_size(stream.fileno()).columns
    except (AttributeError, OSError, ValueError):
        return None
    return width if width > 0 else None


def _cut(cell: str, width: int) -> str:
    return cell if len(cell) <= width else cell[: max(width - 1, 0)] + ELLIPSIS


def fit_table(header: list[str], rows: list[list[str]], width: int | None, *, shrink: Sequence[int]) -> list[str]:
    """The lines of a table, columns apart by two spaces, trailing blanks
    stripped.  When the table is wider than ``width``, the columns of
    ``shrink`` are cut with an ellipsis, in that order, each down to
    ``MIN_SHRUNK`` characters (or its header); the other columns keep their
    text.  ``width`` None means no limit."""
    table = [header, *rows]
    full = [max(map(len, column)) for column in zip(*table, strict=True)]
    widths = list(full)
    if width is not None:
        excess = sum(widths) + len(SEPARATOR) * (len(widths) - 1) - width
        for column in shrink:
            if excess <= 0:
                break
            floor = min(widths[column], max(MIN_SHRUNK, len(header[column])))
            cut = min(excess, widths[column] - floor)
            widths[column] -= cut
            excess -= cut
    shrunk = [index for index, w in enumerate(widths) if w < full[index]]
    # Each cell left-aligned in its column's width: one format for every line.
    layout = SEPARATOR.join(f"{{:<{w}}}" if w else "{}" for w in widths)
    lines = []
    for line in table:
        if shrunk:
            line = list(line)
            for index in shrunk:
                line[index] = _cut(line[index], widths[index])
        lines.append(layout.format(*line).rstrip())
    return lines


class Progress:
    """A one-line progress bar on standard error for work that takes a while.

    Use it as a context manager and call it with ``(done, total)``, as the
    ``progress`` callback of ``Snapshot.hashes``.  The bar shows only when
    standard error is a terminal and the work has run for ``delay`` seconds;
    it is redrawn in place and wiped when the block ends.
    """

    def __init__(
        self,
        label: str,
        *,
        stream: TextIO | None = None,
        delay: float = PROGRESS_DELAY,
        clock: Callable[[], float] = time.monotonic,
    ) -> None:
        self.label = label
        self._stream = stream
        self._delay = delay
        self._clock = clock
        self._out: TextIO | None = None
        self._width = 0
        self._started = 0.0
        self._drawn_at: float | None = None
        self._shown = 0  # length of the line on screen

    def __enter__(self) -> Progress:
        out = self._stream if self._stream is not None else sys.stderr
        width = terminal_width(out)
        self._out = out if width is not None else None
        self._width = width or 0
        self._started = self._clock()
        return self

    def __call__(self, done: int, total: int) -> None:
        if self._out is None or total <= 0:
            return
        now = self._clock()
        if now - self._started < self._delay:
            return
        if self._drawn_at is not None and now - self._drawn_at < PROGRESS_EVERY:
            return  # many quick calls (one per page) draw ten times a second at most
        self._drawn_at = now
        count = f" {done}/{total}"
        cells = min(BAR_CELLS, self._width - len(self.label) - len(count) - 4)
        bar = ""
        if cells > 0:
            filled = cells * min(done, total) // total if total > 0 else cells
            bar = " [" + "#" * filled + "-" * (cells - filled) + "]"
        # One column short of the width: a full line would wrap on some terminals.
        self._write("\r" + (self.label + bar + count)[: max(self._width - 1, 0)])

    def __exit__(self, *exc: object) -> None:
        if self._out is not None and self._shown:
            self._write("\r" + " " * self._shown + "\r")
        self._out = None

    def _write(self, text: str) -> None:
        assert self._out is not None
        try:
            self._out.write(text)
            self._out.flush()
        except (OSError, ValueError):
            self._out = None  # standard error went away: the work goes on silently
            return
        self._shown = max(self._shown, len(text.strip("\r")))
