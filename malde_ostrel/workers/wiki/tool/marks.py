"""Which sections of a page a writer made, and merging new ones into a body.

A section the build writes carries, right under its heading, a line that a
CommonMark renderer never shows (a link reference definition)::

    [//]: # "ostrel-wiki generated 0123456789abcdef"

holding a hash of the section's text. A section without that line, or whose
text no longer hashes to it, is a person's: the build keeps it byte for byte
and never writes over it. Sections are cut where the section map cuts them:
at ``##`` headings outside code fences; the lead-in is the text before the
first heading, heading ``""``.
"""

from __future__ import annotations

import hashlib
from collections.abc import Callable, Sequence
from typing import Final, NamedTuple

from malde_ostrel.workers.wiki._pyplan_record import _SECTION_RE

MARK_PREFIX: Final = '[//]: # "ostrel-wiki generated '
MARK_SUFFIX: Final = '"'
_HASH_CHARS: Final = 16


class Section(NamedTuple):
    heading: str
    # The section's exact text, its heading line first, each line with its newline.
    text: str
    # The file a generated section documents ("" for none).
    path: str = ""


def split(body: str) -> list[Section]:
    """The sections of a body; their texts joined give the body back."""
    sections: list[tuple[str, list[str]]] = [("", [])]
    in_fence = False
    for line in body.splitlines(keepends=True):
        bare = line.rstrip("\r\n")
        if bare.lstrip().startswith(("```", "~~~")):
            in_fence = not in_fence
        heading = None if in_fence else _SECTION_RE.match(bare)
        if heading:
            sections.append((heading.group(1), []))
        sections[-1][1].append(line)
    return [Section(heading, "".join(lines)) for heading, lines in sections if heading or lines]


def _digest(text: str) -> str:
    return hashlib.sha256(text.rstrip().encode("utf-8", "surrogatepass")).hexdigest()[:_HASH_CHARS]


def _is_mark(line: str) -> bool:
    bare = line.rstrip("\r\n")
    return bare.startswith(MARK_PREFIX) and bare.endswith(MARK_SUFFIX)


def strip_marks(text: str) -> str:
    """The text without mark lines (a writer's output may imitate them)."""
    return "".join(line for line in text.splitlines(keepends=True) if not _is_mark(line))


def marked(heading_line: str, content: str) -> str:
    """A generated section: its heading line (a lead-in's may be its title, or empty), the mark, the content."""
    head = heading_line + "\n" if heading_line else ""
    text = head + content.rstrip("\n") + "\n\n"
    mark = f"{MARK_PREFIX}{_digest(text)}{MARK_SUFFIX}\n"
    return head + mark + text[len(head) :]


def generated(text: str) -> bool:
    """True when the section carries one mark and its text still hashes to it."""
    lines = text.splitlines(keepends=True)
    marks = [line for line in lines if _is_mark(line)]
    if len(marks) != 1:
        return False
    claimed = marks[0].rstrip("\r\n")[len(MARK_PREFIX) : -len(MARK_SUFFIX)]
    return claimed == _digest("".join(line for line in lines if not _is_mark(line)))


class Merged(NamedTuple):
    body: str
    # Headings of the generated sections written (new, or replaced by another text).
    written: list[str]


def merge(old: str | None, fresh: Sequence[Section], redo: Callable[[str], bool], add: Callable[[str], bool]) -> Merged:
    """The old body with its generated sections that ``redo`` names replaced
    by the fresh ones of the same heading (or dropped when there is none),
    fresh sections that ``add`` names and the old body lacks put in after
    their predecessors, and every other section kept byte for byte."""
    by_heading = {section.heading: section for section in fresh}
    result: list[Section] = []
    written: list[str] = []
    present: set[str] = set()
    for section in split(old or ""):
        present.add(section.heading)
        if not generated(section.text):
            result.append(section)
        elif redo(section.heading) or section.heading not in by_heading:
            replacement = by_heading.get(section.heading)
            if replacement is not None:
                result.append(replacement)
                if replacement.text != section.text:
                    written.append(section.heading)
        else:
            result.append(section)
    for index, section in enumerate(fresh):
        if section.heading in present or not add(section.heading):
            continue
        before = {s.heading for s in fresh[:index]}
        at = max((i + 1 for i, s in enumerate(result) if s.heading in before), default=0)
        if at == 0 and result and not result[0].heading and section.heading:
            at = 1  # after the lead-in
        result.insert(at, section)
        written.append(section.heading)
        present.add(section.heading)
    texts = [s.text if s.text.endswith("\n") else s.text + "\n" for s in result[:-1]] + [s.text for s in result[-1:]]
    return Merged("".join(texts), written)
