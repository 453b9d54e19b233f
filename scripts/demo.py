"""A short tour of the plan-of-record module: stored rows become pinned plans."""

from __future__ import annotations

import inspect

from malde_ostrel.workers.wiki import plan_record

STORED_ROWS = [
    {"page_id": "module-core", "title": "Core", "level": "module", "importance": "high",
     "source_files": ["core/b.c", "core/a.c", "core/gone.c"]},
    {"page_id": "module-api", "title": "", "level": "", "source_files": ["api/h.c"],
     "description": "Public entry points."},
    {"page_id": "module-additional", "title": "Other code", "source_files": ["x.c"]},
]
LIVE_PATHS = {"core/a.c", "core/b.c", "api/h.c", "x.c"}


def main() -> None:
    print(f"module: {plan_record.__name__} ({plan_record.__file__})")
    fn = plan_record._plan_from_row
    print(f"{fn.__name__}{inspect.signature(fn)}")
    print()
    print(f"{'page id':<20} {'title':<18} {'level':<8} {'catch-all':<9} files / description")
    for row in STORED_ROWS:
        plan = fn(row, LIVE_PATHS)
        print(f"{plan.page_id:<20} {plan.title:<18} {plan.level:<8} {str(plan.catch_all):<9} "
              f"{', '.join(plan.source_files)}")
        print(f"{'':<58} {plan.description}")


if __name__ == "__main__":
    main()
