"""The site directory: files written whole, and a manifest of what made them.

The manifest (``.ostrel-site.json``) maps every file the tool wrote to a
digest of its inputs. Publishing again skips a file whose inputs are the
same, and removes the files of the last publish it did not make this time.
A directory without a manifest is taken only when it is empty: the tool never
writes over files it did not make.
"""

from __future__ import annotations

import hashlib
import json
import os
from pathlib import Path
from typing import Any, Final

from malde_ostrel.workers.wiki.tool.reports import WikiError

MANIFEST: Final = ".ostrel-site.json"
MANIFEST_VERSION: Final = 1


def digest(*parts: Any) -> str:
    """A short digest of parts made of str, int, bool, None, lists, tuples and
    dicts (their repr: dicts in insertion order, as the inputs build them)."""
    return hashlib.sha256(repr(parts).encode("utf-8", "surrogatepass")).hexdigest()[:32]


class SiteDir:
    """Writes under one directory, skipping files whose inputs did not change."""

    def __init__(self, root: Path) -> None:
        self.root = root
        self.old: dict[str, str] = {}
        self.new: dict[str, str] = {}
        self.written: list[str] = []
        if root.exists() and not root.is_dir():
            raise WikiError(f"site directory {root} is not a directory; name a new or empty one")
        manifest = root / MANIFEST
        if manifest.is_file():
            try:
                data = json.loads(manifest.read_text("utf-8"))
                if data.get("version") == MANIFEST_VERSION and isinstance(data.get("files"), dict):
                    self.old = {str(k): str(v) for k, v in data["files"].items()}
            except (OSError, ValueError):
                pass  # an unreadable manifest: everything is written again
        elif root.is_dir() and any(root.iterdir()):
            raise WikiError(
                f"site directory {root} is not empty and holds no published wiki; name a new or empty directory"
            )

    def unchanged(self, rel: str, key: str) -> bool:
        """True (and the file kept) when ``rel`` was made from ``key`` and is still there."""
        if self.old.get(rel) == key and os.path.isfile(os.path.join(self.root, rel)):
            self.new[rel] = key
            return True
        return False

    def write(self, rel: str, key: str, data: bytes | str) -> None:
        """Write ``rel`` whole (a reader sees the old file or the new one)."""
        if isinstance(data, str):
            data = data.encode("utf-8", "surrogatepass")
        self.new[rel] = key
        target = self.root / rel
        target.parent.mkdir(parents=True, exist_ok=True)
        temp = target.with_name(f".{target.name}.{os.getpid()}.tmp")
        try:
            temp.write_bytes(data)
            os.replace(temp, target)
        except BaseException:
            temp.unlink(missing_ok=True)
            raise
        self.written.append(rel)

    def put(self, rel: str, data: bytes | str) -> None:
        """Write ``rel`` unless the same content is there already."""
        if isinstance(data, str):
            data = data.encode("utf-8", "surrogatepass")
        key = hashlib.sha256(data).hexdigest()[:32]
        if not self.unchanged(rel, key):
            self.write(rel, key, data)

    def abandon(self) -> None:
        """After a failed publish: keep in the manifest every file made, by
        this run or the last, so the next run takes the directory back."""
        self._manifest({**self.old, **self.new})

    def _manifest(self, files: dict[str, str]) -> None:
        self.write(MANIFEST, "", json.dumps({"version": MANIFEST_VERSION, "files": files}, sort_keys=True))
        self.written.pop()

    def finish(self) -> list[str]:
        """Remove what the last publish made and this one did not; write the manifest."""
        removed: list[str] = []
        for rel in sorted(set(self.old) - set(self.new)):
            path = self.root / rel
            if ".." in rel.split("/") or rel.startswith("/"):
                continue  # never outside the site
            try:
                path.unlink()
                removed.append(rel)
            except FileNotFoundError:
                pass
        self._manifest(dict(self.new))
        return removed
