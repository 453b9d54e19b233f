"""``build`` on real git repositories: citations that hold their symbols, a
rebuild that rewrites only what went stale, a person's text kept and its
staleness told, writers that fail costing only their page, the facts cache,
and runs stopped half-way."""

from __future__ import annotations

import json
import signal
import subprocess
import sys
import textwrap
import time
from importlib import resources
from pathlib import Path
from typing import Any

import pytest

from malde_ostrel.workers.wiki.tool import build, facts, graph, marks
from malde_ostrel.workers.wiki.tool.wiki import Wiki
from malde_ostrel.workers.wiki.verify import prose_citations

from .gitrepo import ENV, change, make_repo

SOURCES = {
    "README.md": "# Demo\n\nA small repository the tests build a wiki of.\n",
    "pkg/__init__.py": '"""The package. It has a core."""\nfrom .core import run\n',
    "pkg/core.py": textwrap.dedent('''\
        """Core logic."""


        def run(x: int) -> int:
            """Run the thing. Then more."""
            return x + 1


        class Engine:
            """An engine."""

            @property
            def speed(self) -> int:
                return 3

            def start(self) -> None:
                """Start it."""

            def _hidden(self) -> None:
                pass
        '''),
    "pkg/extra.py": "def helper():\n    return 1\n",
    "csrc/lib.c": textwrap.dedent("""\
        /* The C library. */
        #include "lib.h"

        /* Adds two numbers. */
        int
        add(int a, int b)
        {
            return a + b;
        }

        static int hidden(void) { return 0; }

        struct point {
            int x;
            int y;
        };
        """),
    "csrc/lib.h": "#ifndef LIB_H\n#define LIB_H\nint add(int a, int b);\n#endif\n",
    "web/app.ts": textwrap.dedent("""\
        import { Util } from './util';

        /** Greets someone. */
        export function greet(name: string): string {
          return 'hi ' + name;
        }
        """),
    "web/util.ts": "export class Util {\n  go(): void {}\n}\n",
    "gosrc/main.go": 'package main\n\nimport "fmt"\n\n// Hello says hello.\nfunc Hello() {\n\tfmt.Println("hi")\n}\n',
}


@pytest.fixture
def repo(tmp_path: Path) -> Path:
    return make_repo(tmp_path / "repo", dict(SOURCES))


def build_now(repo: Path, **options: Any) -> build.BuildReport:
    with Wiki.open(repo) as wiki:
        return wiki.build(**options)


def bodies(repo: Path) -> dict[str, str]:
    with Wiki.open(repo) as wiki:
        return {p.stem: p.read_text() for p in sorted(wiki.pages_dir.glob("*.md"))}


def sections(body: str) -> dict[str, str]:
    return {s.heading: s.text for s in marks.split(body)}


def test_first_build_cites_each_symbol_at_its_lines(repo: Path) -> None:
    outside = repo.parent / "secret.py"
    outside.write_text("def root():\n    pass\n")
    (repo / "pkg/link.py").symlink_to(outside)  # leads out of the repository: never read
    change(repo)
    report = build_now(repo)
    assert report.planned and not report.failed
    assert report.written and len(report.written) == report.to_write
    texts = bodies(repo)
    cited: dict[str, tuple[str, int, int]] = {}
    for body in texts.values():
        for c in prose_citations(body):
            if "symbol" in c:
                cited[c["symbol"]] = (c["path"], c["line_start"], c["line_end"])
    # Public definitions of four languages, none of the private ones.
    for name in ("run", "Engine", "Engine.speed", "Engine.start", "helper", "add", "point", "greet", "Util", "Hello"):
        assert name in cited, name
    assert not {"Engine._hidden", "hidden"} & set(cited)
    for name, (path, first, last) in cited.items():
        lines = (repo / path).read_text().splitlines()
        span = "\n".join(lines[first - 1 : last])
        assert name.rpartition(".")[2] in span, (name, path, first, last)
        assert 1 <= first <= last <= len(lines)
    # Whole definitions: the C function from its return type to its closing brace.
    assert cited["add"][1:] in {(5, 9), (3, 3)}
    assert cited["Engine"][1:] == (9, 20)
    assert "Run the thing." in texts["module-pkg"] and "Then more" not in texts["module-pkg"]
    assert "root:" not in texts["module-pkg"] and "Not readable" in sections(texts["module-pkg"])["`pkg/link.py`"]
    assert "A small repository the tests build a wiki of." in texts["overview"]
    assert "[csrc](module-csrc.md)" in texts["overview"]
    # Every page is written and up to date.
    with Wiki.open(repo) as wiki:
        assert wiki.status().to_write == []


