"""The published site: hostile texts, source views, republishing, serving,
and the site in a real browser (links, search, hostile text, screenshots)."""

from __future__ import annotations

import html
import json
import os
import re
import shutil
import threading
import time
import urllib.request
from pathlib import Path
from typing import Any

import pytest

from malde_ostrel.workers.wiki.tool.publish import highlight, publish, render
from malde_ostrel.workers.wiki.tool.publish.output import MANIFEST
from malde_ostrel.workers.wiki.tool.publish.site import CITES_CACHE
from malde_ostrel.workers.wiki.tool.reports import WikiError
from malde_ostrel.workers.wiki.tool.serve import Server
from malde_ostrel.workers.wiki.tool.wiki import Wiki

from .gitrepo import change, make_repo

CORE = "def load(path):\n    return open(path).read()\n\n\nclass Store:\n    def put(self, key):\n        pass\n"
HOSTILE = """\
# Hostile

<script>window.__pwned = "script"</script>
<img src="x.png" onerror="window.__pwned = 'onerror'">
[click](javascript:window.__pwned='link') [data](data:text/html,<script>1</script>) [web](https://example.com)
![pic](data:image/svg+xml,<svg onload=alert(1)>) [[/etc/passwd:1-2|passwd]] [[../up.py:1]]

## Loading

Files come in through [[app/core.py:1-2|load]]; see [the store](#storing) and [the overview](overview.md).

## Storing

[[app/core.py:5-7|Store]] keeps them; <b onclick="window.__pwned='b'">bold</b>.
"""
OVERVIEW = "# Overview\n\nThe app loads files [[app/core.py:1-2|load]] and runs [[main.py:1]].\n\n![diagram](architecture.svg)\n"


@pytest.mark.parametrize(
    ("url", "allowed"),
    [("https://x.org/a", True), ("mailto:a@b.c", True), ("page.html#s", True), ("#s", True),
     ("javascript:alert(1)", False), (" JavaScript:alert(1)", False), ("data:text/html,x", False),
     ("vbscript:x", False), ("file:///etc/passwd", False), ("//evil.example/x", False)],
)  # fmt: skip
def test_link_schemes_by_allow_list(url: str, allowed: bool) -> None:
    assert render.safe_scheme(url) is allowed


@pytest.mark.parametrize(
    ("raw", "rel"),
    [("a/b.py", "a/b.py"), ("./a/b.py", "a/b.py"), ("/etc/passwd", None), ("../x.py", None),
     ("a/../../x.py", None), ("a/../b.py", None), ("C:/x.py", None), ("\\\\host\\x", None)],
)  # fmt: skip
def test_citation_paths_outside_the_repository_are_refused(raw: str, rel: str | None) -> None:
    assert render.repo_path(raw) == rel


@pytest.mark.parametrize(
    ("name", "text"),
    [("a.py", 'def f():\n    """two\n    lines"""\n    return "<&>"\n'),
     ("a.c", "/* a\n comment */\nint x = 1; // <b>\n"),
     ("a.toml", 'k = "v"\n[t]\n'), ("README", "plain <text>\nno newline at end")],
)  # fmt: skip
def test_source_lines_keep_every_line_and_its_text(name: str, text: str) -> None:
    lines = highlight.source_lines(name, text.encode())
    assert lines is not None and len(lines) == len(text.rstrip("\n").split("\n"))
    shown = [html.unescape(re.sub(r"<[^>]*>", "", line)) for line in lines]
    assert shown == text.rstrip("\n").split("\n")
    for line in lines:  # every line closes what it opens
        assert line.count("<span") == line.count("</span>")
    assert highlight.source_lines("x.bin", b"\0\1\2") is None


def sample(tmp_path: Path) -> Path:
    """A repository whose wiki has a hostile page, an overview and a diagram."""
    files = {"app/core.py": CORE, "app/util.py": "X = 1\n", "main.py": "import app\n", "empty.py": ""}
    repo = make_repo(tmp_path / "repo", files)
    with Wiki.open(repo) as wiki:
        wiki.plan()
        wiki.save("module-app", HOSTILE)
        wiki.save("overview", OVERVIEW)
        (wiki.pages_dir / "architecture.svg").write_text('<svg xmlns="http://www.w3.org/2000/svg"/>')
    return repo


def site_of(repo: Path, out: Path, **kw: Any) -> list[str]:
    with Wiki.open(repo) as wiki:
        return publish(wiki, out, **kw).written


@pytest.fixture
def repo(tmp_path: Path) -> Path:
    return sample(tmp_path)


