"""The directory planner: deterministic ids, family split, steering pages."""

from __future__ import annotations

import random
from pathlib import Path

import pytest

from malde_ostrel.workers.wiki.tool import planner
from malde_ostrel.workers.wiki.tool.planner import MAX_FILES_PER_PAGE as LIMIT
from malde_ostrel.workers.wiki.tool.planner import Steering, SteeringError, SteeringPage, plan_pages
from malde_ostrel.workers.wiki.tool.splits import split
from malde_ostrel.workers.wiki.types import PagePlan

PATHS = ["README.md", "setup.py", "src/core/a.py", "src/core/b.py", "src/io/read.c", "src/io/read.h",
         "docs/guide.md", "Makefile", *(f"big/m{i:02d}.rs" for i in range(1, 2 * LIMIT + 2))]  # fmt: skip


def by_id(plans: list[PagePlan]) -> dict[str, PagePlan]:
    return {plan.page_id: plan for plan in plans}


def module_ids(paths: list[str]) -> list[str]:
    return [p.page_id for p in plan_pages(paths) if p.page_id.startswith("module-")]


def test_same_paths_in_any_order_give_the_same_plan() -> None:
    steering = Steering(text="t", pages=(SteeringPage("Guide", ("docs/**",)),))
    first = plan_pages(PATHS, steering)
    for seed in range(5):
        shuffled = list(PATHS)
        random.Random(seed).shuffle(shuffled)
        assert plan_pages(shuffled + shuffled[:3], steering) == first
    ids = [plan.page_id for plan in first]
    assert len(ids) == len(set(ids)) and ids[:2] == ["overview", "architecture"] and ids[-1] == "custom-guide"
    plans = by_id(first)
    assert plans["module-root"].source_files == ["setup.py"]
    assert plans["module-src-core"].source_files == ["src/core/a.py", "src/core/b.py"]
    assert (plans["module-src-io"].title, plans["module-src-io"].description) == ("io", "Code in src/io/")
    assert not any("docs" in pid for pid in plans if pid.startswith("module-"))  # no sources, no page


def test_large_directory_becomes_a_family_of_sorted_parts() -> None:
    plans = plan_pages(PATHS)
    ids = by_id(plans)
    parent = ids["module-big"]
    files = sorted(p for p in PATHS if p.startswith("big/"))
    assert parent.source_files == [] and parent.stored_source_files() == []
    parts = [ids[child] for child in parent.children]
    assert len(parts) > 1 and [f for part in parts for f in part.source_files] == files
    assert all(0 < len(part.source_files) <= LIMIT and part.related_pages == [] for part in parts)
    # A part is named after its first file, and titled by its first and last.
    first = [part.source_files[0].rpartition("/")[2].split(".")[0] for part in parts]
    assert parent.children == [f"module-big-part-{name}" for name in first]
    wide = next(part.source_files for part in parts if len(part.source_files) > 1)
    assert ids[f"module-big-part-{wide[0][4:7]}"].title == f"big ({wide[0][4:]} to {wide[-1][4:]})"
    order = [plan.page_id for plan in plans]
    assert order.index("module-big") < order.index(parent.children[0])
    # The largest directory scores 1; the others in proportion.
    assert (parent.importance_score, parent.importance) == (1.0, "high")
    assert ids["module-src-core"].importance_score == pytest.approx(2 / len(files))


def test_one_file_more_or_less_seldom_moves_another_part() -> None:
    rng = random.Random(3)
    moved = {"add": 0, "remove": 0}
    for _ in range(200):
        files = sorted({f"lib/{rng.choice('abcdefgh')}{rng.randrange(10**6)}.py"
                        for _ in range(rng.randint(13, 150))})  # fmt: skip
        before = {tuple(part) for part in split(files, LIMIT)}
        added = sorted({*files, f"lib/{rng.choice('abcdefgh')}{rng.randrange(10**6)}.py"})
        index = rng.randrange(len(files))
        for kind, after in (("add", added), ("remove", files[:index] + files[index + 1 :])):
            parts = split(after, LIMIT)
            assert [f for part in parts for f in part] == after
            assert all(0 < len(part) <= LIMIT for part in parts)
            moved[kind] += len(before - {tuple(part) for part in parts}) > 1
    # Cutting by position would move nearly every later part, every time.
    assert moved["add"] <= 20 and moved["remove"] <= 50


