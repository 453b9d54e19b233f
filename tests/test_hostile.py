"""Hostile input for every entry point, native module against the twin.

Each case is a recipe of plain data that builds its inputs afresh for each
implementation: records, mappings, lists and texts laced with values of the
wrong kind (None, numbers, bytes, subclasses of the built-in kinds, objects
whose comparison, hashing, truth, iteration or lookup raise). A case then runs
once as drawn, once with each collaborator failing or answering with the wrong
kind on each call a normal run makes, and once with module names rebound or
deleted. The native module must raise the same kind of exception as the twin
(or return what it returns), ask its collaborators the same things, and leave
the inputs as the twin leaves them.

HYPOTHESIS_PROFILE=long searches deeper; with HOSTILE_SUMMARY set it writes
the figures of the run to that file at the end.
"""

from __future__ import annotations

import logging
import os
import tempfile
from collections.abc import Callable, Iterator
from pathlib import Path
from types import ModuleType
from typing import Any

import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

from malde_ostrel.workers.wiki.replan_carry import ReplanRemap
from malde_ostrel.workers.wiki.types import PagePlan

LONG = os.environ.get("HYPOTHESIS_PROFILE") == "long"
STATS = {"cases": 0, "faults": 0, "findings": 0}
# Fault points tried per case: every one in a long run, a sample in the normal one.
FAULT_BUDGET = 10_000 if LONG else 14


def examples(normal: int, long: int) -> Callable[[Any], Any]:
    return settings(max_examples=long if LONG else normal, deadline=None,
                    suppress_health_check=[HealthCheck.too_slow, HealthCheck.data_too_large])


class Boom(Exception):
    """What every hostile object and every failing collaborator raises."""


class Hostile:
    """A value whose listed operations raise."""

    def __init__(self, fail: frozenset[str], serial: int) -> None:
        self.fail, self.serial = fail, serial

    def _check(self, op: str) -> None:
        if op in self.fail:
            raise Boom(op)

    def __repr__(self) -> str:
        # Stable across runs: it can end up inside texts the module builds.
        return f"Hostile({self.serial})"

    def __eq__(self, other: object) -> bool:
        self._check("eq")
        return self is other

    def __hash__(self) -> int:
        self._check("hash")
        return self.serial

    def __bool__(self) -> bool:
        self._check("bool")
        return True

    def __iter__(self) -> Iterator[Any]:
        self._check("iter")
        return iter(())

    def __getitem__(self, key: Any) -> Any:
        self._check("getitem")
        raise KeyError(key)

    def get(self, key: Any, default: Any = None) -> Any:
        self._check("get")
        return default

    def __lt__(self, other: object) -> bool:
        self._check("lt")
        return False


class Text(str):
    pass


class Items(list):  # type: ignore[type-arg]
    pass


class Table(dict):  # type: ignore[type-arg]
    pass


# ---------------------------------------------------------------------------
# Recipes: plain data, built into fresh objects for each run.

IDS = ["module-a", "module-b", "module-c", "module-additional", "module-additional-2",
       "custom-x", "overview", "P", "P-a", "P-b"]
FILES = ["a.c", "b.c", "c.c", "d/e.c", "d/f.c", "g.h"]
LEVELS = ["module", "package", "subsystem", "overview", "note", "", None]
FAILS = [frozenset(s) for s in (["eq"], ["hash"], ["bool"], ["iter"], ["getitem"], ["get"],
                                 ["lt"], ["eq", "hash", "bool", "iter", "getitem", "get", "lt"],
                                 [])]

hostile_leaf = st.one_of(
    st.just(("none",)),
    st.integers(-3, 3).map(lambda n: ("int", n)),
    st.just(("bytes", b"a.c")),
    st.sampled_from(FAILS).map(lambda f: ("hostile", f)),
    st.sampled_from(IDS + FILES).map(lambda s: ("strsub", s)),
    st.just(("float", float("nan"))),
)


