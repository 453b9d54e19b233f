"""A page text to HTML: CommonMark through markdown-it-py, citations as links.

Texts are untrusted. Raw HTML is not parsed (it shows as text), a link
survives only with an allowed scheme (http, https, mailto) or as a relative
link the site resolves (another page, a section, a published diagram);
anything else shows as its text. A citation links to the source view of the
cited lines when its path is a file of the repository, never when it leads
outside it. Every attribute goes through markdown-it's escaping.
"""

from __future__ import annotations

import dataclasses
import functools
import itertools
import re
from collections.abc import Callable, Mapping, Sequence
from html import escape
from typing import TYPE_CHECKING, Any, Final, NamedTuple

from malde_ostrel.workers.wiki.repo_facts import _norm
from malde_ostrel.workers.wiki.tool import planner

if TYPE_CHECKING:  # the parser loads when a page is rendered, not for a publish that renders none
    from markdown_it.renderer import RendererHTML
    from markdown_it.rules_inline import StateInline
    from markdown_it.token import Token
    from markdown_it.utils import EnvType, OptionsDict

ALLOWED_SCHEMES: Final = ("http:", "https:", "mailto:")
_SCHEME_RE: Final = re.compile(r"^[A-Za-z][A-Za-z0-9+.\-]*:")
_CITE_RE: Final = re.compile(
    r"\[\[(?P<path>[^\s\]|]+):(?P<start>[0-9]+)(?:-(?P<end>[0-9]+))?(?:\|(?P<symbol>[^\]|\n]+))?\]\]"
)
_WORD_RE: Final = re.compile(r"[A-Za-z_][A-Za-z0-9_]{2,}")
WORDS_PER_SECTION: Final = 300  # the search index keeps this many distinct words of a section
MAX_LINE: Final = 10**7  # a citation's line numbers are clamped to this


def safe_scheme(url: str) -> bool:
    """True for a link a page may carry: an allowed scheme, or none (relative)."""
    text = url.strip()
    if not _SCHEME_RE.match(text):
        return not text.startswith("//")  # no scheme-relative links to other hosts
    return text.lower().startswith(ALLOWED_SCHEMES)


@functools.lru_cache(maxsize=65536)
def repo_path(raw: str) -> str | None:
    """The repository path a citation names, None when it is absolute or leads outside."""
    if raw.startswith(("/", "\\")) or re.match(r"^[A-Za-z]:", raw):
        return None
    if ".." in raw.replace("\\", "/").split("/"):
        return None
    rel = _norm(raw)
    return None if rel in (".", "..") or rel.startswith("../") else rel


class Citation(NamedTuple):
    path: str  # as written
    start: int
    end: int
    symbol: str


def _citation(path: str, start: str, end: str, symbol: str) -> Citation:
    """A citation from its pattern's groups, line numbers clamped."""
    first = int(start)
    if first > MAX_LINE:
        first = MAX_LINE
    last = int(end) if end else first
    if last > MAX_LINE:
        last = MAX_LINE
    return Citation(path, first, last, symbol.strip() if symbol else symbol)


def citations(body: str) -> list[Citation]:
    """The citations of a text, as the renderer reads them."""
    return [_citation(*groups) for groups in _CITE_RE.findall(body)]


def cited_ranges(body: str) -> dict[str, list[int]]:
    """The line ranges a text cites, by path as written (in the order the
    paths first appear), flat: start, end, start, end, ..."""
    found: dict[str, list[int]] = {}
    for cite in citations(body):
        found.setdefault(cite.path, []).extend((cite.start, cite.end))
    return found


@dataclasses.dataclass
class Section:
    """One section of a rendered page, for the search index."""

    heading: str
    anchor: str
    symbols: list[str]
    words: list[str]


@dataclasses.dataclass
class Rendered:
    html: str
    headings: list[tuple[int, str, str]]  # level, text, anchor
    sections: list[Section]


