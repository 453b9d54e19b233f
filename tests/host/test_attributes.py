"""Paths that attributes files mark vendored or generated."""

from __future__ import annotations

import pytest

from malde_ostrel.workers.wiki.tool.attributes import marked_paths

PATHS = ["top.py", "sp ace.py", "vendor/a.py", "vendor/keep.py", "vendor/sub/b.py",
         "src/top.py", "src/gen.pb.go", "src/deep/x.pb.go", "src/keep.py"]  # fmt: skip


@pytest.mark.parametrize(
    ("root", "nested", "marked"),
    [
        ("vendor/** linguist-vendored", "", {"vendor/a.py", "vendor/keep.py", "vendor/sub/b.py"}),
        ("vendor/* linguist-vendored", "", {"vendor/a.py", "vendor/keep.py"}),
        ("vendor/ linguist-vendored", "", set()), ("/top.py linguist-generated", "", {"top.py"}),
        ("*.pb.go linguist-generated", "", {"src/gen.pb.go", "src/deep/x.pb.go"}),
        ("top.py linguist-generated=true", "", {"top.py", "src/top.py"}),
        ('"sp\\040ace.py"\tlinguist-vendored', "", {"sp ace.py"}),
        # The last matching line decides; unset, false and unspecified all unmark.
        ("vendor/** linguist-vendored\nvendor/keep.py -linguist-vendored", "",
         {"vendor/a.py", "vendor/sub/b.py"}),
        ("vendor/** linguist-vendored\nvendor/keep.py linguist-vendored=false", "",
         {"vendor/a.py", "vendor/sub/b.py"}),
        ("vendor/** linguist-vendored\nvendor/** !linguist-vendored", "", set()),
        ("# vendor/** linguist-vendored\n[attr]x linguist-vendored\n*.py text", "", set()),
        # A deeper file decides over a shallower one, and only below itself.
        ("src/keep.py -linguist-vendored", "*.py linguist-vendored\nkeep.py binary",
         {"src/top.py", "src/keep.py"}),
        ("", "/top.py linguist-generated", {"src/top.py"}),
    ],
)  # fmt: skip
def test_marks_follow_git_pattern_rules(root: str, nested: str, marked: set[str]) -> None:
    texts = {".gitattributes": root, "src/.gitattributes": nested}
    test = marked_paths([*PATHS, *texts], texts.get)
    assert {path for path in PATHS if test is not None and test(path)} == marked
    assert marked_paths(PATHS, lambda path: None) is None  # no attributes file, no test