def test_edit_one_file_rewrites_only_the_sections_citing_it(repo: Path) -> None:
    build_now(repo)
    before = bodies(repo)
    change(repo, {"pkg/core.py": SOURCES["pkg/core.py"] + "\n\ndef stop() -> None:\n    '''Stop.'''\n"})
    report = build_now(repo)
    assert report.written == ["module-pkg"] and not report.failed
    after = bodies(repo)
    assert {k: v for k, v in after.items() if k != "module-pkg"} == {
        k: v for k, v in before.items() if k != "module-pkg"
    }
    old, new = sections(before["module-pkg"]), sections(after["module-pkg"])
    core = "`pkg/core.py`"
    assert "stop" in new[core] and "stop" not in old[core]
    assert {h: t for h, t in new.items() if h != core} == {h: t for h, t in old.items() if h != core}
    with Wiki.open(repo) as wiki:  # the text the build replaced stays a revision
        kept = wiki.revisions("module-pkg")
        assert [r.replaced_by for r in kept] == ["build"]
        assert wiki.revision("module-pkg", kept[0].n).text == before["module-pkg"]
    # A file new to the page gets its section; the others stay as they were.
    change(repo, {"pkg/more.py": "def more():\n    pass\n"})
    build_now(repo)
    newer = sections(bodies(repo)["module-pkg"])
    assert "`pkg/more.py`" in newer and "[[pkg/more.py:1-2|more]]" in newer["`pkg/more.py`"]
    assert {h: t for h, t in newer.items() if h != "`pkg/more.py`"} == new
    # A file gone takes its generated section with it.
    change(repo, drop=("pkg/extra.py",))
    build_now(repo)
    assert "`pkg/extra.py`" not in sections(bodies(repo)["module-pkg"])
    # A new directory needs the plan: the build plans first.
    change(repo, {"tools/cli.py": "def main():\n    pass\n"})
    report = build_now(repo)
    assert report.planned and report.written and not report.failed
    assert any("[[tools/cli.py:1-2|main]]" in bodies(repo)[page] for page in report.written)
    # The overview, which lists every page, follows.
    assert all(f"({page}.md)" in bodies(repo)["overview"] for page in bodies(repo) if page != "overview")
    assert build_now(repo).written == []


def test_a_big_file_gives_its_big_classes_sections_of_their_own(repo: Path) -> None:
    methods = "".join(f"    def m{i}(self):\n        pass\n" for i in range(10))
    functions = "".join(f"def f{i}():\n    pass\n" for i in range(35))
    change(repo, {"pkg/big.py": f"class Big:\n{methods}{functions}"})
    build_now(repo)
    page = sections(bodies(repo)["module-pkg"])
    big, loose = page["`pkg/big.py`: `Big`"], page["`pkg/big.py`"]
    assert "[[pkg/big.py:1-21|Big]]" in big and "|Big.m9]]" in big and "|f0]]" not in big
    assert "|f34]]" in loose and "|Big" not in loose
    assert marks.generated(big) and marks.generated(loose)


def stale_headings(repo: Path, page_id: str) -> tuple[set[str], set[str]]:
    with Wiki.open(repo) as wiki:
        status = next(p for p in wiki.status().pages if p.page_id == page_id)
        shown = wiki.show(page_id)
    return {s["heading"] for s in status.stale_sections}, {s["heading"] for s in shown.stale_sections}


