"""The store side on real database files: what one operation writes is whole
or absent, other branches are never touched, and the state survives reopening."""

from __future__ import annotations

from pathlib import Path
from types import ModuleType
from typing import Any

import pytest

from malde_ostrel.workers.wiki.orchestrator import generator_class
from malde_ostrel.workers.wiki.store import Database, Repository
from malde_ostrel.workers.wiki.types import PagePlan

STALE_MARK = {"__stale__": "pending"}


@pytest.fixture
def repo(tmp_path: Path) -> Path:
    root = tmp_path / "repo"
    for path, text in {"core/a.c": "a", "core/b.c": "b", "api/h.c": "h", "api/i.c": "i"}.items():
        (root / path).parent.mkdir(parents=True, exist_ok=True)
        (root / path).write_text(text)
    return root


def open_generator(impl: ModuleType, root: Path, branch: str = "main", steering: str | None = None) -> Any:
    db = Database.open(root.parent / "store.sqlite3")
    cls = generator_class(impl.PlanRecordMixin)
    return cls(root, Repository(db), branch, root.parent / "wiki" / branch, steering)


PLANS = [PagePlan(page_id="module-core", title="Core", source_files=["core/a.c", "core/b.c"]),
         PagePlan(page_id="module-api", title="API", source_files=["api/h.c", "api/i.c"])]


def rows(gen: Any) -> dict[str, dict[str, Any]]:
    return {pid: {k: v for k, v in row.items() if k != "updated_at"}
            for pid, row in gen.repository.rows(gen.branch).items()}


def test_skeleton_is_one_transaction(impl: ModuleType, repo: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    other = open_generator(impl, repo, branch="dev")
    assert other._persist_plan_skeleton(PLANS[:1]) == 1
    before = rows(other)

    def failing_section_of(plan: PagePlan) -> str:
        if plan.page_id == "module-api":
            raise RuntimeError("planner lost")
        return "Code"

    gen = open_generator(impl, repo)
    with monkeypatch.context() as patch:
        patch.setattr(impl, "section_of", failing_section_of)
        with pytest.raises(RuntimeError, match="planner lost"):
            gen._persist_plan_skeleton(PLANS)
    assert rows(gen) == {} and rows(other) == before

    assert gen._persist_plan_skeleton(PLANS) == 2
    reopened = open_generator(impl, repo)
    assert rows(reopened) == rows(gen) and set(rows(reopened)) == {"module-core", "module-api"}
    assert all(r["source_hashes"] == STALE_MARK and r["status"] == "stale" for r in rows(reopened).values())
    assert rows(other) == before


def test_stale_until_saved_then_owning_pages_only(impl: ModuleType, repo: Path) -> None:
    gen = open_generator(impl, repo, steering="v1")
    gen._persist_plan_skeleton(PLANS)
    gen.reload()
    for _ in range(2):
        assert gen._select_stale(PLANS, gen._existing, False) == {"module-core", "module-api"}
    for plan in PLANS:
        gen.save_page(plan, f"## {plan.title}\nsee [[{plan.source_files[0]}:1-1]]\n")
    assert gen._select_stale(PLANS, gen._existing, False) == set()
    (repo / "api" / "i.c").write_text("edited")
    assert gen._select_stale(PLANS, gen._existing, False) == {"module-api"}

    steered = open_generator(impl, repo, steering="v2")
    assert steered._select_stale(PLANS[:1], steered._existing, False) == {"module-core"}


def test_synthesis_marking_survives_reopen_and_stays_on_its_branch(impl: ModuleType, repo: Path) -> None:
    main, dev = open_generator(impl, repo), open_generator(impl, repo, branch="dev")
    for gen in (main, dev):
        gen._persist_plan_skeleton(PLANS)
        gen.reload()
        for plan in PLANS:
            gen.save_page(plan, "text")
    main._mark_synthesis_stale(["module-core", "module-core", "nowhere"])
    reopened, dev_again = open_generator(impl, repo), open_generator(impl, repo, branch="dev")
    assert reopened._existing["module-core"]["source_hashes"] == STALE_MARK
    assert reopened._existing["module-api"]["source_hashes"] != STALE_MARK
    assert all(r["source_hashes"] != STALE_MARK for r in dev_again._existing.values())
    assert reopened._select_stale(PLANS, reopened._existing, False) == {"module-core"}


def test_cited_file_edited_then_deleted(impl: ModuleType, repo: Path) -> None:
    gen = open_generator(impl, repo)
    plan = PLANS[0]
    body = "Lead.\n## Reading\n[[core/a.c:1-1]]\n## Writing\n[[api/h.c:1-1|put]]\n"
    gen.save_page(plan, body)
    row = gen._existing["module-core"]
    assert gen._page_changes(plan, row)["changed_files"] == {"added": [], "removed": [], "modified": []}
    (repo / "api" / "h.c").write_text("changed")
    report = gen._page_changes(plan, gen._existing["module-core"])
    assert report["changed_files"]["modified"] == ["api/h.c"]
    assert [s["heading"] for s in report["stale_sections"]] == ["Writing"]
    (repo / "core" / "a.c").unlink()
    report = gen._page_changes(plan, gen._existing["module-core"])
    assert report["changed_files"]["removed"] == ["core/a.c"]
    assert [s["heading"] for s in report["stale_sections"]] == ["Reading", "Writing"]


def test_bad_inputs_write_nothing(impl: ModuleType, repo: Path) -> None:
    gen = open_generator(impl, repo)
    with pytest.raises(AttributeError):
        gen._persist_plan_skeleton([PLANS[0], "not a plan"])
    with pytest.raises(TypeError):
        gen._mark_synthesis_stale(["module-core", 3])
    with pytest.raises(TypeError, match="object is not iterable"):
        gen._persist_plan_skeleton(None)
    assert rows(gen) == {}
