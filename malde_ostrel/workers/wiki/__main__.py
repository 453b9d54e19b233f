"""``python -m malde_ostrel.workers.wiki``: the ``ostrel-wiki`` console tool."""

from __future__ import annotations

import sys

from malde_ostrel.workers.wiki.tool._launch import entry

if __name__ == "__main__":
    sys.exit(entry())
