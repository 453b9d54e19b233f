"""Level and page-type constants shared by the wiki workers."""

from __future__ import annotations

# Levels of code-unit pages; their page ids are pinned across builds.
PINNED_LEVELS: frozenset[str] = frozenset({"module", "package", "subsystem"})

# Level of free-standing note pages, which plan pinning never retires.
NOTE_LEVEL = "note"

# Page type of the catch-all page that collects otherwise undocumented code.
OTHER_CODE_TYPE = "other_code"
