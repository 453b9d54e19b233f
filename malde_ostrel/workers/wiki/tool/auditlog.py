"""Reading the branch's plan audit log: runs, and one page's lineage."""

from __future__ import annotations

import json
from pathlib import Path
from typing import Any

from malde_ostrel.workers.wiki.tool.reports import HistoryEvent


def read_runs(log: Path) -> tuple[list[dict[str, Any]], list[int]]:
    """The log's records in order, and the numbers of the lines that are not one."""
    try:
        data = log.read_bytes()
    except FileNotFoundError:
        return [], []
    runs: list[dict[str, Any]] = []
    bad: list[int] = []
    for number, line in enumerate(data.split(b"\n"), start=1):
        if not line.strip():
            continue
        try:
            record = json.loads(line.decode("utf-8"))
        except ValueError:
            bad.append(number)
            continue
        if isinstance(record, dict) and isinstance(record.get("amendments", []), list):
            runs.append(record)
        else:
            bad.append(number)
    return runs, bad


def page_history(runs: list[dict[str, Any]], page_id: str) -> list[HistoryEvent]:
    """Every record that names the page: as the page changed, or as the page
    its text came from or went to."""
    events: list[HistoryEvent] = []
    for run in runs:
        at = str(run.get("at", "?"))
        for record in run.get("amendments") or []:
            if not isinstance(record, dict):
                continue
            action = str(record.get("action", "?"))
            subject = str(record.get("page_id", ""))
            source = record.get("from")
            carried = record.get("carried_to")
            if subject == page_id:
                other = source if isinstance(source, str) else carried
                events.append(
                    HistoryEvent(
                        at, action, subject, str(record.get("reason", "")), other if isinstance(other, str) else None
                    )
                )
            elif source == page_id:
                events.append(HistoryEvent(at, f"{action} (text out)", subject, str(record.get("reason", "")), subject))
    return events