@dataclasses.dataclass
class Links:
    """How the page being rendered resolves what its text points at."""

    # A citation's href, or None when it is not linked.
    cite: Callable[[Citation], str | None]
    # A relative link's href (another page, a diagram), or None.
    relative: Callable[[str], str | None]
    # A relative image's src (a published diagram), or None.
    image: Callable[[str], str | None]


def _cite_rule(state: StateInline, silent: bool) -> bool:
    if not state.src.startswith("[[", state.pos):
        return False
    m = _CITE_RE.match(state.src, state.pos)
    if m is None:
        return False
    if not silent:
        token = state.push("citation", "", 0)
        token.meta = {"citation": _citation(*m.groups(""))}
        token.content = m.group(0)
    state.pos = m.end()
    return True


def _slug(text: str, taken: set[str]) -> str:
    base = planner.slug(text)[:60] or "section"
    if base.startswith("l") and base[1:2].isdigit():
        base = "s-" + base  # source views' line anchors look like L10
    anchor = base
    for n in itertools.count(2):
        if anchor not in taken:
            break
        anchor = f"{base}-{n}"
    taken.add(anchor)
    return anchor


def _text_of(inline: Token) -> str:
    parts: list[str] = []
    for child in inline.children or []:
        if child.type in ("text", "code_inline"):
            parts.append(child.content)
        elif child.type == "citation":
            cite: Citation = child.meta["citation"]
            parts.append(cite.symbol or cite.path)
    return "".join(parts).strip()


class Renderer:
    """One parser, configured once, for every page of a publish."""

    def __init__(self) -> None:
        from markdown_it import MarkdownIt

        md = MarkdownIt("commonmark", {"html": False, "linkify": False, "typographer": False})
        md.options["highlight"] = _highlight_fence
        md.enable("table")
        md.enable("strikethrough")
        md.validateLink = safe_scheme  # type: ignore[method-assign]
        md.inline.ruler.before("link", "citation", _cite_rule)
        rules: Mapping[str, Any] = {
            "citation": _render_citation,
            "heading_open": _render_heading_open,
            "link_open": _render_link_open,
            "link_close": _render_link_close,
            "image": _render_image,
        }
        for name, rule in rules.items():
            md.add_render_rule(name, rule)
        self._md = md

    def render(self, body: str, links: Links, stale: Sequence[Mapping[str, Any]], changed: set[str]) -> Rendered:
        """The HTML of a page text; ``stale`` sections get a banner naming
        the ``changed`` files they cite."""
        env: dict[str, Any] = {"links": links, "banners": _banners(stale, changed), "dead": set()}
        tokens = self._md.parse(body, env)
        headings, sections = _outline(tokens)
        env["anchors"] = {anchor for _, _, anchor in headings}
        lead = env["banners"].pop("", None)
        html = self._md.renderer.render(tokens, self._md.options, env)
        if lead:
            html = lead + html
        return Rendered(html, headings, sections)


# Render rules, called as markdown-it calls them: (renderer, tokens, idx, options, env).


def _render_citation(r: RendererHTML, tokens: Sequence[Token], idx: int, o: OptionsDict, env: EnvType) -> str:
    cite: Citation = tokens[idx].meta["citation"]
    lines = f"{cite.start}" if cite.start == cite.end else f"{cite.start}-{cite.end}"
    label = escape(cite.symbol or f"{cite.path}:{lines}")
    where = escape(f"{cite.path}:{lines}")
    href = env["links"].cite(cite)
    if href is None:
        return f'<span class="cite dead" title="{where} (not in the repository)"><code>{label}</code></span>'
    return f'<a class="cite" href="{escape(href)}" title="{where}"><code>{label}</code></a>'


def _render_heading_open(r: RendererHTML, tokens: Sequence[Token], idx: int, o: OptionsDict, env: EnvType) -> str:
    token = tokens[idx]
    banner = ""
    if token.tag == "h2" and idx + 1 < len(tokens):
        banner = env["banners"].pop(tokens[idx + 1].content.strip().rstrip("#").strip(), "")
    anchor = escape(str(token.attrGet("id") or ""))
    return f'{banner}<{token.tag} id="{anchor}"><a class="anchor" href="#{anchor}" aria-hidden="true">#</a>'


