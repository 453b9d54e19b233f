"""Shared fixtures: every behaviour test runs against the native module and its
pure-Python twin, and each run proves which of the two it holds."""

from __future__ import annotations

import importlib
import importlib.machinery
import os
from types import ModuleType

import pytest
from hypothesis import settings

# "ci": the default run; "long": a deeper search, for runs by hand.
settings.register_profile("ci", max_examples=200, deadline=None)
settings.register_profile("long", max_examples=5000, deadline=None)
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


@pytest.fixture(params=["native", "twin"])
def impl(request: pytest.FixtureRequest) -> ModuleType:
    """The module under test: the native extension or the twin."""
    return load(request.param)


@pytest.fixture(scope="session")
def native() -> ModuleType:
    return load("native")


@pytest.fixture(scope="session")
def twin() -> ModuleType:
    return load("twin")
