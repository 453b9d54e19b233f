"""Time pin_plan, native against the twin, at growing store sizes.

A scenario holds PAGES stored code pages of about 20 files each and a catch-all
page; the fresh plan re-plans the same repository with a few percent churn
(pages whose files vanished, new directories, files added to kept pages) and
adds OTHERS plans outside the code-unit levels: the parts and parents of
stored families (which pass through whole), steering pages and overviews. The
pass-through plans are the ones tested for membership among the code-unit
plans, so OTHERS times PAGES is the work a literal membership test does.

    python benchmarks/bench_pin_plan.py [--repeat N] [--svg PATH]
    python benchmarks/bench_pin_plan.py --once native --pages 5000 [--others 10]
    python benchmarks/bench_pin_plan.py --instructions [--pages 5000]

The table gives the median of the repeats per side (milliseconds of the
process's CPU time, which other load on a shared machine disturbs far less than
wall time) and the ratio twin / native; the plot (time against pages, both
sides, log scales) is written as SVG. `--once SIDE` builds one scenario and calls that side once,
for an instruction count: the native call alone with

    valgrind --tool=callgrind --toggle-collect='*pin_plan_entry*' \\
        python benchmarks/bench_pin_plan.py --once native --pages 5000

and the twin's as the whole run less the run of `--once none`. `--instructions`
does those runs under callgrind and prints the counts: the native call's own
work and the work inside its collaborators (the calls it makes to Python
code), the twin's, and their ratio, which a busy machine does not disturb.
"""

from __future__ import annotations

import argparse
import gc
import math
import random
import re
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path
from typing import Any

from malde_ostrel.workers.wiki import _pyplan_record as twin
from malde_ostrel.workers.wiki import plan_record as native
from malde_ostrel.workers.wiki.types import PagePlan

FILES_PER_PAGE = 20
PARTS_PER_FAMILY = 5
# (stored code pages, fresh plans outside the code-unit levels)
SCENARIOS = ((1_000, 600), (500, 10), (1_000, 10), (2_000, 10), (5_000, 10), (10_000, 10), (20_000, 10))
SERIES_OTHERS = 10  # the scenarios drawn as lines in the plot
SVG_PATH = Path(__file__).with_name("pin_plan.svg")

Scenario = tuple[list[PagePlan], dict[str, dict[str, Any]], set[str]]