def test_a_persons_text_survives_and_its_staleness_is_told(repo: Path) -> None:
    build_now(repo)
    with Wiki.open(repo) as wiki:
        page = wiki.pages_dir / "module-csrc.md"
    generated = page.read_text()
    edited = generated.replace("Adds two numbers.", "Adds two numbers, as I explain.")
    assert edited != generated
    mine = "## Notes\n\nWhy `add` exists: see [[csrc/lib.c:5-9|add]].\n"
    page.write_text(edited + mine)
    # A forged mark does not make a section the writer's.
    forged = marks.marked("## X", "text").replace("text", "other text")
    assert marks.generated(marks.marked("## X", "text")) and not marks.generated(forged)
    change(repo, {"csrc/lib.c": SOURCES["csrc/lib.c"] + "int sub(int a, int b) { return a - b; }\n"})
    report = build_now(repo)
    assert report.written == ["module-csrc"]
    told = {(e["heading"], tuple(e["files"])) for e in report.personal_stale}
    assert told == {("`csrc/lib.c`", ("csrc/lib.c",)), ("Notes", ("csrc/lib.c",))}
    body = page.read_text()
    assert "as I explain." in body and mine in body and "sub" not in body
    assert sections(body)["`csrc/lib.h`"] == sections(generated)["`csrc/lib.h`"]
    # Reported by status and show, and nothing left to write.
    assert stale_headings(repo, "module-csrc") == ({"`csrc/lib.c`", "Notes"},) * 2
    assert build_now(repo).written == []
    assert stale_headings(repo, "module-csrc") == ({"`csrc/lib.c`", "Notes"},) * 2
    # The person revises and saves: nothing is stale any more.
    with Wiki.open(repo) as wiki:
        wiki.save("module-csrc", body)
    assert stale_headings(repo, "module-csrc") == (set(), set())
    # Moved and changed: the person's section is told by the file's new name.
    (repo / "csrc/core.c").write_text((repo / "csrc/lib.c").read_text() + "/* more */\n")
    change(repo, drop=("csrc/lib.c",))
    report = build_now(repo)
    assert {(e["heading"], tuple(e["files"])) for e in report.personal_stale} >= {("Notes", ("csrc/core.c",))}
    assert "Notes" in stale_headings(repo, "module-csrc")[0] and mine in bodies(repo)["module-csrc"]
    # A page saved by a person is never rewritten; files new to it get sections.
    with Wiki.open(repo) as wiki:
        wiki.save("module-pkg", "# Mine\n\nAll mine: [[pkg/core.py:4-6|run]].\n")
    change(repo, {"pkg/core.py": "# moved\n" + SOURCES["pkg/core.py"], "pkg/new.py": "def new():\n    pass\n"})
    report = build_now(repo)
    body = bodies(repo)["module-pkg"]
    assert body.startswith("# Mine\n\nAll mine: [[pkg/core.py:4-6|run]].\n")
    assert "`pkg/new.py`" in sections(body)
    assert {e["heading"] for e in report.personal_stale} == {""}


WRITER = textwrap.dedent("""\
    import json, sys, time
    brief = json.load(sys.stdin)
    mode, victim = sys.argv[1], sys.argv[2]
    with open(sys.argv[0] + "." + brief["page_id"] + ".json", "w") as kept:
        json.dump(brief, kept)
    cite = brief["files"][0]["path"] if brief["files"] else None
    text = "# " + brief["title"] + "\\n\\nFrom the writer.\\n\\n## Files\\n\\n" + (
        "[[" + cite + ":1]]\\n" if cite else "none\\n")
    if brief["page_id"] == victim:
        if mode == "exit":
            sys.exit(3)
        if mode == "timeout":
            time.sleep(60)
        if mode == "empty":
            text = "  \\n"
        if mode == "binary":
            sys.stdout.buffer.write(b"# bad \\xff\\xfe\\n")
            sys.exit(0)
        if mode == "huge":
            text = "x" * (2 << 20)
        if mode == "foreign":
            text += "See [[web/app.ts:1]].\\n"
    sys.stdout.write(text)
    """)

REASONS = {
    "exit": "exited with status 3",
    "timeout": "gave no complete output within 2 s",
    "empty": "wrote no text",
    "binary": "not UTF-8",
    "huge": "wrote more than",
    "foreign": "cites 'web/app.ts', a file the page does not hold",
}


def cli(repo: Path, *args: str) -> subprocess.CompletedProcess[str]:
    return subprocess.run([sys.executable, "-P", "-m", "malde_ostrel.workers.wiki", "--repo", str(repo), *args],
                          env=ENV, capture_output=True, text=True, timeout=300)  # fmt: skip


