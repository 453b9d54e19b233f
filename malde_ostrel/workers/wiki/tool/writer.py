"""The built-in writer: reference pages drawn from the code, the same every time.

* A code page opens with its title and a paragraph (a module docstring or a
  file's opening comment, cited), then gives one ``##`` section per file
  listing its public symbols, each cited ``[[path:start-end|name]]`` with
  its real line range; other files get their line count.
* A family parent tells what its parts cover, linked.
* The overview opens with the repository README's first paragraph and shows
  the page tree; the architecture page lists which pages' files import which,
  beside a diagram (see ``diagram``).
* A steering page lists its files; its prose is left to a person or a writer.

Text taken from the repository (docstrings, comments, the README) is put on
one line, bounded, and cannot open a citation, a heading or a code fence.
"""

from __future__ import annotations

import functools
from collections.abc import Mapping, Sequence
from typing import Final

from malde_ostrel.workers.wiki.tool.facts import FileFacts, Symbol
from malde_ostrel.workers.wiki.tool.marks import Section, marked
from malde_ostrel.workers.wiki.types import PagePlan

README_MAX: Final = 1200
LANGUAGE_NAMES: Final = {
    "python": "Python", "c": "C", "cpp": "C++", "javascript": "JavaScript", "typescript": "TypeScript",
    "tsx": "TypeScript", "go": "Go", "rust": "Rust", "java": "Java",
}  # fmt: skip
PARTS_SYMBOLS: Final = 6
# A file with more definitions than this gives a section of its own to each
# container (a class, say) with more than ``GROUP_MEMBERS`` definitions.
GROUP_FROM: Final = 40
GROUP_MEMBERS: Final = 8


def inline(text: str) -> str:
    """Repository text made safe for one line of a list item or paragraph."""
    flat = " ".join(text.split())
    return flat.replace("[[", "[\\[").replace("]]", "]\\]")


def code(text: str) -> str:
    """An inline code span holding ``text``, whatever backticks it has."""
    flat = " ".join(text.split())
    if "`" not in flat:
        return f"`{flat}`" if flat and not flat.startswith(" ") else f"` {flat} `"
    run = longest = 0
    for char in flat:
        run = run + 1 if char == "`" else 0
        longest = max(longest, run)
    fence = "`" * (longest + 1)
    pad = " " if longest or flat.startswith(("`", " ")) or flat.endswith("`") else ""
    return f"{fence}{pad}{flat}{pad}{fence}"


@functools.lru_cache(maxsize=4096)
def citable(path: str) -> bool:
    return bool(path) and not any(char.isspace() or char in "]|" for char in path)


def cite(path: str, start: int, end: int, name: str = "") -> str:
    if not citable(path) or start < 1:
        return ""
    lines = f"{start}-{end}" if end > start else str(start)
    label = f"|{name}" if name and not any(char in name for char in "]|\n") else ""
    return f"[[{path}:{lines}{label}]]"


def link(plan: PagePlan) -> str:
    title = inline(plan.title or plan.page_id).replace("[", "\\[").replace("]", "\\]")
    return f"[{title}]({plan.page_id}.md)"


def file_heading(path: str) -> str:
    return code(path)


def _title_line(plan: PagePlan) -> str:
    return f"# {inline(plan.title or plan.page_id)}"


def _page(plan: PagePlan, lead: str, heading: str, content: str) -> list[Section]:
    """A page of a lead-in and one section."""
    return [Section("", marked(_title_line(plan), lead)), Section(heading, marked(f"## {heading}", content))]


# ---------------------------------------------------------------- code pages


def _symbol_line(path: str, symbol: Symbol) -> str:
    doc = f" — {inline(symbol.doc)}" if symbol.doc else ""
    where = cite(path, symbol.line_start, symbol.line_end, symbol.name)
    return f"- {symbol.kind} {code(symbol.signature or symbol.name)}{doc} {where}".rstrip()


def _listing(path: str, symbols: Sequence[Symbol], intro: str) -> str:
    lines = [intro, ""]
    lines.extend(_symbol_line(path, symbol) for symbol in symbols)
    return "\n".join(lines)


def file_sections(path: str, facts: FileFacts | None) -> list[Section]:
    """The sections of one file: one, or for a big file, one for its loose
    definitions and one per container (a class, say) with many members."""
    heading = file_heading(path)
    if facts is None:
        return [Section(heading, marked(f"## {heading}", "Not readable in this tree."), path)]
    if not facts.symbols:
        what = f"{LANGUAGE_NAMES.get(facts.language, facts.language)} file" if facts.language else "file"
        span = cite(path, 1, facts.lines) if facts.lines else ""
        content = f"A {what} of {facts.lines} line(s), without public definitions. {span}".rstrip()
        return [Section(heading, marked(f"## {heading}", content), path)]
    groups: dict[str, list[Symbol]] = {}
    if len(facts.symbols) > GROUP_FROM:
        for symbol in facts.symbols:
            groups.setdefault(symbol.name.partition(".")[0], []).append(symbol)
    big = {name for name, members in groups.items() if len(members) > GROUP_MEMBERS}
    loose = [symbol for symbol in facts.symbols if symbol.name.partition(".")[0] not in big]
    intro = f"{len(facts.symbols)} public definition(s), in line order"
    intro += f"; {len(big)} with many members have sections of their own:" if big else ":"
    sections = [Section(heading, marked(f"## {heading}", _listing(path, loose, intro)), path)]
    for name in sorted(big, key=lambda n: groups[n][0].line_start):
        part = f"{heading}: {code(name)}"
        members = groups[name]
        text = _listing(path, members, f"{code(name)} and its {len(members) - 1} member(s):")
        sections.append(Section(part, marked(f"## {part}", text), path))
    return sections


