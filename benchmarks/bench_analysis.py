"""Native module against its twin: section analysis and the plan audit log.

Run by hand: python benchmarks/bench_analysis.py

Times `_sections` and `section_map` on page bodies of about 10 KB, 100 KB and
1 MB with a few thousand stored citations, `section_map` both with the host's
collaborators and with near-free stand-ins (so that the module's own work is
what is measured), and `append_plan_log` on a log near its trim limit. Also times
`section_map` on stored citations whose keys differ only in their high bits.
Prints each median time and the ratio twin / native, and checks the targets
without failing.
"""

from __future__ import annotations

import random
import shutil
import statistics
import tempfile
import time
from collections.abc import Callable
from pathlib import Path
from types import ModuleType
from typing import Any

from malde_ostrel.workers.wiki import _pyplan_record as twin
from malde_ostrel.workers.wiki import plan_record as native

SIZES = {"10 KB": 10_000, "100 KB": 100_000, "1 MB": 1_000_000}
STORED = 3000
TARGETS = {
    ("_sections", "1 MB"): 10.0,
    ("section_map, host", "1 MB"): 1.5,
    ("section_map, stand-ins", "1 MB"): 3.0,
    ("section_map, hostile", "64 Ki"): 1.0,
}
# Stored citations whose line numbers differ only in their high bits.
HOSTILE_CITATIONS = 1 << 16
HOSTILE_SHIFT = 50


def median_time(action: Callable[[], Any], budget: float = 0.3, rounds: int = 7) -> float:
    """Seconds per call: the median of `rounds` rounds of enough calls to fill the budget."""
    action()
    loops = 1
    while True:
        start = time.perf_counter()
        for _ in range(loops):
            action()
        elapsed = time.perf_counter() - start
        if elapsed >= budget / rounds or loops >= 1 << 20:
            break
        loops *= 2
    times = []
    for _ in range(rounds):
        start = time.perf_counter()
        for _ in range(loops):
            action()
        times.append((time.perf_counter() - start) / loops)
    return statistics.median(times)


def make_citations(rng: random.Random) -> list[dict[str, Any]]:
    citations = []
    for i in range(STORED):
        start = rng.randint(1, 900)
        c: dict[str, Any] = {
            "path": f"src/pkg{i % 40}/mod{i % 97}.py",
            "line_start": start,
            "line_end": start + rng.randint(0, 40),
        }
        if rng.random() < 0.4:
            c["symbol"] = f"pkg{i % 40}.mod{i % 97}.func{i}"
        citations.append(c)
    return citations


def make_body(size: int, citations: list[dict[str, Any]], rng: random.Random) -> str:
    words = "the parser reads each record then hands the tree to the planner which keeps ids".split()
    parts: list[str] = ["Lead-in paragraph of the page."]
    length = 0
    section = 0
    while length < size:
        roll = rng.random()
        if roll < 0.04:
            section += 1
            text = f"## Section {section} {'#' if section % 7 == 0 else ''}"
        elif roll < 0.06:
            text = "```python\n## not a heading\nx = 1\n```"
        else:
            sentence = " ".join(rng.choice(words) for _ in range(rng.randint(6, 16)))
            cites = []
            for _ in range(rng.randint(0, 3)):
                c = rng.choice(citations)
                symbol = f"|{c['symbol']}" if "symbol" in c and rng.random() < 0.5 else ""
                cites.append(f"[[{c['path']}:{c['line_start']}-{c['line_end']}{symbol}]]")
            if rng.random() < 0.1:
                cites.append("[[src/unstored.py:1-2]]")
            text = f"{sentence.capitalize()} {' '.join(cites)}."
        parts.append(text)
        length += len(text) + 1
    return "\n".join(parts)


def stand_ins(body: str) -> dict[str, Any]:
    """Near-free collaborators: each section's citation keys looked up in a
    prepared table, keys passed through, the listing's length as its hash."""
    table = {
        text: [tuple(twin.citation_key(c)) for c in twin.prose_citations(text)] for _, text in twin._sections(body)
    }
    return {"prose_citations": table.get, "citation_key": tuple, "_text_hash": len}


def rebind(modules: tuple[ModuleType, ...], names: dict[str, Any]) -> Callable[[], None]:
    saved = [(m, name, getattr(m, name)) for m in modules for name in names]
    for m in modules:
        for name, value in names.items():
            setattr(m, name, value)

    def restore() -> None:
        for m, name, value in saved:
            setattr(m, name, value)

    return restore