def test_hostile_text_is_shown_as_text_and_links_only_where_allowed(repo: Path, tmp_path: Path) -> None:
    site = tmp_path / "site"
    site_of(repo, site)
    html = (site / "pages/module-app.html").read_text()
    body = html[html.index('<div class="body">') : html.index("</article>")]
    tags = re.findall(r"<[^>]*>", body)
    assert {re.match(r"</?(\w+)", t)[1] for t in tags} <= {"div", "h1", "h2", "p", "a", "span", "code", "strong"}  # type: ignore[index]
    assert not [t for t in tags if re.search(r"\son\w+=|javascript:|data:", t)]
    assert "&lt;script&gt;" in body and 'href="https://example.com"' in body
    # Citations outside the repository are shown, never linked.
    assert re.search(r'<span class="cite dead"[^>]*><code>passwd</code>', body)
    assert "../up.py" in body and "/etc/passwd" not in re.findall(r'href="([^"]*)"', body)
    # Allowed relative links resolve: a section, another page, a diagram beside the bodies.
    assert 'href="#storing"' in body and 'href="overview.html"' in body
    assert (site / "pages/architecture.svg").is_file()
    assert '<img src="architecture.svg"' in (site / "pages/overview.html").read_text()


def test_citations_link_to_source_views_with_line_anchors(repo: Path, tmp_path: Path) -> None:
    site = tmp_path / "site"
    site_of(repo, site)
    html = (site / "pages/module-app.html").read_text()
    hrefs = re.findall(r'class="cite" href="\.\./src/([0-9a-f]+)\.html#(L[0-9-L]+)"', html)
    assert {anchor for _, anchor in hrefs} == {"L1-L2", "L5-L7"}
    assert len({blob for blob, _ in hrefs}) == 1  # one view per file content
    view = (site / f"src/{hrefs[0][0]}.html").read_text()
    for anchor in ("L1-L2", "L5-L7", "L1", "L7"):
        assert f'id="{anchor}"' in view
    assert 'id="L8"' not in view
    # Only cited files get a view: app/util.py is not cited.
    assert len(list((site / "src").iterdir())) == 2
    # Citations past the end, backwards or of an empty file land on an anchor too.
    with Wiki.open(repo) as wiki:
        wiki.save("overview", OVERVIEW + "[[app/core.py:9-12|after]] [[app/core.py:5-3|back]] [[empty.py:1]]\n")
    site_of(repo, site)
    html = (site / "pages/overview.html").read_text()
    for blob, anchor in re.findall(r'class="cite" href="\.\./src/([0-9a-f]+)\.html#(L[0-9-L]+)"', html):
        assert f'id="{anchor}"' in (site / f"src/{blob}.html").read_text(), anchor


def test_stale_sections_get_a_banner_naming_the_changed_file(repo: Path, tmp_path: Path) -> None:
    change(repo, {"app/core.py": CORE.replace("pass", "return key")})
    site = tmp_path / "site"
    site_of(repo, site)
    html = (site / "pages/module-app.html").read_text()
    banner = html.index("stale-banner")
    assert html.index('id="loading"') < banner < html.index('id="storing"') or banner < html.index('id="loading"')
    assert "<code>app/core.py</code> changed" in html
    assert "stale" in (site / "index.html").read_text()


def test_publishing_again_writes_only_what_changed(repo: Path, tmp_path: Path) -> None:
    site = tmp_path / "site"
    first = site_of(repo, site)
    assert "pages/module-app.html" in first and MANIFEST not in first
    assert site_of(repo, site) == []
    # What each text cites is kept for the next publish; a damaged copy is read past.
    cache = site / CITES_CACHE
    kept = json.loads(cache.read_text())
    assert {"/etc/passwd": [1, 2], "../up.py": [1, 1], "app/core.py": [1, 2, 5, 7]} in kept.values()
    for damaged in ("{", "[]", json.dumps({key: {"app/core.py": [1]} for key in kept})):
        cache.write_text(damaged)
        assert site_of(repo, site) == []
    inside = repo / "site"  # published inside the work tree: not planned as code
    site_of(repo, inside)
    with Wiki.open(repo) as wiki:
        assert not any(f.startswith("site/") for p in wiki.plan().pages for f in p.source_files)
    with Wiki.open(repo) as wiki:
        wiki.save("overview", OVERVIEW + "\nAnd [[app/util.py:1|X]].\n")
    again = site_of(repo, site)
    assert "pages/overview.html" in again and "search-index.js" in again
    assert "pages/module-app.html" not in again
    assert sum(1 for rel in again if rel.startswith("src/")) == 1  # the newly cited file
    index = json.loads((site / "search-index.js").read_text().split("=", 1)[1].rstrip().rstrip(";"))
    assert {page["i"] for page in index["pages"]} >= {"module-app", "overview"}


