"""Topic text of a code-unit page."""

from __future__ import annotations


def unit_topic(title: str, files: list[str]) -> str:
    """The page's title (lower-cased) followed by the sorted distinct
    directories of its files ("." for top-level files), space-separated."""
    only = _sole_directory(files)
    if only:
        return f"{title.lower()} {only}"
    heads = {path.rpartition("/")[0] for path in files}
    return " ".join([title.lower(), *sorted({head or "." for head in heads})])


def _sole_directory(files: list[str]) -> str:
    """The directory every path of ``files`` sits directly in, when they share
    one below the top level; else "".

    Most pages hold the files of one directory: a few scans of the joined paths
    tell so without splitting each path.
    """
    if not files:
        return ""
    head = files[0].rpartition("/")[0]
    if not head:
        return ""
    try:
        joined = "\0".join(files)
    except TypeError:  # not all texts: the general way says what is wrong
        return ""
    count = len(files)
    # With no NUL inside a path, each path starts with head + "/" and holds
    # no "/" beyond that prefix's.
    if (
        joined.count("\0") == count - 1
        and ("\0" + joined).count("\0" + head + "/") == count
        and joined.count("/") == count * (head.count("/") + 1)
    ):
        return head
    return ""
