"""Time pin_plan, native against the twin, at three store sizes.

Each store holds code pages of about 20 files each, a few non-code pages and a
catch-all page; the fresh plan re-plans the same repository with a few percent
churn: pages whose files vanished, new directories, files added to kept pages.

    python benchmarks/bench_pin_plan.py [--repeat N]
"""

from __future__ import annotations

import argparse
import gc
import operator
import random
import time
from typing import Any

from malde_ostrel.workers.wiki import _pyplan_record as twin
from malde_ostrel.workers.wiki import plan_record as native
from malde_ostrel.workers.wiki.types import PagePlan

FILES_PER_PAGE = 20
SIZES = (500, 5_000, 20_000)


def scenario(pages: int, seed: int = 7) -> tuple[list[PagePlan], dict[str, dict[str, Any]], set[str]]:
    rng = random.Random(seed)
    existing: dict[str, dict[str, Any]] = {}
    live: set[str] = set()
    fresh: list[PagePlan] = []
    for i in range(pages):
        page_id = f"module-d{i}"
        files = [f"d{i}/f{j}.c" for j in range(FILES_PER_PAGE)]
        existing[page_id] = {"page_id": page_id, "title": f"D{i}", "level": "module", "source_files": files}
        churn = rng.random()
        if churn < 0.02:  # the directory vanished
            continue
        kept = files if churn > 0.05 else files + [f"d{i}/new{j}.c" for j in range(3)]
        live.update(kept)
        fresh.append(PagePlan(page_id=page_id, title=f"D{i}", source_files=list(kept),
                              importance_score=rng.random()))
    for i in range(max(1, pages // 50)):  # new directories
        files = [f"n{i}/f{j}.c" for j in range(rng.choice([1, 5, 20]))]
        live.update(files)
        fresh.append(PagePlan(page_id=f"module-n{i}", source_files=files))
    for name in ("overview", "architecture", "glossary"):
        existing[name] = {"page_id": name, "level": name, "source_files": []}
        fresh.append(PagePlan(page_id=name, level=name))
    existing["module-additional"] = {"page_id": "module-additional", "source_files": ["x.c"]}
    live.add("x.c")
    return fresh, existing, live


def best_of(repeat: int, module: Any, fresh: list[PagePlan], existing: dict[str, Any], live: set[str]) -> float:
    best = float("inf")
    for _ in range(repeat):
        plans = [PagePlan(**vars(p)) for p in fresh]  # pin_plan may change plans in place
        # As timeit does: the collector's passes over a large heap would
        # otherwise dominate and blur both figures.
        gc.collect()
        gc.disable()
        try:
            start = time.perf_counter()
            module.pin_plan(plans, existing, live)
            best = min(best, time.perf_counter() - start)
        finally:
            gc.enable()
    return best


def near_free(module: Any) -> dict[str, Any]:
    """Collaborators that cost next to nothing, so the module's own work shows."""
    def passed_on(plans: Any, existing: Any = None) -> Any:
        return plans

    return {"unit_topic": operator.is_, "keep_agent_titles": passed_on, "link_families": passed_on}


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--repeat", type=int, default=5)
    args = parser.parse_args()
    for label, stand_ins in (("host collaborators", False), ("near-free collaborators", True)):
        print(f"-- {label}")
        print(f"{'stored pages':>12} {'native ms':>10} {'twin ms':>10} {'twin/native':>12}")
        timings = {}
        for size in SIZES:
            fresh, existing, live = scenario(size)
            saved = {m: dict(vars(m)) for m in (native, twin)}
            try:
                if stand_ins:
                    for module in (native, twin):
                        for name, value in near_free(module).items():
                            setattr(module, name, value)
                n = best_of(args.repeat, native, fresh, existing, live)
                t = best_of(args.repeat, twin, fresh, existing, live)
            finally:
                for module, names in saved.items():
                    for name in ("unit_topic", "keep_agent_titles", "link_families"):
                        setattr(module, name, names[name])
            timings[size] = n
            print(f"{size:>12} {n * 1e3:>10.1f} {t * 1e3:>10.1f} {t / n:>12.2f}")
        print(f"native growth 20,000 / 5,000 pages: {timings[20_000] / timings[5_000]:.2f}x (4.0x is linear)")


if __name__ == "__main__":
    main()