@pytest.mark.parametrize("mode", sorted(REASONS))
def test_a_failing_writer_costs_only_its_page(repo: Path, mode: str) -> None:
    assert cli(repo, "build").returncode == 0
    before = bodies(repo)
    change(repo, {"csrc/lib.h": "int add(int, int);\n", "pkg/extra.py": "def helper2():\n    return 2\n"})
    script = repo.parent / "writer.py"
    script.write_text(WRITER)
    done = cli(repo, "build", "--writer", f"{sys.executable} {script} {mode} module-csrc",
               "--writer-timeout", "2", "-j", "2", "--json")  # fmt: skip
    assert done.returncode == 4, done.stderr
    failures = [line for line in done.stderr.splitlines() if "not written" in line]
    assert len(failures) == 1 and failures[0].startswith("ostrel-wiki: module-csrc: not written: writer ")
    assert REASONS[mode] in failures[0]
    report = json.loads(done.stdout)
    assert report["written"] == ["module-pkg"] and [f["page_id"] for f in report["failed"]] == ["module-csrc"]
    after = bodies(repo)
    assert after["module-csrc"] == before["module-csrc"]
    assert "From the writer." in after["module-pkg"] and marks.generated(sections(after["module-pkg"])["Files"])
    with Wiki.open(repo) as wiki:
        assert wiki.status().to_write == ["module-csrc"]
    # The brief holds what its schema promises.
    schema = json.loads((resources.files(build.__package__ or "") / "brief.schema.json").read_text())
    brief = json.loads(Path(f"{script}.module-pkg.json").read_text())
    assert set(schema["required"]) <= set(brief)
    assert brief["body"] == before["module-pkg"] and brief["changed_files"]["modified"] == ["pkg/extra.py"]
    assert [s["files"] for s in brief["stale_sections"]] == [["pkg/extra.py"]]
    symbol = brief["files"][-1]["symbols"][0]
    assert set(schema["$defs"]["symbol"]["required"]) == set(symbol)
    assert (symbol["name"], symbol["line_start"], symbol["line_end"]) == ("helper2", 1, 2)


def test_bad_writer_commands_are_one_line_errors(repo: Path) -> None:
    done = cli(repo, "build", "--writer", "'unclosed")
    assert done.returncode == 1 and done.stderr.count("\n") == 1 and "--writer" in done.stderr
    done = cli(repo, "build", "--writer", str(repo / "no-such-writer"))
    assert done.returncode == 4 and "cannot start" in done.stderr