def laced(normal: st.SearchStrategy[Any], odds: int = 24) -> st.SearchStrategy[Any]:
    """Mostly `normal`, now and then a value of the wrong kind."""
    return st.integers(0, odds - 1).flatmap(lambda i: hostile_leaf if i == 0 else normal)


def text(choices: list[str]) -> st.SearchStrategy[Any]:
    return laced(st.sampled_from(choices).map(lambda s: ("text", s)))


def seq(item: st.SearchStrategy[Any], kind: str = "list", max_size: int = 4) -> st.SearchStrategy[Any]:
    wrapper = st.sampled_from([kind, kind, kind, "listsub"]) if kind == "list" else st.just(kind)
    return laced(st.tuples(wrapper, st.lists(item, max_size=max_size)))


def mapping(entries: st.SearchStrategy[Any], max_size: int = 5) -> st.SearchStrategy[Any]:
    return laced(st.tuples(st.sampled_from(["dict", "dict", "dictsub"]),
                           st.lists(entries, max_size=max_size)))


level_recipe = laced(st.sampled_from(LEVELS).map(lambda s: ("none",) if s is None else ("text", s)))
files_recipe = seq(text(FILES))
ids_recipe = seq(text(IDS))

def record(usual: dict[str, Any], rare: dict[str, Any]) -> st.SearchStrategy[Any]:
    """A record: the usual keys nearly always there, the rare ones now and then."""
    keys = st.fixed_dictionaries(
        {k: st.tuples(st.integers(0, 9), v) for k, v in usual.items()},
        optional={k: st.tuples(st.just(0), v) for k, v in rare.items()})
    return laced(st.tuples(st.sampled_from(["dict", "dict", "dictsub"]), keys.map(
        lambda d: [(("text", k), v) for k, (n, v) in d.items() if n])))


hashes_recipe = mapping(st.tuples(text(FILES + ["__stale__", "__steering__"]), text(["h1", "h2"])))
row_recipe = record(
    {"page_id": text(IDS), "source_files": files_recipe, "level": level_recipe},
    {"title": text(["T", "", "Other code"]), "importance": text(["high", "", "low"]),
     "description": text(["d", ""]), "related_pages": ids_recipe, "page_type": text(["", "t"]),
     "source_hashes": hashes_recipe, "content_hash": text(["c", "c", ""]),
     "build_cache": record({}, {"file_hashes": hashes_recipe,
                                "sections": seq(record({"files": files_recipe}, {}))})})
written_row_recipe = record(
    {"page_id": text(IDS), "source_files": files_recipe, "content_hash": text(["c"]),
     "source_hashes": hashes_recipe,
     "build_cache": record({"file_hashes": hashes_recipe,
                            "sections": seq(record({"files": files_recipe, "heading": text(["A"])},
                                                   {}))}, {})}, {})

plan_recipe = laced(st.tuples(st.just("plan"), st.fixed_dictionaries({}, optional={
    "title": text(["T", ""]), "level": level_recipe, "importance": text(["high", ""]),
    "source_files": files_recipe, "children": ids_recipe, "related_pages": ids_recipe,
    "catch_all": laced(st.booleans().map(lambda b: ("bool", b))),
    "type": text(["", "t"]), "parent_section": text(["S", ""]),
    "importance_score": laced(st.floats(-2, 2).map(lambda f: ("float", f))),
}), text(IDS)), odds=30)

existing_recipe = mapping(st.tuples(text(IDS), row_recipe), max_size=6)
live_recipe = seq(text(FILES), kind="set", max_size=6)
plans_recipe = seq(plan_recipe, max_size=6)
amendment_recipe = record(
    {"action": text(["add", "retire", "remap", "extend"]), "page_id": text(IDS)},
    {"reason": text(["r", "\u2028ü"]), "level": level_recipe})
line_recipe = laced(st.sampled_from([1, 1, 3, 2]).map(lambda n: ("int", n)))
citation_recipe = record({"path": text(FILES), "line_start": line_recipe, "line_end": line_recipe},
                       {"symbol": text(["f", "g", ""])})