def scenario(pages: int, others: int, seed: int = 7) -> Scenario:
    rng = random.Random(seed)
    existing: dict[str, dict[str, Any]] = {}
    live: set[str] = set()
    fresh: list[PagePlan] = []

    def stored(page_id: str, files: list[str], **fields: Any) -> None:
        existing[page_id] = {
            "page_id": page_id,
            "title": page_id.title(),
            "level": "module",
            "source_files": files,
            **fields,
        }

    for i in range(pages):
        page_id = f"module-d{i}"
        # Sorted, as the planner makes them and the store keeps them.
        files = sorted(f"d{i}/f{j}.c" for j in range(FILES_PER_PAGE))
        stored(page_id, files)
        churn = rng.random()
        if churn < 0.02:  # the directory vanished
            continue
        kept = files if churn > 0.05 else files + [f"d{i}/new{j}.c" for j in range(3)]
        live.update(kept)
        fresh.append(
            PagePlan(page_id=page_id, title=page_id.title(), source_files=list(kept), importance_score=rng.random())
        )
    for i in range(max(1, pages // 50)):  # new directories
        files = sorted(f"n{i}/f{j}.c" for j in range(rng.choice([1, 5, 20])))
        live.update(files)
        fresh.append(PagePlan(page_id=f"module-n{i}", source_files=files, importance_score=rng.random()))

    # Plans outside the code-unit levels: stored families (parent and parts),
    # then steering pages and overviews, half each.
    families = others * 4 // 5 // (PARTS_PER_FAMILY + 1)
    for i in range(families):
        parent = f"module-fam{i}"
        kids = [f"{parent}-p{j}" for j in range(PARTS_PER_FAMILY)]
        stored(parent, [], related_pages=kids)
        fresh.append(PagePlan(page_id=parent, children=list(kids), importance_score=0.5))
        for kid in kids:
            files = [f"fam{i}/{kid}/f{j}.c" for j in range(4)]
            stored(kid, files)
            live.update(files)
            fresh.append(PagePlan(page_id=kid, source_files=files, importance_score=rng.random()))
    rest = others - families * (PARTS_PER_FAMILY + 1)
    for i in range(rest // 2):
        fresh.append(PagePlan(page_id=f"custom-topic{i}", level="custom", title=f"Topic {i}"))
    for i in range(rest - rest // 2):
        name = f"overview-{i}"
        existing[name] = {"page_id": name, "level": "overview", "source_files": []}
        fresh.append(PagePlan(page_id=name, level="overview"))
    existing["module-additional"] = {"page_id": "module-additional", "source_files": ["x.c"]}
    live.add("x.c")
    return fresh, existing, live


def copies(fresh: list[PagePlan]) -> list[PagePlan]:
    """New plan objects (pin_plan may change plans in place)."""
    return [PagePlan(**{k: (list(v) if isinstance(v, list) else v) for k, v in vars(p).items()}) for p in fresh]


def timings(repeat: int, module: Any, case: Scenario) -> list[float]:
    fresh, existing, live = case
    times = []
    for _ in range(repeat):
        plans = copies(fresh)
        # As timeit does: the collector's passes over a large heap would
        # otherwise blur both figures.
        gc.collect()
        gc.disable()
        try:
            start = time.process_time()
            module.pin_plan(plans, existing, live)
            times.append(time.process_time() - start)
        finally:
            gc.enable()
    return times


def callgrind(side: str, pages: int, others: int, *options: str) -> dict[str, int]:
    """Instructions of one `--once SIDE` run under callgrind: the total
    ("Ir"), and with options such as --toggle-collect, by function."""
    with tempfile.TemporaryDirectory() as out:
        subprocess.run(
            ["valgrind", "--tool=callgrind", f"--callgrind-out-file={out}/cg", *options, sys.executable, __file__,
             "--once", side, "--pages", str(pages), "--others", str(others)],
            check=True, capture_output=True,
        )  # fmt: skip
        totals = subprocess.run(
            ["callgrind_annotate", "--inclusive=yes", f"{out}/cg"], check=True, capture_output=True, text=True
        ).stdout
    counts = {"Ir": int(re.search(r"^([\d,]+) .*PROGRAM TOTALS", totals, re.M)[1].replace(",", ""))}  # type: ignore[index]
    for number, name in re.findall(r"^ *([\d,]+) \([ \d.]+%\)  \?\?\?:plan_record::(call|call_kw)\(", totals, re.M):
        counts[name] = int(number.replace(",", ""))
    return counts


def instruction_counts(pages: int, others: int) -> None:
    base = callgrind("none", pages, others)["Ir"]
    twin_ir = callgrind("twin", pages, others)["Ir"] - base
    own = callgrind("native", pages, others, "--toggle-collect=*pin_plan_entry*")
    native_ir = own["Ir"]
    collaborators = own.get("call", 0) + own.get("call_kw", 0)
    print(f"instructions at {pages:,} pages, {others} others (callgrind):")
    print(f"  native {native_ir / 1e6:8.1f}M  (own {(native_ir - collaborators) / 1e6:.1f}M, "
          f"collaborators {collaborators / 1e6:.1f}M)")  # fmt: skip
    print(f"  twin   {twin_ir / 1e6:8.1f}M")
    print(f"  twin / native {twin_ir / native_ir:.2f}")


def svg_plot(rows: list[tuple[int, int, float, float]], path: Path) -> None:
    """Time against pages, native and twin, on log scales; hand-written SVG."""
    width, height, left, right, top, bottom = 640, 420, 70, 150, 40, 50
    series = [(p, n, t) for p, o, n, t in rows if o == SERIES_OTHERS]
    extra = [(p, o, n, t) for p, o, n, t in rows if o != SERIES_OTHERS]
    pages = [p for p, *_ in rows]
    times_ms = [v * 1e3 for *_, n, t in rows for v in (n, t)]
    margin = 0.1  # of a decade, around the data
    x_lo, x_hi = math.log10(min(pages)) - margin, math.log10(max(pages)) + margin
    y_lo, y_hi = math.log10(min(times_ms)) - margin, math.log10(max(times_ms)) + margin

    def x(value: float) -> float:
        return left + (math.log10(value) - x_lo) / (x_hi - x_lo) * (width - left - right)

    def y(value_ms: float) -> float:
        return height - bottom - (math.log10(value_ms) - y_lo) / (y_hi - y_lo) * (height - top - bottom)

    out = [
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
        f'viewBox="0 0 {width} {height}" font-family="sans-serif" font-size="12">',
        f'<rect width="{width}" height="{height}" fill="white"/>',
        f'<text x="{left}" y="22" font-size="14">pin_plan: time against stored pages '
        f"({SERIES_OTHERS} plans outside the code-unit levels)</text>",
    ]
    for decade in range(math.floor(x_lo), math.ceil(x_hi)):
        for step in (1, 2, 5):
            value = step * 10**decade
            if not x_lo <= math.log10(value) <= x_hi:
                continue
            xv = x(value)
            out.append(f'<line x1="{xv:.1f}" y1="{top}" x2="{xv:.1f}" y2="{height - bottom}" stroke="#ddd"/>')
            out.append(f'<text x="{xv:.1f}" y="{height - bottom + 16}" text-anchor="middle">{value:,}</text>')
    for decade in range(math.ceil(y_lo), math.floor(y_hi) + 1):
        yv = y(10**decade)
        out.append(f'<line x1="{left}" y1="{yv:.1f}" x2="{width - right}" y2="{yv:.1f}" stroke="#ddd"/>')
        out.append(f'<text x="{left - 6}" y="{yv + 4:.1f}" text-anchor="end">{10.0**decade:g}</text>')
    out.append(f'<text x="{(left + width - right) / 2}" y="{height - 12}" text-anchor="middle">stored pages</text>')
    out.append(
        f'<text x="16" y="{(top + height - bottom) / 2}" text-anchor="middle" '
        f'transform="rotate(-90 16 {(top + height - bottom) / 2})">median CPU time (ms)</text>'
    )
    for index, (label, colour) in enumerate((("native", "#1f6fb4"), ("twin", "#d9661f"))):
        points = " ".join(f"{x(p):.1f},{y(v[index] * 1e3):.1f}" for p, *v in series)
        out.append(f'<polyline points="{points}" fill="none" stroke="{colour}" stroke-width="2"/>')
        for p, *v in series:
            out.append(f'<circle cx="{x(p):.1f}" cy="{y(v[index] * 1e3):.1f}" r="3" fill="{colour}"/>')
        for p, _o, *v in extra:
            cx, cy = x(p), y(v[index] * 1e3)
            out.append(
                f'<rect x="{cx - 4:.1f}" y="{cy - 4:.1f}" width="8" height="8" fill="none" '
                f'stroke="{colour}" stroke-width="2"/>'
            )
        ly = top + 10 + 20 * index
        out.append(
            f'<line x1="{width - right + 12}" y1="{ly}" x2="{width - right + 36}" y2="{ly}" '
            f'stroke="{colour}" stroke-width="2"/>'
        )
        out.append(f'<text x="{width - right + 42}" y="{ly + 4}">{label}</text>')
    for p, o, *_ in extra:
        ly = top + 60
        out.append(f'<rect x="{width - right + 20}" y="{ly - 4}" width="8" height="8" fill="none" stroke="black"/>')
        out.append(f'<text x="{width - right + 42}" y="{ly + 4}">{p:,} pages +</text>')
        out.append(f'<text x="{width - right + 42}" y="{ly + 18}">{o} others</text>')
        break
    out.append("</svg>")
    path.write_text("\n".join(out) + "\n", encoding="utf-8")


def main() -> None:
    parser = argparse.ArgumentParser(description=(__doc__ or "").splitlines()[0])
    parser.add_argument("--repeat", type=int, default=5)
    parser.add_argument("--svg", type=Path, default=SVG_PATH, help="where the plot goes")
    parser.add_argument(
        "--once",
        choices=("native", "twin", "none"),
        help="call one side once, no timing ('none': build the scenario only)",
    )
    parser.add_argument(
        "--instructions", action="store_true", help="count instructions under callgrind instead of timing"
    )
    parser.add_argument("--pages", type=int, default=5_000, help="with --once or --instructions")
    parser.add_argument("--others", type=int, default=SERIES_OTHERS, help="with --once or --instructions")
    args = parser.parse_args()
    if args.instructions:
        instruction_counts(args.pages, args.others)
        return
    if args.once:
        fresh, existing, live = scenario(args.pages, args.others)
        gc.collect()
        gc.disable()  # as in the timed runs
        if args.once != "none":
            (native if args.once == "native" else twin).pin_plan(fresh, existing, live)
        return

    rows = []
    print(f"{'pages':>7} {'others':>6} {'native ms':>10} {'twin ms':>10} {'twin/native':>12}  (median CPU time)")
    for pages, others in SCENARIOS:
        case = scenario(pages, others)
        n = statistics.median(timings(args.repeat, native, case))
        t = statistics.median(timings(args.repeat, twin, case))
        rows.append((pages, others, n, t))
        print(f"{pages:>7,} {others:>6} {n * 1e3:>10.2f} {t * 1e3:>10.2f} {t / n:>12.1f}")
    by_size = {(p, o): n for p, o, n, _ in rows}
    growth = by_size[(20_000, SERIES_OTHERS)] / by_size[(5_000, SERIES_OTHERS)]
    print(f"native time 20,000 / 5,000 pages: {growth:.2f}x (4.0x is linear)")
    svg_plot(rows, args.svg)
    print(f"plot: {args.svg}")


if __name__ == "__main__":
    main()