def test_facts_are_read_once_per_content(repo: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    parsed: list[str] = []
    real = facts.extract

    def counting(path: str, data: bytes) -> facts.FileFacts:
        parsed.append(path)
        return real(path, data)

    monkeypatch.setattr(facts, "extract", counting)
    change(repo, {"copy/core.py": SOURCES["pkg/core.py"]})  # the same blob as pkg/core.py
    build_now(repo)
    assert sorted(parsed) == sorted(set(parsed))
    assert len([p for p in parsed if p.endswith("core.py")]) == 1
    parsed.clear()
    change(repo, {"pkg/extra.py": "def helper3():\n    return 3\n"})
    build_now(repo)
    assert parsed == ["pkg/extra.py"]  # pkg/core.py and pkg/__init__.py come from the store
    parsed.clear()
    change(repo, {"pkg/extra.py": SOURCES["pkg/extra.py"]})  # back to a content seen before
    build_now(repo)
    assert parsed == []


def test_a_build_stopped_half_way_is_finished_by_the_next(repo: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    build_now(repo)
    before = bodies(repo)
    with Wiki.open(repo) as wiki:
        first_runs = len(wiki.log(100).runs)
    change(repo, {path: "// touched\n" + text for path, text in SOURCES.items() if path.endswith((".c", ".ts", ".go"))})
    monkeypatch.setattr(build, "BATCH", 1)
    real = build._Saver.save_page
    calls = 0

    def stop_on_second(self: Any, *args: Any, **kwargs: Any) -> Any:
        nonlocal calls
        calls += 1
        if calls == 2:
            raise KeyboardInterrupt
        return real(self, *args, **kwargs)

    monkeypatch.setattr(build._Saver, "save_page", stop_on_second)
    with pytest.raises(KeyboardInterrupt):
        build_now(repo)
    middle = bodies(repo)
    changed = [page for page in middle if middle[page] != before[page]]
    assert len(changed) == 1
    monkeypatch.setattr(build._Saver, "save_page", real)
    report = build_now(repo)
    assert sorted(report.written) == sorted({"module-csrc", "module-web", "module-gosrc"} - set(changed))
    with Wiki.open(repo) as wiki:
        assert wiki.status().to_write == []
        runs = wiki.log(100).runs
    written = [a["page_id"] for run in runs[first_runs:] for a in run["amendments"]]
    assert sorted(written) == ["module-csrc", "module-gosrc", "module-web"]  # each write recorded once


def test_two_builds_at_once_write_each_page_once(repo: Path) -> None:
    assert cli(repo, "plan").returncode == 0
    procs = [
        subprocess.Popen(
            [sys.executable, "-P", "-m", "malde_ostrel.workers.wiki", "--repo", str(repo), "build"],
            env=ENV,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
        )  # fmt: skip
        for _ in range(2)
    ]
    assert [proc.wait(timeout=300) for proc in procs] == [0, 0]
    with Wiki.open(repo) as wiki:
        runs = wiki.log(100).runs
        assert wiki.status().to_write == []
    written = [a["page_id"] for run in runs if run.get("build") for a in run["amendments"]]
    assert sorted(written) == sorted(set(written)) and len(written) == len(bodies(repo))


# ---------------------------------------------------------------- the parts


OTHER_LANGUAGES = {
    "lib.rs": "/// Adds.\npub fn add(a: i32) -> i32 {\n    a\n}\n\npub struct Point {\n    x: i32,\n}\n\nfn private() {}\n",
    "Main.java": "/** The app. */\npublic class Main {\n  /** Runs. */\n  public void run() {\n  }\n\n  private void hide() {}\n}\n",
    "shape.hpp": "namespace geo {\n/// A shape.\nclass Shape {\n public:\n  int area() const { return 0; }\n};\n"
    "int twice(int a) {\n  Scale local(a);\n  return a;\n}\n}\n",
    "app.js": "// Starts it.\nfunction start(a) {\n  return a;\n}\nclass Box {\n  open() {}\n}\n",
    # A C++ header named .h: read as C++ when the C grammar cannot read it.
    "vec.h": "namespace v {\n/// A vector.\ntemplate <typename T>\nclass Vec {\n public:\n  T at(int i) const {\n    return 0;\n  }\n};\n}\n",
}


@pytest.mark.parametrize("path", sorted(OTHER_LANGUAGES))
def test_symbols_of_each_language_span_their_definitions(path: str) -> None:
    source = OTHER_LANGUAGES[path]
    found = facts.extract(path, source.encode())
    lines = source.splitlines()
    names = {symbol.name for symbol in found.symbols}
    assert names and not {"private", "Main.hide", "hide", "local"} & names
    for symbol in found.symbols:
        # The definition from its first line (a template's head) to where its braces close.
        opened = "\n".join(lines[symbol.line_start - 1 : symbol.line_end])
        assert symbol.name.rpartition(".")[2] in "\n".join(lines[symbol.line_start - 1 : symbol.line_start + 1])
        assert opened.count("{") == opened.count("}"), symbol
    docs = {symbol.name: symbol.doc for symbol in found.symbols}
    expected = {"lib.rs": ("add", "Adds."), "Main.java": ("Main.run", "Runs."), "shape.hpp": ("Shape", "A shape."),
                "app.js": ("start", "Starts it."), "vec.h": ("Vec", "A vector.")}[path]  # fmt: skip
    assert docs[expected[0]] == expected[1]


MERGE_CASES = [
    # (old body, fresh sections, redo, add, expected body)
    ("", [("", "# T\n"), ("a", "## a\nA\n")], set(), {"", "a"}, "# T\n## a\nA\n"),
    ("# T\n## a\nold\n## b\nB\n", [("", "# T\n"), ("a", "## a\nnew\n"), ("b", "## b\nB2\n")], {"a"}, set(),
     "# T\n## a\nold\n## b\nB\n"),  # a person's section (no mark) is kept even when named
    ("# T\n## b\nB\n", [("", "# T\n"), ("a", "## a\nA\n"), ("b", "## b\nB\n")], set(), {"a"},
     "# T\n## a\nA\n## b\nB\n"),  # a new section goes after its predecessor: the lead-in
    ("```\n## not a heading\n```\n", [("", "x\n")], {""}, set(), "```\n## not a heading\n```\n"),
]  # fmt: skip


@pytest.mark.parametrize(("old", "fresh", "redo", "add", "expected"), MERGE_CASES)
def test_merge_keeps_what_it_is_not_asked_to_write(
    old: str, fresh: list[tuple[str, str]], redo: set[str], add: set[str], expected: str
) -> None:
    sections = [marks.Section(h, t) for h, t in fresh]
    merged = marks.merge(old, sections, redo.__contains__, add.__contains__)
    assert merged.body == expected
    assert "".join(s.text for s in marks.split(old)) == old


def test_merge_rewrites_and_drops_generated_sections_only() -> None:
    a_old, b_old = marks.marked("## a", "A1"), marks.marked("## b", "B1")
    old = "# T\n" + a_old + b_old + "## mine\nkept\n"
    fresh = [marks.Section("a", marks.marked("## a", "A2"))]
    merged = marks.merge(old, fresh, {"a", "b"}.__contains__, lambda _h: False)
    assert merged.body == "# T\n" + marks.marked("## a", "A2") + "## mine\nkept\n"
    assert merged.written == ["a"]
    # Edited by hand, the section is a person's: its mark no longer holds.
    edited = old.replace("A1", "A1, and my words")
    merged = marks.merge(edited, fresh, {"a"}.__contains__, lambda _h: False)
    assert "A1, and my words" in merged.body and merged.written == []


RESOLVE_CASES = [
    ("pkg/sub/mod.py", ".util", "python", ["pkg/sub/util.py"]),
    ("pkg/sub/mod.py", "..core", "python", ["pkg/core.py"]),
    ("pkg/sub/mod.py", "pkg.core", "python", ["pkg/core.py"]),
    ("pkg/sub/mod.py", "pkg.core.Engine", "python", ["pkg/core.py"]),
    ("pkg/sub/mod.py", "pkg", "python", ["pkg/__init__.py"]),
    ("pkg/sub/mod.py", "os", "python", []),
    ("src/a.c", "lib.h", "c", ["src/lib.h"]),
    ("src/a.c", "../include/api.h", "c", ["include/api.h"]),
    ("src/a.c", "stdio.h", "c", []),
    ("web/app.ts", "./util", "typescript", ["web/util.ts"]),
    ("web/app.ts", "react", "typescript", []),
    ("cmd/main.go", "example.com/proj/internal/store", "go", ["internal/store/db.go"]),
]


@pytest.mark.parametrize(("source", "name", "language", "expected"), RESOLVE_CASES)
def test_imports_resolve_to_repository_files(source: str, name: str, language: str, expected: list[str]) -> None:
    paths = ["pkg/__init__.py", "pkg/core.py", "pkg/sub/util.py", "pkg/sub/mod.py", "src/a.c", "src/lib.h",
             "include/api.h", "web/app.ts", "web/util.ts", "cmd/main.go", "internal/store/db.go"]  # fmt: skip
    assert graph.Resolver(paths).resolve(source, name, language) == expected


# Builds of this repository take a few tenths of a second: the kills land all along one.
@pytest.mark.parametrize("delay", [0.04 * step for step in range(1, 11)])
def test_a_build_killed_at_any_moment_leaves_old_or_new_texts(repo: Path, delay: float) -> None:
    build_now(repo)
    with Wiki.open(repo) as wiki:
        first_runs = len(wiki.log(1000).runs)
    change(repo, {path: "// touched\n" + text for path, text in SOURCES.items() if path.endswith((".c", ".ts", ".go"))})
    change(repo, {"pkg/core.py": SOURCES["pkg/core.py"] + "\n\ndef late():\n    pass\n"})
    before = bodies(repo)
    proc = subprocess.Popen([sys.executable, "-P", "-m", "malde_ostrel.workers.wiki", "--repo", str(repo), "build"],
                            env=ENV, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)  # fmt: skip
    time.sleep(delay)
    proc.send_signal(signal.SIGKILL)
    proc.wait()
    middle = bodies(repo)
    assert cli(repo, "build").returncode == 0
    after = bodies(repo)
    assert all(middle[page] in (before[page], after[page]) for page in before)
    with Wiki.open(repo) as wiki:
        assert wiki.status().to_write == []
        runs = wiki.log(1000).runs[first_runs:]
    written = [a["page_id"] for run in runs for a in run["amendments"]]
    assert sorted(written) == ["module-csrc", "module-gosrc", "module-pkg", "module-web"]
