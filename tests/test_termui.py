"""Tables cut to the terminal's width, and the progress bar."""

from __future__ import annotations

import io
import re

import pytest

from malde_ostrel.workers.wiki.termui import Progress, fit_table

HEADER = ["PAGE", "LEVEL", "TITLE", "FILES", "STATE", "WRITE"]


def plan_rows(n: int) -> list[list[str]]:
    return [[f"module-lib-test-support-part-{i}", "module",
             f"lib/test/support/very/deep/directory ({i}_a.py to {i}_f.py)",
             "12", "changed", "to write"] for i in range(n)]  # fmt: skip


@pytest.mark.parametrize("width", [None, 300, 100, 78, 77, 20])
def test_fit_table(width: int | None) -> None:
    rows = plan_rows(2000)
    lines = fit_table(HEADER, rows, width, shrink=[2, 0])
    full = fit_table(HEADER, rows, None, shrink=[2, 0])
    assert len(lines) == 2001 and all(line == line.rstrip() for line in lines)
    if width is None or width >= max(map(len, full)):
        assert lines == full
        return
    cells = [re.split(r"  +", line) for line in lines]
    if width >= 60:
        assert max(map(len, lines)) <= width
    # Only the shrinkable columns are cut, and the title before the page id.
    assert [row[1::2] for row in cells[1:]] == [row[1::2] for row in rows]
    assert cells[1][2].endswith("…") and len(cells[1][2].rstrip()) >= 12
    assert (cells[1][0] == rows[0][0]) == (width >= 78)


class Tty(io.StringIO):
    def isatty(self) -> bool:
        return True


@pytest.mark.parametrize(("tty", "seconds", "drawn"),
                         [(False, 5.0, False), (True, 0.5, False), (True, 5.0, True)])  # fmt: skip
def test_progress_draws_only_on_a_terminal_after_a_while(
    tty: bool, seconds: float, drawn: bool, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setenv("COLUMNS", "50")
    stream = Tty() if tty else io.StringIO()
    now = [0.0]
    with Progress("hashing files", stream=stream, clock=lambda: now[0]) as progress:
        for done in range(0, 101, 10):
            now[0] = seconds * done / 100
            progress(done, 100)
    text = stream.getvalue()
    assert bool(text) == drawn
    if drawn:
        assert "100/100" in text and "10/100" not in text and "\n" not in text and text.endswith("\r")
        assert all(len(line) < 50 for line in text.split("\r"))
        assert text.split("\r")[-2].strip() == ""  # wiped at the end