def _render_link_open(r: RendererHTML, tokens: Sequence[Token], idx: int, o: OptionsDict, env: EnvType) -> str:
    token = tokens[idx]
    href = str(token.attrGet("href") or "")
    if href.startswith("#"):
        target: str | None = href if href[1:] in env["anchors"] else None
    elif _SCHEME_RE.match(href):
        target = href if safe_scheme(href) else None
    else:
        target = env["links"].relative(href)
    if target is None:
        env["dead"].add(id(token))
        return '<span class="dead-link">'
    external = ' rel="nofollow noopener noreferrer"' if _SCHEME_RE.match(target) else ""
    return f'<a href="{escape(target)}"{external}>'


def _render_link_close(r: RendererHTML, tokens: Sequence[Token], idx: int, o: OptionsDict, env: EnvType) -> str:
    # Links do not nest: the open link is the last link_open before this.
    for back in range(idx - 1, -1, -1):
        if tokens[back].type == "link_open":
            return "</span>" if id(tokens[back]) in env["dead"] else "</a>"
    return "</a>"


def _render_image(r: RendererHTML, tokens: Sequence[Token], idx: int, o: OptionsDict, env: EnvType) -> str:
    token = tokens[idx]
    alt = escape(r.renderInlineAsText(token.children or [], o, env))
    src = str(token.attrGet("src") or "")
    target = None if _SCHEME_RE.match(src) else env["links"].image(src)
    if target is None:
        return f'<span class="dead-image">[{alt}]</span>'
    return f'<img src="{escape(target)}" alt="{alt}">'


def _highlight_fence(code: str, lang: str, attrs: str) -> str:
    """A fenced block in its language's colours; "" (plain) for an unknown language."""
    from malde_ostrel.workers.wiki.tool.publish.highlight import fence

    return fence(code, lang)


def _banners(stale: Sequence[Mapping[str, Any]], changed: set[str]) -> dict[str, str]:
    """Per stale section heading ("" for the lead-in), the banner shown above it."""
    banners: dict[str, str] = {}
    for section in stale:
        files = [str(f) for f in section.get("files") or [] if str(f) in changed] or [
            str(f) for f in section.get("files") or []
        ]
        names = ", ".join(f"<code>{escape(f)}</code>" for f in files)
        banners[str(section.get("heading") or "")] = (
            f'<div class="stale-banner" role="note"><strong>May be out of date:</strong> '
            f"{names} changed since this section was written.</div>"
        )
    return banners


def _outline(tokens: list[Token]) -> tuple[list[tuple[int, str, str]], list[Section]]:
    """Give every heading an anchor; the headings, and the sections' symbols and words."""
    taken: set[str] = set()
    headings: list[tuple[int, str, str]] = []
    sections = [Section("", "", [], [])]
    words: list[dict[str, None]] = [{}]
    for i, token in enumerate(tokens):
        if token.type == "heading_open" and i + 1 < len(tokens):
            text = _text_of(tokens[i + 1])
            anchor = _slug(text, taken)
            token.attrSet("id", anchor)
            headings.append((int(token.tag[1]), text, anchor))
            sections.append(Section(text, anchor, [], []))
            words.append({})
        elif token.type == "inline":
            bag = words[-1]
            for child in token.children or []:
                if child.type == "citation":
                    symbol = child.meta["citation"].symbol
                    if symbol and symbol not in sections[-1].symbols:
                        sections[-1].symbols.append(symbol)
                elif child.type in ("text", "code_inline") and len(bag) < WORDS_PER_SECTION:
                    for word in _WORD_RE.findall(child.content):
                        bag[word.lower()] = None
    for section, bag in zip(sections, words, strict=True):
        section.words = list(bag)[:WORDS_PER_SECTION]
    return headings, [s for s in sections if s.heading or s.symbols or s.words]