BODY_LINES = ["", "## A", "##  B ##", "```", "~~~", "text [[a.c:1-2|f]]", "[[b.c:3]] x",
              "#### deep", "[[d/e.c:1]]"]
body_recipe = laced(st.lists(st.sampled_from(BODY_LINES), max_size=8).map(
    lambda lines: ("text", "\n".join(lines))))


class Builder:
    def __init__(self) -> None:
        self.serial = 0
        self.plans: list[PagePlan] = []

    def __call__(self, recipe: Any) -> Any:
        kind = recipe[0]
        if kind == "none":
            return None
        if kind in ("int", "float", "bytes", "bool", "text"):
            return recipe[1]
        if kind == "strsub":
            return Text(recipe[1])
        if kind == "hostile":
            self.serial += 1
            return Hostile(recipe[1], self.serial)
        if kind in ("list", "listsub"):
            items = [self(s) for s in recipe[1]]
            return items if kind == "list" else Items(items)
        if kind == "set":
            out = set()
            for s in recipe[1]:
                try:
                    out.add(self(s))
                except Exception:  # noqa: BLE001 - an unhashable value stays out
                    pass
            return out
        if kind in ("dict", "dictsub"):
            out_map: dict[Any, Any] = {} if kind == "dict" else Table()
            for k, v in recipe[1]:
                try:
                    out_map[self(k)] = self(v)
                except Exception:  # noqa: BLE001 - an unusable key stays out
                    pass
            return out_map
        if kind == "plan":
            fields = {name: self(s) for name, s in recipe[1].items()}
            plan = PagePlan(page_id=self(recipe[2]), **fields)
            self.plans.append(plan)
            return plan
        raise AssertionError(recipe)


def snap(value: Any, plans: dict[int, int], depth: int = 0) -> Any:
    """A comparable picture of a value that never runs hostile code."""
    if depth > 12:
        return "..."
    kind = type(value)
    if kind is Hostile:
        return ("hostile", sorted(value.fail), value.serial)
    if isinstance(value, PagePlan):
        fields = {k: snap(v, plans, depth + 1) for k, v in vars(value).items()}
        return ("plan", plans.get(id(value)), fields)
    if isinstance(value, ReplanRemap):
        return ("remap", snap(dict(value), plans, depth + 1), snap(value.merged, plans, depth + 1))
    if isinstance(value, dict):
        return (kind.__name__, [(snap(k, plans, depth + 1), snap(v, plans, depth + 1))
                                for k, v in dict.items(value)])
    if isinstance(value, (list, tuple)):
        return (kind.__name__, [snap(v, plans, depth + 1) for v in value])
    if isinstance(value, (set, frozenset)):
        return (kind.__name__, sorted(repr(snap(v, plans, depth + 1)) for v in value))
    if isinstance(value, str):
        return (kind.__name__, str.__str__(value))
    if isinstance(value, float) and value != value:
        return "nan"
    if isinstance(value, (int, float, bytes, type(None))):
        return (kind.__name__, value)
    return (kind.__name__,)


# ---------------------------------------------------------------------------
# Collaborators that fail on a chosen call or answer with the wrong kind.

MODULE_COLLABORATORS = [
    "amend", "unit_topic", "PagePlan", "keep_agent_titles", "link_families", "carry_superseded",
    "inherit_prose", "prose_citations", "citation_key", "_text_hash", "_norm", "changed_files",
    "stale_sections", "section_of", "ReplanRemap",
]
HOST_METHODS = ["_hashes_with_steering", "_source_hashes", "upsert_wiki_page", "transaction",
                "execute", "__enter__", "__exit__"]
WRONG_KINDS: list[Callable[[], Any]] = [
    lambda: None, lambda: 7, lambda: "text", lambda: Hostile(FAILS[7], 0),
    lambda: Items(["a.c"]), lambda: Table(removed=[], modified=[]), lambda: b"x",
]


