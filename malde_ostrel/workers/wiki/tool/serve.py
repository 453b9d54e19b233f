"""``ostrel-wiki serve``: the published site on 127.0.0.1, published again as the store changes.

The site is served from its directory by the standard library's HTTP server,
bound to the loopback address only. A watcher looks at the store, the page
bodies and the audit log once a second and publishes again when they change,
so a person can keep a page open while writing. Ctrl-C stops it quietly.
"""

from __future__ import annotations

import functools
import http.server
import threading
from collections.abc import Callable
from pathlib import Path
from typing import Any, Final

from malde_ostrel.workers.wiki.tool.publish import publish
from malde_ostrel.workers.wiki.tool.publish.model import PublishReport
from malde_ostrel.workers.wiki.tool.reports import WikiError
from malde_ostrel.workers.wiki.tool.wiki import Wiki

HOST: Final = "127.0.0.1"
POLL_SECONDS: Final = 1.0


class _QuietHandler(http.server.SimpleHTTPRequestHandler):
    def log_message(self, format: str, *args: Any) -> None:
        pass  # no line per request


def _state(wiki: Wiki) -> tuple[tuple[str, int, int], ...]:
    """What a change of the wiki touches: the store (and its write-ahead
    log), the page bodies' directory, the audit log."""
    seen: list[tuple[str, int, int]] = []
    places = [wiki.store, wiki.store.with_name(wiki.store.name + "-wal"), wiki.pages_dir, wiki.log_path]
    for place in places:
        try:
            st = place.stat()
        except OSError:
            continue
        seen.append((str(place), st.st_mtime_ns, st.st_size))
    return tuple(seen)


class Server:
    """A running site server: its address, and a way to stop it."""

    def __init__(self, wiki: Wiki, site: Path, port: int, *, all_branches: bool = False) -> None:
        self.wiki = wiki
        self.site = site
        self.all_branches = all_branches
        handler = functools.partial(_QuietHandler, directory=str(site))
        try:
            self.httpd = http.server.ThreadingHTTPServer((HOST, port), handler)
        except OSError as exc:
            raise WikiError(f"cannot serve on {HOST}:{port}: {exc.strerror or exc}; pick another with --port") from None
        self.httpd.daemon_threads = True
        self._stop = threading.Event()

    @property
    def url(self) -> str:
        port = self.httpd.server_address[1]
        return f"http://{HOST}:{port}/index.html"

    def publish(self) -> PublishReport:
        return publish(self.wiki, self.site, all_branches=self.all_branches)

    def run(self, on_publish: Callable[[PublishReport | Exception], None]) -> None:
        """Serve until ``stop`` (or Ctrl-C, which returns quietly), publishing as the wiki changes."""
        thread = threading.Thread(target=self.httpd.serve_forever, name="ostrel-wiki-serve", daemon=True)
        thread.start()
        try:
            seen = _state(self.wiki)
            while not self._stop.wait(POLL_SECONDS):
                now = _state(self.wiki)
                if now == seen:
                    continue
                seen = now
                fresh = self.wiki.reopened()
                try:
                    report = publish(fresh, self.site, all_branches=self.all_branches)
                except (WikiError, OSError) as exc:
                    on_publish(exc)  # the site stays as it was; the next change tries again
                else:
                    on_publish(report)
                finally:
                    fresh.close()
        except KeyboardInterrupt:
            pass
        finally:
            self.httpd.shutdown()
            self.httpd.server_close()

    def stop(self) -> None:
        self._stop.set()