def test_search_index_holds_titles_sections_symbols_and_words(repo: Path, tmp_path: Path) -> None:
    site = tmp_path / "site"
    site_of(repo, site)
    text = (site / "search-index.js").read_text()
    assert text.startswith("window.OSTREL_SEARCH_INDEX = ")
    pages = {p["i"]: p for p in json.loads(text.split("=", 1)[1].rstrip().rstrip(";"))["pages"]}
    storing = next(s for s in pages["module-app"]["s"] if s[0] == "Storing")
    assert storing[1] == "storing" and storing[2] == ["Store"] and "keeps" in storing[3].split()
    assert pages["module-app"]["u"] == "pages/module-app.html" and pages["overview"]["t"] == "Overview"


def test_a_page_that_leaves_the_plan_leaves_the_site(repo: Path, tmp_path: Path) -> None:
    site = tmp_path / "site"
    site_of(repo, site)
    change(repo, drop=("app",))
    with Wiki.open(repo) as wiki:
        wiki.plan()
        report = publish(wiki, site)
    assert "pages/module-app.html" in report.removed and not (site / "pages/module-app.html").exists()
    assert "module-app" not in (site / "search-index.js").read_text()
    assert "module-app.html" not in (site / "index.html").read_text()


def test_unwritten_pages_say_so_and_history_shows_the_moves(repo: Path, tmp_path: Path) -> None:
    change(repo, add={"lib/x.py": "X = 2\n"}, move={"app/core.py": "lib/core.py", "app/util.py": "lib/util.py"})
    with Wiki.open(repo) as wiki:
        wiki.plan()
    site = tmp_path / "site"
    site_of(repo, site)
    index = (site / "index.html").read_text()
    assert "not written" in index and "stale" in index
    moved = (site / "pages/module-app.html").read_text()
    assert "<strong>rename</strong> 2 file(s) renamed or moved" in moved[moved.index('id="history"') :]
    assert "has not been written yet" in (site / "pages/module-additional.html").read_text()


def test_cli_prints_the_address_and_refuses_in_one_line(repo: Path, tmp_path: Path) -> None:
    import subprocess
    import sys

    from .gitrepo import ENV

    site = tmp_path / "site"
    tool = [sys.executable, "-m", "malde_ostrel.workers.wiki", "--repo", str(repo)]
    done = subprocess.run([*tool, "publish", str(site)], env=ENV, capture_output=True, text=True, check=False)
    assert done.returncode == 0, done.stderr
    assert done.stdout.splitlines()[-1] == (site / "index.html").resolve().as_uri()
    refused = subprocess.run([*tool, "publish", str(repo)], env=ENV, capture_output=True, text=True, check=False)
    assert refused.returncode == 1 and refused.stdout == ""
    assert refused.stderr.count("\n") == 1 and "not empty and holds no published wiki" in refused.stderr