class Faults:
    """Counts the calls to each collaborator and spoils the chosen one."""

    def __init__(self, target: tuple[str, int, int] | None = None) -> None:
        self.target, self.counts = target, {}
        self.calls: list[tuple[str, Any]] = []
        self.plans: dict[int, int] = {}

    def call(self, name: str, real: Callable[..., Any], *args: Any, **kwargs: Any) -> Any:
        self.counts[name] = self.counts.get(name, 0) + 1
        self.calls.append((name, snap((args, kwargs), self.plans)))
        if self.target is not None and self.target[:2] == (name, self.counts[name]):
            mode = self.target[2]
            if mode == 0:
                raise Boom(name)
            return WRONG_KINDS[mode - 1]()
        return real(*args, **kwargs)


class Patched:
    """Module names rebound for one run, restored afterwards."""

    def __init__(self, module: ModuleType, faults: Faults, rebind: tuple[str, int] | None) -> None:
        self.module, self.faults, self.rebind = module, faults, rebind
        self.saved: dict[str, Any] = {}

    def __enter__(self) -> None:
        names = list(MODULE_COLLABORATORS) + ([self.rebind[0]] if self.rebind else [])
        for name in names:
            if name not in self.saved:
                self.saved[name] = self.module.__dict__.get(name, _ABSENT)
        for name in MODULE_COLLABORATORS:
            real = self.saved[name]
            faults = self.faults

            def wrapper(*args: Any, _name: str = name, _real: Any = real, **kwargs: Any) -> Any:
                return faults.call(_name, _real, *args, **kwargs)

            setattr(self.module, name, wrapper)
        if self.rebind:
            name, how = self.rebind
            if how == 0:
                self.module.__dict__.pop(name, None)
            else:
                setattr(self.module, name, WRONG_KINDS[how - 1]())

    def __exit__(self, *exc: Any) -> None:
        for name, value in self.saved.items():
            if value is _ABSENT:
                self.module.__dict__.pop(name, None)
            else:
                setattr(self.module, name, value)


_ABSENT = object()

REBINDABLE = MODULE_COLLABORATORS + [
    "PINNED_LEVELS", "NOTE_LEVEL", "OTHER_CODE_TYPE", "_CATCH_ALL_RE", "_SECTION_RE",
    "_MIN_NEW_PAGE_FILES", "_PLAN_LOG_NAME", "_PLAN_LOG_MAX_LINES", "_PLAN_LOG_KEEP_LINES",
    "_STALE_SENTINEL", "STEERING_SENTINEL", "json", "datetime", "logger", "_plan_from_row",
    "_demote_unrecorded_families", "_by_importance", "_sections", "section_map",
]


# ---------------------------------------------------------------------------
# The host of the mixin's methods.

_HOSTS: dict[str, type] = {}


def host_class(module: ModuleType) -> type:
    if module.__name__ in _HOSTS:
        return _HOSTS[module.__name__]

    class Transaction:
        def __init__(self, host: Any) -> None:
            self.host = host

        def __enter__(self) -> Any:
            return self.host.faults.call("__enter__", lambda: None)

        def __exit__(self, kind: Any, value: Any, tb: Any) -> Any:
            return self.host.faults.call("__exit__", lambda *a: self.host.suppress,
                                         kind and kind.__name__)

    class Db:
        def __init__(self, host: Any) -> None:
            self.host = host

        def transaction(self) -> Any:
            return self.host.faults.call("transaction", lambda: Transaction(self.host))

        def execute(self, sql: Any, params: Any) -> Any:
            return self.host.faults.call("execute", lambda *a: None, sql, params)

    class Repository:
        def __init__(self, host: Any) -> None:
            self.host = host
            self.db = Db(host)

        def upsert_wiki_page(self, *args: Any, **kwargs: Any) -> Any:
            return self.host.faults.call("upsert_wiki_page", lambda *a, **k: None, *args, **kwargs)

    class Host(module.PlanRecordMixin):  # type: ignore[name-defined,misc]
        def __init__(self, faults: Faults, existing: Any, branch: Any, hashes: Any,
                     suppress: Any) -> None:
            self.faults, self._existing, self.branch = faults, existing, branch
            self.hashes, self.suppress = hashes, suppress
            self.repository = Repository(self)

        def _hashes_with_steering(self, files: Any) -> Any:
            return self.faults.call("_hashes_with_steering", lambda f: {
                **{p: self.hashes.get(p, "") for p in f}, "__steering__": "s1"}, files)

        def _source_hashes(self, paths: Any) -> Any:
            return self.faults.call("_source_hashes", lambda f: {p: self.hashes.get(p) for p in f},
                                    paths)

    _HOSTS[module.__name__] = Host
    return Host


