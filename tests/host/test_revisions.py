"""Texts that are replaced or leave the plan stay the user's: revisions of
every replaced body, a returning page's text given back as its draft, drafts
reported, and texts that follow a moved package."""

from __future__ import annotations

from pathlib import Path

from malde_ostrel.workers.wiki.tool.wiki import Wiki

from .gitrepo import change, make_repo

DRAFT = "# Other\n\nTEXT OF THE CATCH-ALL\n"


def test_a_page_that_leaves_and_comes_back_gets_its_text_as_a_draft(tmp_path: Path) -> None:
    repo = make_repo(tmp_path / "repo", {"core/a.py": "a = 1\n", "core/b.py": "b = 2\n"})
    wiki = Wiki.open(repo)
    wiki.plan()
    change(repo, {"misc/x.py": "x = 1\n"})  # one file of a new directory: the catch-all page
    assert ("add", "module-additional") in {(a["action"], a["page_id"]) for a in wiki.plan().amendments}
    wiki.save("module-additional", DRAFT)
    change(repo, drop=("misc",))
    assert "archive" in {a["action"] for a in wiki.plan().amendments}
    change(repo, {"misc/y.py": "y = 1\n"})
    back = [a for a in wiki.plan().amendments if a["action"] == "return"]
    assert [a["page_id"] for a in back] == ["module-additional"]
    assert (wiki.pages_dir / "module-additional.md").read_text() == DRAFT
    page = next(p for p in wiki.status().pages if p.page_id == "module-additional")
    assert (page.draft, page.to_write, page.carried_from) == (True, True, ["module-additional"])
    assert wiki.show("module-additional").draft_from == ["module-additional"]
    assert any(h.action == "return" for h in wiki.history("module-additional"))

    # A save that leaves the draft out says so; the draft is a revision.
    saved = wiki.save("module-additional", "# Other\n\nnew\n")
    assert (saved.replaced_carried, saved.revision) == (["module-additional"], 1)
    assert not next(p for p in wiki.status().pages if p.page_id == "module-additional").draft
    assert wiki.save("module-additional", "# Other\n\nnew\n").revision is None  # same text: nothing to keep
    kept = wiki.revision("module-additional", 1)
    assert (kept.text, kept.saved, kept.replaced_by) == (DRAFT, False, "save")
    assert wiki.show("module-additional", rev=1).body == DRAFT

    # Restoring a revision keeps the text it replaces; it is marked to write.
    restored = wiki.restore_revision("module-additional", 1)
    assert (restored.revision, restored.kept) == (1, 2)
    assert (wiki.pages_dir / "module-additional.md").read_text() == DRAFT
    assert [(r.n, r.saved) for r in wiki.revisions("module-additional")] == [(1, False), (2, True)]
    assert "module-additional" in wiki.status().to_write


def test_family_parts_that_collapse_and_split_again_get_their_texts_back(tmp_path: Path) -> None:
    files = {f"big/f{i:02d}.py": f"v = {i}\n" for i in range(14)}
    repo = make_repo(tmp_path / "repo", files)
    wiki = Wiki.open(repo)
    parts = [p.page_id for p in wiki.plan().pages if "-part-" in p.page_id]
    for page_id in parts:
        wiki.save(page_id, f"TEXT OF {page_id}\n")
    gone = {f: files[f] for f in list(files)[7:]}
    change(repo, drop=tuple(gone))
    assert {a["page_id"] for a in wiki.plan().amendments if a["action"] == "carry"} == {"module-big"}
    change(repo, gone)
    report = wiki.plan()
    assert sorted(a["page_id"] for a in report.amendments if a["action"] == "return") == sorted(parts)
    for page_id in parts:
        assert (wiki.pages_dir / f"{page_id}.md").read_text() == f"TEXT OF {page_id}\n"
    assert all(p.draft for p in wiki.status().pages if p.page_id in parts)


def test_a_moved_package_keeps_its_texts_in_the_pages_holding_its_files(tmp_path: Path) -> None:
    files = {f"flask/m{i:02d}.py": f"# {i}\n" + "".join(f"v{j} = {i * j}\n" for j in range(9)) for i in range(14)}
    for replan in (False, True):
        repo = make_repo(tmp_path / f"repo-{replan}", files)
        wiki = Wiki.open(repo)
        parts = [p for p in wiki.plan().pages if "-part-" in p.page_id]
        texts = {p.page_id: f"TEXT OF {p.page_id}" for p in parts}
        for page_id, text in texts.items():
            wiki.save(page_id, text + "\n")
        change(repo, {"flask/m05.py": "rewritten = True\n"})  # a file git will not see as renamed
        change(repo, {"src/flask/new.py": "n = 1\n"}, move={f: f"src/{f}" for f in files if f != "flask/m05.py"})
        report = wiki.plan(replan=replan)
        assert not [a for a in report.amendments if a["action"] == "archive"]
        holders = {p.page_id: p.source_files for p in report.pages}
        for page_id, text in texts.items():  # each text is in a planned page that holds its renamed files
            path = wiki.pages_dir / f"{page_id}.md"
            where = [
                p
                for p in holders
                if text in (path.read_text() if (path := wiki.pages_dir / f"{p}.md").exists() else "")
            ]
            assert any(f.startswith("src/flask/") for p in where for f in holders[p]), (replan, page_id, where)
