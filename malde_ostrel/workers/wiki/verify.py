"""Citations written in page prose.

A citation anchors a claim to lines of a repository file and is written
inside double square brackets:

* ``[[PATH:START-END]]`` - lines START to END of PATH;
* ``[[PATH:LINE]]`` - the single line LINE (start and end are equal);
* either form may name the symbol the lines belong to before the closing
  brackets: ``[[src/load.c:10-20|load_all]]``.

PATH contains no whitespace, "]" or "|"; line numbers are ASCII decimal
digits.  Text in double brackets that does not follow this form is not a
citation and is ignored.
"""

from __future__ import annotations

import re
from typing import Any

_CITATION_RE = re.compile(
    r"\[\[(?P<path>[^\s\]|]+):(?P<start>[0-9]+)(?:-(?P<end>[0-9]+))?"
    r"(?:\|(?P<symbol>[^\]|\n]+))?\]\]"
)


def prose_citations(text: str) -> list[dict[str, Any]]:
    """The citations of ``text``, in text order."""
    found: list[dict[str, Any]] = []
    # An absent group is "" here: no group of the pattern matches the empty text.
    for path, start, end, symbol in _CITATION_RE.findall(text):
        first = int(start)
        citation: dict[str, Any] = {"path": path, "line_start": first, "line_end": int(end) if end else first}
        if symbol:
            citation["symbol"] = symbol
        found.append(citation)
    return found