@pytest.mark.parametrize(
    ("paths", "expected"),
    [
        ([f"lib/f{i:02d}.go" for i in range(LIMIT)], ["module-lib"]),  # the limit stays one page
        (["a/x.py", "b/y.py"], ["module-a", "module-b"]),
        (["Src/My Lib/x.py"], ["module-src-my-lib"]),
        (["a_b/x.py", "a-b/y.py"], ["module-a-b", "module-a-b-2"]),
        # The catch-all page's id form is never given to a directory.
        (["additional/x.py"], ["module-additional-code"]),
        (["additional-3/x.py", "additional/3/y.py"],
         ["module-additional-3-code", "module-additional-3-code-2"]),
        (["root/x.py", "top.py"], ["module-root", "module-root-2"]),
        # A directory named like a part does not steal its id.
        ([*(f"w/f{i:02d}.c" for i in range(LIMIT + 1)), "w/part-f00/k.c"],
         ["module-w", "module-w-part-f00", "module-w-part-f04", "module-w-part-f00-2"]),
    ],
)  # fmt: skip
def test_page_ids_are_safe_and_distinct(paths: list[str], expected: list[str]) -> None:
    assert module_ids(paths) == expected
    assert all(not planner._RESERVED_RE.match(pid) for pid in expected)


def test_titles_architecture_and_importance() -> None:
    paths = ["a/migrations/x.py", "b/migrations/x.py", "c/z/migrations/x.py",
             "d/z/migrations/x.py", "util/x.py", "top.py"]  # fmt: skip
    titles = [p.title for p in plan_pages(paths) if p.page_id.startswith("module-")]
    assert titles == ["top level", "a/migrations", "b/migrations", "c/z/migrations",
                      "d/z/migrations", "util"]  # fmt: skip
    assert "architecture" not in by_id(plan_pages(["a/x.py", "b/y.py"]))
    # Importance by share of the largest directory: two thirds is high, one third medium.
    three = by_id(plan_pages(["a/1.py", "a/2.py", "a/3.py", "b/1.py", "b/2.py", "c/1.py"]))
    assert "architecture" in three and [three[f"module-{d}"].importance for d in "bc"] == ["high", "medium"]
    assert plan_pages([]) == plan_pages(["README.md"])
    assert len(by_id(plan_pages([*(f"lib/f{i:02d}.go" for i in range(LIMIT + 1))]))["module-lib"].children) == 2


@pytest.mark.parametrize(
    ("pattern", "hits"),
    [
        ("docs/**", ["docs/a.md", "docs/x/b.md"]), ("docs/", ["docs/a.md", "docs/x/b.md"]),
        ("docs/*.md", ["docs/a.md"]), ("**/*.md", ["README.md", "docs/a.md", "docs/x/b.md"]),
        ("*.md", ["README.md"]), ("src/**/*.py", ["src/m.py", "src/sub/n.py"]),
        ("src/[mn].py", ["src/m.py"]), ("src/[!m].py", []), ("src/?.py", ["src/m.py"]),
        ("/README.md", ["README.md"]), ("docs.md", []),
    ],
)  # fmt: skip
def test_glob_patterns_match_whole_paths(pattern: str, hits: list[str]) -> None:
    paths = ["README.md", "docs/a.md", "docs/x/b.md", "src/m.py", "src/sub/n.py", "docsXmd"]
    assert planner.matching([pattern], paths) == hits


def test_steering_text_and_a_missing_file(tmp_path: Path) -> None:
    (tmp_path / planner.STEERING_FILE).write_text('steering = "  Be brief.  "\n', encoding="utf-8")
    assert planner.read_steering(tmp_path).text == "Be brief."
    assert planner.read_steering(tmp_path / "missing") == Steering()


@pytest.mark.parametrize(
    ("text", "fragment"),
    [
        (b"steering = ", "not valid TOML"), (b"steering = 3", "steering must be a string"),
        (b"stearing = 'x'", "unknown key(s) stearing"), (b"[[page]]\nfiles = ['a']", "has no title"),
        (b"[[page]]\ntitle = ' '", "empty title"),
        (b"[[page]]\ntitle = 'x'\nfiles = [1]", "files entry must be a string"),
        (b"[[page]]\ntitle = 'x'\nglob = 'a'", "unknown key(s) glob"),
        (b"page = 'x'", "array of tables"), (b"steering = '\xff'", "not UTF-8"),
    ],
)  # fmt: skip
def test_bad_steering_is_one_clear_error(tmp_path: Path, text: bytes, fragment: str) -> None:
    (tmp_path / planner.STEERING_FILE).write_bytes(text)
    with pytest.raises(SteeringError) as caught:
        planner.read_steering(tmp_path)
    assert fragment in str(caught.value) and "\n" not in str(caught.value)
