"""Shared fixtures: every behaviour test runs against the native module and its
pure-Python twin, and each run proves which of the two it holds.

`--impl=twin` (or `native`) keeps only the tests that exercise that
implementation; scripts/mutation runs the suite that way against faulty twins."""

from __future__ import annotations

import importlib
import importlib.machinery
import os
from types import ModuleType

import pytest
from hypothesis import Phase, settings

# "ci": the default run; "long": a deeper search by hand; "mutation": the ci search,
# repeatable and without shrinking, for scripts/mutation.
settings.register_profile("ci", max_examples=200, deadline=None)
settings.register_profile("long", max_examples=5000, deadline=None)
settings.register_profile("mutation", max_examples=200, deadline=None, derandomize=True, database=None,
                          phases=[Phase.explicit, Phase.reuse, Phase.generate])  # fmt: skip
settings.load_profile(os.environ.get("HYPOTHESIS_PROFILE", "ci"))

NATIVE = "malde_ostrel.workers.wiki.plan_record"
TWIN = "malde_ostrel.workers.wiki._pyplan_record"


def load(kind: str) -> ModuleType:
    module = importlib.import_module(NATIVE if kind == "native" else TWIN)
    loader = module.__loader__
    if kind == "native":
        assert isinstance(loader, importlib.machinery.ExtensionFileLoader), module
    else:
        assert isinstance(loader, importlib.machinery.SourceFileLoader), module
    return module


def pytest_addoption(parser: pytest.Parser) -> None:
    parser.addoption(
        "--impl",
        choices=["both", "native", "twin"],
        default="both",
        help="keep only the tests that exercise this implementation",
    )


def pytest_collection_modifyitems(config: pytest.Config, items: list[pytest.Item]) -> None:
    wanted = config.getoption("--impl")
    if wanted == "both":
        return
    keep, drop = [], []
    for item in items:
        spec = getattr(item, "callspec", None)
        chosen = spec.params.get("impl") if spec is not None else None
        uses = set(getattr(item, "fixturenames", ()))
        if chosen is not None:
            selected = chosen == wanted
        else:
            selected = wanted in uses
        (keep if selected else drop).append(item)
    if drop:
        config.hook.pytest_deselected(items=drop)
    # Behaviour tests first, the slower comparisons with the other implementation last.
    items[:] = sorted(keep, key=lambda item: {"native", "twin"} <= set(getattr(item, "fixturenames", ())))


@pytest.fixture(scope="session", params=["native", "twin"])
def impl(request: pytest.FixtureRequest) -> ModuleType:
    """The module under test: the native extension or the twin."""
    return load(request.param)


@pytest.fixture(scope="session")
def native() -> ModuleType:
    return load("native")


@pytest.fixture(scope="session")
def twin() -> ModuleType:
    return load("twin")