# ---------------------------------------------------------------------------
# Cases: an entry point and the recipes of its arguments.

HOST_ENTRIES = {"_persist_plan_skeleton", "_select_stale", "_mark_synthesis_stale",
                "_section_cache", "_page_changes"}

host_recipe = st.fixed_dictionaries({
    "existing": existing_recipe, "branch": text(["main"]),
    "hashes": mapping(st.tuples(text(FILES), text(["h1", "h2", ""]))),
    "suppress": laced(st.booleans().map(lambda b: ("bool", b))),
})

cases = st.one_of(
    st.tuples(st.just("_plan_from_row"), st.tuples(row_recipe, live_recipe), st.just({})),
    st.tuples(st.just("pin_plan"), st.tuples(plans_recipe, existing_recipe, live_recipe),
              st.fixed_dictionaries({"replan": st.booleans().map(lambda b: ("bool", b))})),
    st.tuples(st.just("_demote_unrecorded_families"), st.tuples(plans_recipe, existing_recipe),
              st.just({})),
    st.tuples(st.just("_by_importance"), st.tuples(plans_recipe), st.just({})),
    st.tuples(st.just("drift_signal"),
              st.tuples(seq(amendment_recipe), laced(st.integers(0, 12).map(lambda n: ("int", n)))),
              st.just({})),
    st.tuples(st.just("append_plan_log"), st.tuples(seq(amendment_recipe, max_size=2)),
              st.fixed_dictionaries({"replan": laced(st.booleans().map(lambda b: ("bool", b)))})),
    st.tuples(st.just("_sections"), st.tuples(body_recipe), st.just({})),
    st.tuples(st.just("section_map"),
              st.tuples(body_recipe, seq(citation_recipe),
                        mapping(st.tuples(text(FILES), text(["h1", "h2"])))), st.just({})),
    st.tuples(st.just("_persist_plan_skeleton"), st.tuples(plans_recipe), host_recipe),
    st.tuples(st.just("_select_stale"),
              st.tuples(plans_recipe, existing_recipe, laced(st.booleans().map(lambda b: ("bool", b)))),
              host_recipe),
    st.tuples(st.just("_mark_synthesis_stale"), st.tuples(ids_recipe), host_recipe),
    st.tuples(st.just("_section_cache"), st.tuples(body_recipe, seq(citation_recipe)), host_recipe),
    st.tuples(st.just("_page_changes"), st.tuples(plan_recipe, written_row_recipe), host_recipe),
)


