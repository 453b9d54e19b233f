"""``ostrel-wiki publish DIR``: the branch's wiki as a static site.

The site works from ``file://``: every asset ships in this package, links are
relative, and the search index is a script the pages load. Publishing again
writes only what changed (see ``output`` and ``site``).
"""

from __future__ import annotations

import time
from pathlib import Path
from typing import TYPE_CHECKING

from malde_ostrel.workers.wiki.tool.publish.model import PublishReport
from malde_ostrel.workers.wiki.tool.publish.output import SiteDir
from malde_ostrel.workers.wiki.tool.publish.site import Branches, BranchSite, branch_dir, branch_list

if TYPE_CHECKING:
    from malde_ostrel.workers.wiki.tool.wiki import Wiki


def publish(wiki: Wiki, out: Path, *, all_branches: bool = False) -> PublishReport:
    """Publish the wiki's branch into ``out``; with ``all_branches``, every
    branch of the store into a directory of its own, with a switcher."""
    started = time.monotonic()
    site = SiteDir(out)
    try:
        # A site published inside a work tree stays out of git's listing, and so out of the plan.
        site.put(".gitignore", "# written by ostrel-wiki publish\n*\n")
        published, pages = _publish(wiki, site, all_branches)
    except BaseException:
        if site.written:
            site.abandon()
        raise
    removed = site.finish()
    return PublishReport(str(out), published, pages, site.written, removed, time.monotonic() - started)


def _publish(wiki: Wiki, site: SiteDir, all_branches: bool) -> tuple[list[str], int]:
    if not all_branches:
        data = wiki.site_input()
        BranchSite(data, site).publish()
        published = [data.branch]
        pages = len(data.pages)
    else:
        names = wiki.branches() or [wiki.branch]
        dirs: dict[str, str] = {}
        for name in names:
            dirs[name] = branch_dir(name, dirs.values())
        pages = 0
        for name in names:
            other = wiki if name == wiki.branch else wiki.reopened(name)
            try:
                data = other.site_input()
                BranchSite(data, site, f"{dirs[name]}/", Branches(name, dirs)).publish()
                pages += len(data.pages)
            finally:
                if other is not wiki:
                    other.close()
        site.put("index.html", branch_list(dirs))
        published = names
    return published, pages
