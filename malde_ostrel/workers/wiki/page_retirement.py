"""Deleting the pages that plan amendments retire."""

from __future__ import annotations

from collections.abc import Iterable, Mapping
from typing import Any


class PageRetirementMixin:
    """Host mixin; the host provides ``repository``, ``branch`` and
    ``_existing`` (stored page rows by id)."""

    repository: Any
    branch: str
    _existing: dict[str, dict[str, Any]]

    @staticmethod
    def _retired_ids(amendments: Iterable[Mapping[str, Any]]) -> list[str]:
        """Distinct page ids of the "retire" records, in order."""
        ids: list[str] = []
        for record in amendments:
            if record.get("action") == "retire":
                page_id = str(record["page_id"])
                if page_id not in ids:
                    ids.append(page_id)
        return ids

    def _retire_pages(self, amendments: Iterable[Mapping[str, Any]]) -> list[str]:
        """Delete every retired page from the store and from ``_existing``."""
        ids = self._retired_ids(amendments)
        for page_id in ids:
            self.repository.delete_wiki_page(self.branch, page_id)
            self._existing.pop(page_id, None)
        return ids