def report(rows: list[tuple[str, str, float, float]]) -> None:
    print(f"{'function':<26}{'input':<10}{'native':>12}{'twin':>12}{'ratio':>9}")
    for name, label, t_native, t_twin in rows:
        ratio = t_twin / t_native
        print(f"{name:<26}{label:<10}{t_native * 1e3:>10.3f}ms{t_twin * 1e3:>10.3f}ms{ratio:>8.1f}x")
    print()
    for (name, label), target in TARGETS.items():
        for row_name, row_label, t_native, t_twin in rows:
            if (row_name, row_label) == (name, label):
                ratio = t_twin / t_native
                verdict = "met" if ratio >= target else "MISSED"
                print(f"target {name} on {label}: >= {target:.1f}x, measured {ratio:.1f}x ({verdict})")


def bench_sections(rows: list[tuple[str, str, float, float]]) -> None:
    rng = random.Random(7)
    citations = make_citations(rng)
    hashes = {c["path"]: f"{hash(c['path']) & 0xFFFFFFFF:08x}" for c in citations[::2]}
    for label, size in SIZES.items():
        body = make_body(size, citations, rng)
        assert native._sections(body) == twin._sections(body)
        rows.append(
            ("_sections", label, median_time(lambda: native._sections(body)), median_time(lambda: twin._sections(body)))
        )

        assert native.section_map(body, citations, hashes) == twin.section_map(body, citations, hashes)
        rows.append(
            (
                "section_map, host",
                label,
                median_time(lambda: native.section_map(body, citations, hashes)),
                median_time(lambda: twin.section_map(body, citations, hashes)),
            )
        )

        restore = rebind((native, twin), stand_ins(body))
        try:
            assert native.section_map(body, citations, hashes) == twin.section_map(body, citations, hashes)
            rows.append(
                (
                    "section_map, stand-ins",
                    label,
                    median_time(lambda: native.section_map(body, citations, hashes)),
                    median_time(lambda: twin.section_map(body, citations, hashes)),
                )
            )
        finally:
            restore()


def bench_hostile_keys(rows: list[tuple[str, str, float, float]]) -> None:
    """Line numbers that are multiples of 2**50: keys that differ only in their
    high bits, which a weak hash would send into one probe chain."""
    low = (1 << (63 - HOSTILE_SHIFT)) - 1
    citations = [
        {
            "path": "src/a.py",
            "line_start": (i & low) << HOSTILE_SHIFT,
            "line_end": (i >> (63 - HOSTILE_SHIFT)) << HOSTILE_SHIFT,
        }
        for i in range(HOSTILE_CITATIONS)
    ]
    body = "## S\n[[src/a.py:1-2]]"
    assert native.section_map(body, citations, {}) == twin.section_map(body, citations, {})
    rows.append(
        (
            "section_map, hostile",
            "64 Ki",
            median_time(lambda: native.section_map(body, citations, {})),
            median_time(lambda: twin.section_map(body, citations, {})),
        )
    )


def bench_plan_log(rows: list[tuple[str, str, float, float]]) -> None:
    """Ten appends from 1995 lines: nine plain ones and the one that trims."""
    amendments = [
        {"action": "add", "page_id": f"module-{i}", "reason": "new subsystem (3 files)", "level": "module"}
        for i in range(4)
    ]
    root = Path(tempfile.mkdtemp(prefix="bench-plan-log-"))
    try:
        seed = root / "seed"
        twin.append_plan_log(seed, amendments, replan=False)
        line = (seed / "plan-log.jsonl").read_bytes()
        prefill = line * 1995
        times = {}
        for module in (native, twin):
            wiki_dir = root / module.__name__.rsplit(".", 1)[-1]

            def run() -> None:
                wiki_dir.mkdir(exist_ok=True)
                (wiki_dir / "plan-log.jsonl").write_bytes(prefill)
                for _ in range(10):
                    module.append_plan_log(wiki_dir, amendments, replan=False)

            times[module] = median_time(run, budget=1.0) / 10
            assert (wiki_dir / "plan-log.jsonl").read_bytes().count(b"\n") == 1004
        rows.append(("append_plan_log", "~2000 ln", times[native], times[twin]))
    finally:
        shutil.rmtree(root)


def main() -> None:
    rows: list[tuple[str, str, float, float]] = []
    bench_sections(rows)
    bench_hostile_keys(rows)
    bench_plan_log(rows)
    report(rows)


if __name__ == "__main__":
    main()