def _opening(plan: PagePlan, facts: Mapping[str, FileFacts]) -> str:
    """The page's opening paragraph: the first file summary, cited."""
    for path in plan.source_files:
        found = facts.get(path)
        if found is not None and found.summary:
            start, end = found.summary_lines
            return f"{inline(found.summary)} {cite(path, start, end)}".rstrip()
    return inline(plan.description) + "." if plan.description else ""


def code_page(plan: PagePlan, facts: Mapping[str, FileFacts]) -> list[Section]:
    where = plan.description or ""
    sections = [Section("", marked(_title_line(plan), _opening(plan, facts) or where))]
    for path in plan.source_files:
        sections.extend(file_sections(path, facts.get(path)))
    return sections


def steering_page(plan: PagePlan, facts: Mapping[str, FileFacts]) -> list[Section]:
    lead = (
        f"{inline(plan.description)}\n\n"
        "This page was asked for in the steering file: its prose is for a person or a writer to add."
    )
    lines = [f"{len(plan.source_files)} file(s):", ""]
    for path in plan.source_files:
        found = facts.get(path)
        count = found.lines if found is not None else 0
        lines.append(f"- {code(path)} {cite(path, 1, count)}".rstrip())
    heading = "Files"
    return _page(plan, lead, heading, "\n".join(lines))


def parent_page(plan: PagePlan, parts: Sequence[PagePlan], facts: Mapping[str, FileFacts]) -> list[Section]:
    lead = f"{inline(plan.description)}. Each part documents a run of its files."
    lines: list[str] = []
    for part in parts:
        # Each name once: a part of tests defines many a `TEST`.
        names = list(
            dict.fromkeys(s.name for path in part.source_files for s in (facts[path].symbols if path in facts else []))
        )
        shown = ", ".join(code(name) for name in names[:PARTS_SYMBOLS])
        more = f" and {len(names) - PARTS_SYMBOLS} more" if len(names) > PARTS_SYMBOLS else ""
        defines = f"; defines {shown}{more}" if names else ""
        lines.append(f"- {link(part)}: {len(part.source_files)} file(s){defines}.")
    heading = "Parts"
    return _page(plan, lead, heading, "\n".join(lines))


# ---------------------------------------------------------------- overview pages


def readme_paragraph(text: str | None) -> str:
    """The README's first paragraph of prose (not a heading, badge, table or fence)."""
    if not text:
        return ""
    for block in text.replace("\r\n", "\n").split("\n\n"):
        lines = [line.strip() for line in block.strip().splitlines()]
        if not lines or lines[0].startswith(("#", "```", "~~~", "<", "!", "[", "|", "=", "-", "..", ":")):
            continue
        paragraph = inline(" ".join(lines))
        return paragraph if len(paragraph) <= README_MAX else paragraph[: README_MAX - 1] + "…"
    return ""


def overview_page(plan: PagePlan, plans: Sequence[PagePlan], readme: str | None) -> list[Section]:
    opening = readme_paragraph(readme) or "This wiki documents the repository page by page, from its code."
    lead = opening
    by_id = {p.page_id: p for p in plans}
    in_family = {child for p in plans for child in p.children}
    lines: list[str] = []
    for page in plans:
        if page is plan or page.page_id in in_family:
            continue
        lines.append(f"- {link(page)}" + (f": {inline(page.description)}" if page.description else ""))
        for child in page.children:
            if child in by_id:
                lines.append(f"  - {link(by_id[child])}")
    heading = "Pages"
    return _page(plan, lead, heading, "\n".join(lines))


def architecture_page(
    plan: PagePlan, plans: Sequence[PagePlan], edges: Mapping[str, Sequence[str]], diagram: str | None
) -> list[Section]:
    if diagram:
        lead = f"![Which pages' files import which]({diagram})\n\nThe list below tells the same: "
    else:
        lead = "The list below tells "
    lead += "which pages' files import or include which."
    by_id = {p.page_id: p for p in plans}
    lines = [
        f"- {link(by_id[source])} uses " + ", ".join(link(by_id[target]) for target in targets)
        for source, targets in edges.items()
        if source in by_id and targets
    ]
    heading = "Dependencies"
    content = "\n".join(lines) if lines else "No page's files import another page's."
    return _page(plan, lead, heading, content)