def test_a_directory_not_made_by_publish_is_refused_and_a_failed_run_is_taken_back(
    repo: Path, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    foreign = tmp_path / "foreign"
    foreign.mkdir()
    (foreign / "notes.txt").write_text("mine")
    with pytest.raises(WikiError, match="not empty"):
        site_of(repo, foreign)
    assert os.listdir(foreign) == ["notes.txt"]
    site = tmp_path / "site"
    from malde_ostrel.workers.wiki.tool.publish import site as site_module

    def broken(self: Any) -> str:
        raise OSError("disk full")

    monkeypatch.setattr(site_module.BranchSite, "_index", broken)
    with pytest.raises(OSError):
        site_of(repo, site)
    monkeypatch.undo()
    site_of(repo, site)
    assert (site / "index.html").is_file()


def test_all_branches_get_a_directory_and_a_switcher(repo: Path, tmp_path: Path) -> None:
    from .gitrepo import git

    git(repo, "checkout", "-qb", "feature/x")
    with Wiki.open(repo) as wiki:
        wiki.plan()
    site = tmp_path / "site"
    site_of(repo, site, all_branches=True)
    assert (site / "main/pages/module-app.html").is_file()
    assert (site / "feature__x/index.html").is_file()
    assert 'href="../feature__x/index.html"' in (site / "main/index.html").read_text()
    assert 'href="main/index.html"' in (site / "index.html").read_text()


def test_serve_binds_loopback_and_publishes_again_when_the_store_changes(repo: Path, tmp_path: Path) -> None:
    site = tmp_path / "site"
    told: list[Any] = []
    with Wiki.open(repo) as wiki:
        server = Server(wiki, site, 0)
        server.publish()
        assert server.httpd.server_address[0] == "127.0.0.1"
        thread = threading.Thread(target=server.run, args=(told.append,))
        thread.start()
        try:
            with urllib.request.urlopen(server.url) as response:
                assert b"Wiki of main" in response.read()
            with Wiki.open(repo) as writer:
                writer.save("overview", "# Overview\n\nRewritten while served.\n")
            for _ in range(100):
                if told:
                    break
                time.sleep(0.1)
            page = server.url.replace("index.html", "pages/overview.html")
            with urllib.request.urlopen(page) as response:
                assert b"Rewritten while served." in response.read()
        finally:
            server.stop()
            thread.join()
    assert told and not isinstance(told[0], Exception)


# ---------------------------------------------------------------- in a browser

CHROMIUM = os.environ.get("OSTREL_CHROMIUM") or shutil.which("chromium") or shutil.which("chromium-browser")
OUTPUT = Path(os.environ.get("OSTREL_TEST_OUTPUT") or Path(__file__).resolve().parents[2] / "build" / "test-output")


@pytest.fixture(scope="module")
def browser() -> Any:
    """Chromium driven by Playwright. Where the test command requires it
    (``OSTREL_BROWSER_TESTS=required``), a missing browser fails the run."""
    reason = None
    try:
        from playwright.sync_api import sync_playwright
    except ImportError:
        reason = "Playwright is not installed (pip install '.[test]')"
    if reason is None and CHROMIUM is None:
        reason = "Chromium is not installed (scripts/test installs Debian's chromium)"
    if reason is not None:
        if os.environ.get("OSTREL_BROWSER_TESTS") == "required":
            pytest.fail(reason)
        pytest.skip(reason)
    with sync_playwright() as play:
        chromium = play.chromium.launch(executable_path=CHROMIUM, args=["--no-sandbox"])
        yield chromium
        chromium.close()


@pytest.fixture(scope="module")
def published(tmp_path_factory: pytest.TempPathFactory) -> Path:
    site = tmp_path_factory.mktemp("browser") / "site"
    site_of(sample(tmp_path_factory.mktemp("repo")), site)
    return site


def test_every_link_of_every_page_resolves(browser: Any, published: Path) -> None:
    page = browser.new_page()
    ids: dict[str, set[str]] = {}
    todo = [(published / "index.html").as_uri()]
    seen: set[str] = set()
    while todo:
        url = todo.pop()
        if url in seen:
            continue
        seen.add(url)
        page.goto(url)
        ids[url] = set(page.eval_on_selector_all("[id]", "els => els.map(e => e.id)"))
        for href in page.eval_on_selector_all("a[href]", "els => els.map(a => a.href)"):
            assert href.startswith(("file://", "https://")), href
            if href.startswith("file://"):
                target = href.partition("#")[0]
                assert Path(urllib.request.url2pathname(target[len("file://") :])).is_file(), href
                todo.append(target)
    page.close()
    # Anchors: every fragment names an element of its page.
    check = browser.new_page()
    for url in seen:
        check.goto(url)
        for href in check.eval_on_selector_all("a[href*='#']", "els => els.map(a => a.href)"):
            target, _, fragment = href.partition("#")
            if target.startswith("file://") and fragment:
                assert fragment in ids[target], href
    check.close()
    assert len([u for u in seen if "/src/" in u]) >= 2


def test_search_finds_a_symbol_and_its_page(browser: Any, published: Path) -> None:
    page = browser.new_page()
    page.goto((published / "index.html").as_uri())
    page.fill("#search", "Store")
    first = page.locator("#search-results a").first
    first.wait_for()
    assert first.get_attribute("href").endswith("pages/module-app.html#storing")
    first.click()
    page.wait_for_url("**/module-app.html#storing")
    assert page.locator("h1.title").inner_text() == "app"
    page.close()


def test_the_hostile_page_runs_nothing(browser: Any, published: Path) -> None:
    page = browser.new_page()
    dialogs: list[str] = []
    page.on("dialog", lambda d: (dialogs.append(d.message), d.dismiss()))
    page.goto((published / "pages/module-app.html").as_uri())
    page.wait_for_load_state("load")
    for link in page.locator(".body a").all():
        if link.get_attribute("href", timeout=1000).startswith("#"):
            link.click()
    assert page.evaluate("window.__pwned") is None
    assert page.evaluate("document.querySelectorAll('main script, [onerror], [onclick], main img').length") == 0
    assert dialogs == []
    page.close()


def test_screenshots_of_the_index_and_a_page(browser: Any, published: Path) -> None:
    OUTPUT.mkdir(parents=True, exist_ok=True)
    for name, rel, width in (("index", "index.html", 1000), ("page", "pages/module-app.html", 1000)):
        page = browser.new_page(viewport={"width": width, "height": 800})
        page.goto((published / rel).as_uri())
        page.screenshot(path=str(OUTPUT / f"site-{name}.png"), full_page=True)
        page.close()
    phone = browser.new_page(viewport={"width": 375, "height": 700})
    phone.goto((published / "pages/module-app.html").as_uri())
    assert phone.evaluate("document.documentElement.scrollWidth") <= 375  # nothing wider than a phone
    phone.close()
    assert (OUTPUT / "site-index.png").stat().st_size > 0
