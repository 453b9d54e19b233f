"""Derived plans kept between runs, under the key of what they come from.

Deriving the plan of a large tree takes several times longer than reading it
back.  A plan is kept under a key made of everything ``planner.derive`` reads:
the sorted live paths, the paths left out by name, the bytes of the steering
file and of the attributes files, the family parents the store holds, and the code of the modules that derive it.
Any change of these gives another key, so a plan read back is the plan derive
would give.  A value that does not read back as a plan counts as none.
"""

from __future__ import annotations

import dataclasses
import functools
import json
from collections.abc import Iterable, Mapping, Sequence
from pathlib import Path
from typing import Any

from malde_ostrel.workers.wiki.repo_facts import blake2b
from malde_ostrel.workers.wiki.types import PagePlan

_FIELDS = tuple(field.name for field in dataclasses.fields(PagePlan))
# The modules whose code decides the plan of given inputs (this one decides its form).
_CODE = ("planner.py", "splits.py", "attributes.py", "globs.py", "../page_sources.py", "../types.py", "plan_cache.py")


@functools.cache
def _code_digest() -> bytes | None:
    here = Path(__file__).parent
    digest = blake2b(digest_size=16)
    try:
        for name in _CODE:
            digest.update((here / name).read_bytes())
    except OSError:
        return None  # no source to tell one release from another: no keys
    return digest.digest()


def key(
    paths: Sequence[str],
    exclude: Iterable[str],
    steering: bytes | None,
    attributes: Mapping[str, str | None],
    families: Iterable[str] = (),
) -> str | None:
    """The key of a plan's inputs; None when plans cannot be kept."""
    code = _code_digest()
    if code is None:
        return None
    digest = blake2b(code, digest_size=16)
    settings = json.dumps([list(exclude), sorted(attributes.items()), steering is not None, sorted(families)])
    digest.update(settings.encode("utf-8", "surrogatepass") + b"\0")
    digest.update(len(steering or b"").to_bytes(8, "big") + (steering or b""))
    digest.update("\0".join(paths).encode("utf-8", "surrogatepass"))
    return digest.hexdigest()


def encode(fresh: list[PagePlan], code: tuple[int, int], paths: Sequence[str], kept: Sequence[str]) -> str:
    """The text kept for a plan: its pages, the span of its code pages (whose
    files are the live paths) and the paths it left out."""
    dropped = sorted(set(paths).difference(kept)) if len(kept) != len(paths) else []
    plans = [[getattr(plan, name) for name in _FIELDS] for plan in fresh]
    return json.dumps({"code": list(code), "dropped": dropped, "plans": plans}, separators=(",", ":"))


def _plan(values: list[Any]) -> PagePlan:
    """A plan of the fields ``encode`` kept, made as unpickling makes one: its
    attributes set, not passed through ``__init__`` (which would only set them)."""
    plan: PagePlan = object.__new__(PagePlan)
    vars(plan).update(zip(_FIELDS, values, strict=True))
    return plan


def decode(text: str | None, paths: Sequence[str]) -> tuple[list[PagePlan], set[str], list[str]] | None:
    """The plan, live paths and kept paths of a kept text; None when there is none."""
    if text is None:
        return None
    try:
        data: Any = json.loads(text)
        start, end = data["code"]
        dropped = set(data["dropped"])
        fresh = [_plan(values) for values in data["plans"]]
    except (ValueError, TypeError, KeyError):
        return None
    live = {path for plan in fresh[start:end] for path in plan.source_files}
    kept = [path for path in paths if path not in dropped] if dropped else list(paths)
    return fresh, live, kept