class Run:
    """One call of an entry point of one implementation, from a recipe."""

    def __init__(self, module: ModuleType, case: Any, faults: Faults,
                 rebind: tuple[str, int] | None = None,
                 spoil: Callable[[ModuleType, list[Any]], None] | None = None) -> None:
        name, arg_recipes, extra = case
        build = Builder()
        self.args = [build(s) for s in arg_recipes]
        kwargs = {k: build(s) for k, s in extra.items() if k == "replan"}
        faults.plans = {id(p): i for i, p in enumerate(build.plans)}
        self.plans = faults.plans
        self.faults = faults
        self.host = None
        if name in HOST_ENTRIES:
            hosted = {k: build(s) for k, s in extra.items()}
            self.host = host_class(module)(faults, **hosted)
            function = getattr(self.host, name)
        else:
            function = getattr(module, name)
        self.tmp: tempfile.TemporaryDirectory[str] | None = None
        if name == "append_plan_log":
            self.tmp = tempfile.TemporaryDirectory()
            self.args.insert(0, Path(self.tmp.name) / "wiki")
        if spoil is not None:
            spoil(module, self.args)
        logger = logging.getLogger(module.__name__)
        previous, logger.disabled = logger.disabled, True
        try:
            with Patched(module, faults, rebind):
                try:
                    self.result: Any = ("returned", snap(function(*self.args, **kwargs), self.plans))
                except Exception as error:  # noqa: BLE001 - every failure is an outcome
                    self.result = ("raised", type(error).__name__)
        finally:
            logger.disabled = previous
        self.log_lines = None
        if self.tmp is not None:
            log = Path(self.tmp.name) / "wiki" / "plan-log.jsonl"
            self.log_lines = len(log.read_bytes().split(b"\n")) if log.exists() else None
            self.tmp.cleanup()

    def inputs(self) -> Any:
        args = self.args[1:] if self.tmp is not None else self.args
        hosted = None
        if self.host is not None:
            hosted = snap(self.host._existing, self.plans)
        return snap(args, self.plans), hosted


def compare(native: ModuleType, twin: ModuleType, case: Any, target: tuple[str, int, int] | None = None,
            rebind: tuple[str, int] | None = None) -> Run:
    mine = Run(native, case, Faults(target), rebind)
    theirs = Run(twin, case, Faults(target), rebind)
    try:
        assert mine.result == theirs.result, (case, target, rebind)
        assert mine.faults.calls == theirs.faults.calls, (case, target, rebind)
        assert mine.inputs() == theirs.inputs(), (case, target, rebind)
        assert mine.log_lines == theirs.log_lines, (case, target, rebind)
    except AssertionError:
        STATS["findings"] += 1
        raise
    return theirs


def fault_points(counts: dict[str, int], pick: int) -> list[tuple[str, int, int]]:
    points = [(name, k, (k + pick) % (len(WRONG_KINDS) + 1))
              for name, n in sorted(counts.items()) for k in range(1, n + 1)]
    points += [(name, k, 0) for name, _k, mode in list(points) if mode != 0 for k in [_k]]
    if len(points) > FAULT_BUDGET:
        step = len(points) / FAULT_BUDGET
        points = [points[min(int(i * step + pick % step), len(points) - 1)] for i in range(FAULT_BUDGET)]
    return points


class TestHostileInput:
    @examples(normal=250, long=5000)
    @given(case=cases)
    def test_wrong_kinds_everywhere(self, native: ModuleType, twin: ModuleType, case: Any) -> None:
        STATS["cases"] += 1
        compare(native, twin, case)

    @examples(normal=60, long=1500)
    @given(case=cases, pick=st.integers(0, 1000))
    def test_collaborators_fail_on_each_call(self, native: ModuleType, twin: ModuleType,
                                             case: Any, pick: int) -> None:
        STATS["cases"] += 1
        normal = compare(native, twin, case)
        for target in fault_points(normal.faults.counts, pick):
            STATS["faults"] += 1
            compare(native, twin, case, target=target)

    @examples(normal=60, long=1500)
    @given(case=cases, name=st.sampled_from(REBINDABLE), how=st.integers(0, len(WRONG_KINDS)))
    def test_module_names_rebound_or_deleted(self, native: ModuleType, twin: ModuleType,
                                             case: Any, name: str, how: int) -> None:
        STATS["cases"] += 1
        STATS["faults"] += 1
        compare(native, twin, case, rebind=(name, how))
        # The module works again once the name is back.
        compare(native, twin, case)


# ---------------------------------------------------------------------------
# Collaborators that change the very inputs being walked: only an outcome,
# never a crash, is required.

