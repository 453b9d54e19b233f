"""Steering text support for the wiki generator.

The steering text is the user's guidance for the wiki; its digest is
stored alongside the file hashes of every page so that a change of
steering marks pages stale.
"""

from __future__ import annotations

from malde_ostrel.workers.wiki.repo_facts import _text_hash

# Key under which a hash mapping carries the steering digest; never a path.
STEERING_SENTINEL = "__steering__"


class SteeringMixin:
    """Host mixin; the host sets ``steering_text`` (a text or None)."""

    steering_text: str | None

    def _steering_digest(self) -> str | None:
        text = getattr(self, "steering_text", None)
        if not text:
            return None
        return _text_hash(text)

    def _with_steering(self, hashes: dict[str, str | None]) -> dict[str, str | None]:
        """A copy of ``hashes`` carrying the steering digest, if any."""
        result = dict(hashes)
        digest = self._steering_digest()
        if digest is not None:
            result[STEERING_SENTINEL] = digest
        return result
