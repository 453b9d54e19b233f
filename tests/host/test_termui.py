"""Tables cut to the terminal's width, and the progress bar."""

from __future__ import annotations

import io
import re

import pytest

from malde_ostrel.workers.wiki.tool.termui import Progress, fit_table

HEADER = ["PAGE", "LEVEL", "TITLE", "FILES", "STATE", "WRITE"]
ROWS = [[f"module-lib-test-support-part-{i}", "module", f"lib/test/support/deep ({i}.py to z.py)",
         "12", "changed", "to write"] for i in range(2000)]  # fmt: skip


@pytest.mark.parametrize(("width", "widest", "ids_kept"),
                         [(None, 108, True), (108, 108, True), (81, 81, True), (80, 80, False),
                          (20, 60, False)])  # fmt: skip
def test_fit_table_cuts_the_title_then_the_page_id(width: int | None, widest: int, ids_kept: bool) -> None:
    lines = fit_table(HEADER, ROWS, width, shrink=[2, 0])
    assert max(map(len, lines)) == widest and all(line == line.rstrip() for line in lines)
    cells = [re.split(r"  +", line) for line in lines[1:]]
    assert [row[1::2] for row in cells] == [row[1::2] for row in ROWS]  # never cut
    assert all(row[0] == full[0] for row, full in zip(cells, ROWS, strict=True)) == ids_kept
    assert all(row[2] in (full[2], full[2][: len(row[2]) - 1] + "…")
               for row, full in zip(cells, ROWS, strict=True))  # fmt: skip


class Tty(io.StringIO):
    def isatty(self) -> bool:
        return True


@pytest.mark.parametrize(("stream", "seconds"), [(io.StringIO(), 5.0), (Tty(), 0.5), (Tty(), 5.0)])
def test_progress_draws_on_a_terminal_after_a_second(
    stream: io.StringIO, seconds: float, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setenv("COLUMNS", "50")
    now = [0.0]
    with Progress("hashing files", stream=stream, clock=lambda: now[0]) as progress:
        for done in range(0, 101, 10):
            now[0] = seconds * done / 100
            progress(done, 100)
    draws = stream.getvalue().split("\r")
    assert (len(draws) > 1) == (seconds > 1 and stream.isatty())
    if len(draws) > 1:  # in place, one column short of the width, wiped at the end
        assert "100/100" in draws[-3] and "10/100" not in "".join(draws)
        assert draws[-2].strip() == draws[-1] == "" and all(len(d) < 50 for d in draws)