def _clear(value: Any) -> None:
    if isinstance(value, (list, dict, set)):
        value.clear()


MUTATIONS: dict[str, tuple[str, Callable[[list[Any], Any], None]]] = {
    # carry_superseded deletes rows of the stored pages being walked.
    "carry_superseded": ("pin_plan", lambda args, a: _clear(args[1])),
    # amend clears the fresh plan list.
    "amend": ("pin_plan", lambda args, a: _clear(args[0])),
    # inherit_prose empties the live paths and the stored pages.
    "inherit_prose": ("pin_plan", lambda args, a: (_clear(args[2]), _clear(args[1]))),
    # keep_agent_titles drops the stored pages it is given.
    "keep_agent_titles": ("pin_plan", lambda args, a: _clear(args[1])),
    # unit_topic empties the live paths while rows are rebuilt.
    "unit_topic": ("pin_plan", lambda args, a: _clear(args[2])),
    # prose_citations mutates the citations list section_map is walking.
    "prose_citations": ("section_map", lambda args, a: (args[1].append({"path": "a.c"}),
                                                        args[1].pop(0)) if args[1] else None),
    # citation_key clears the stored hashes.
    "citation_key": ("section_map", lambda args, a: _clear(args[2])),
}


class Mutations:
    """Spoiled collaborators, installed on the module for one call."""

    def __init__(self, module: ModuleType, name: str, effect: Callable[[list[Any], Any], None],
                 args: list[Any]) -> None:
        self.module, self.name, self.effect, self.args = module, name, effect, args

    def __enter__(self) -> None:
        self.saved = self.module.__dict__[self.name]
        real, effect, args = self.saved, self.effect, self.args

        def collaborator(*a: Any, **k: Any) -> Any:
            effect(args, a)
            return real(*a, **k)

        setattr(self.module, self.name, collaborator)

    def __exit__(self, *exc: Any) -> None:
        setattr(self.module, self.name, self.saved)


class TestInputsMutatedByCollaborators:
    @pytest.mark.parametrize("collaborator", sorted(MUTATIONS))
    @examples(normal=40, long=800)
    @given(data=st.data())
    def test_outcome_without_crash(self, native: ModuleType, twin: ModuleType,
                                   collaborator: str, data: st.DataObject) -> None:
        entry_name, effect = MUTATIONS[collaborator]
        if entry_name == "pin_plan":
            recipes = data.draw(st.tuples(plans_recipe, existing_recipe, live_recipe, st.booleans()))
            arg_recipes, replan = recipes[:3], recipes[3]
        else:
            arg_recipes, replan = data.draw(st.tuples(body_recipe, seq(citation_recipe), mapping(
                st.tuples(text(FILES), text(["h1"]))))), None
        for module in (native, twin):
            STATS["cases"] += 1
            build = Builder()
            args = [build(s) for s in arg_recipes]
            kwargs = {} if replan is None else {"replan": replan}
            with Mutations(module, collaborator, effect, args):
                try:
                    getattr(module, entry_name)(*args, **kwargs)
                except Exception:  # noqa: BLE001 - an exception is an allowed outcome
                    pass
            # The module still answers a plain call afterwards.
            assert module._plan_from_row({"page_id": "p"}, set()).page_id == "p"


class TestHarness:
    """The search itself reaches what it claims to reach."""

    def test_fault_points_cover_every_call(self) -> None:
        points = fault_points({"amend": 2, "unit_topic": 1}, pick=0)
        assert {(n, k) for n, k, _ in points} == {("amend", 1), ("amend", 2), ("unit_topic", 1)}
        assert any(mode == 0 for *_, mode in points)


@pytest.fixture(scope="module", autouse=True)
def summary() -> Iterator[None]:
    yield
    target = os.environ.get("HOSTILE_SUMMARY")
    if LONG and target:
        Path(target).write_text(
            f"cases {STATS['cases']}\nfaults injected {STATS['faults']}\n"
            f"findings {STATS['findings']}\n", encoding="utf-8")
