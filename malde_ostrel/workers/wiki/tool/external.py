"""Running a writer command for one page: a JSON brief in, Markdown out.

The command is an argument list (no shell), started in a session of its own
so that a timeout stops it and whatever it started. Its output is untrusted:
read up to a size bound, decoded strictly as UTF-8, and refused when empty,
too large, or citing files the page does not hold. It is text to store,
never run and never used as a path.
"""

from __future__ import annotations

import os
import selectors
import signal
import subprocess
import threading
import time
from collections.abc import Collection, Sequence
from typing import Final

from malde_ostrel.workers.wiki.repo_facts import _norm
from malde_ostrel.workers.wiki.verify import prose_citations

OUTPUT_MAX: Final = 1 << 20
_CHUNK: Final = 65536


class WriterFailure(Exception):
    """A writer gave no usable page; the message is the one-line reason."""


# The writers running now, to stop should the build be interrupted.
_running: set[subprocess.Popen[bytes]] = set()
_running_lock = threading.Lock()


def stop_all() -> None:
    """Stop every writer running now (and whatever each started)."""
    with _running_lock:
        procs = list(_running)
    for proc in procs:
        try:
            os.killpg(proc.pid, signal.SIGKILL)
        except (ProcessLookupError, PermissionError):
            pass


def _stop(proc: subprocess.Popen[bytes]) -> None:
    try:
        os.killpg(proc.pid, signal.SIGKILL)
    except (ProcessLookupError, PermissionError):
        pass
    proc.wait()


def _feed(proc: subprocess.Popen[bytes], data: bytes) -> None:
    assert proc.stdin is not None
    try:
        proc.stdin.write(data)
        proc.stdin.close()
    except (BrokenPipeError, OSError, ValueError):
        pass  # the writer stopped reading: its output (or exit status) tells


def run(argv: Sequence[str], brief: bytes, *, timeout: float, limit: int = OUTPUT_MAX) -> str:
    """The writer's output for one brief; WriterFailure when it gives none."""
    try:
        proc = subprocess.Popen(
            list(argv), stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, start_new_session=True
        )
    except OSError as exc:
        raise WriterFailure(f"cannot start {argv[0]}: {exc.strerror or exc}") from None
    assert proc.stdout is not None
    with _running_lock:
        _running.add(proc)
    try:
        return _collect(proc, brief, timeout, limit)
    finally:
        with _running_lock:
            _running.discard(proc)


def _collect(proc: subprocess.Popen[bytes], brief: bytes, timeout: float, limit: int) -> str:
    assert proc.stdout is not None
    feeder = threading.Thread(target=_feed, args=(proc, brief), daemon=True)
    feeder.start()
    deadline = time.monotonic() + timeout
    chunks: list[bytes] = []
    size = 0
    fd = proc.stdout.fileno()
    try:
        with selectors.DefaultSelector() as selector:
            selector.register(fd, selectors.EVENT_READ)
            while True:
                left = deadline - time.monotonic()
                if left <= 0 or not selector.select(left):
                    raise WriterFailure(f"gave no complete output within {timeout:g} s")
                chunk = os.read(fd, _CHUNK)
                if not chunk:
                    break
                size += len(chunk)
                if size > limit:
                    raise WriterFailure(f"wrote more than {limit} bytes")
                chunks.append(chunk)
        try:
            status = proc.wait(max(deadline - time.monotonic(), 0.01))
        except subprocess.TimeoutExpired:
            raise WriterFailure(f"did not exit within {timeout:g} s") from None
    except BaseException:
        _stop(proc)
        raise
    finally:
        proc.stdout.close()
        feeder.join(1.0)
    if status != 0:
        why = f"killed by signal {-status}" if status < 0 else f"exited with status {status}"
        raise WriterFailure(why)
    try:
        text = b"".join(chunks).decode("utf-8")
    except UnicodeDecodeError as exc:
        raise WriterFailure(f"wrote output that is not UTF-8 (bad byte at {exc.start})") from None
    if not text.strip():
        raise WriterFailure("wrote no text")
    return text


def check_citations(text: str, held: Collection[str]) -> None:
    """Refuse a text citing a file outside ``held``."""
    allowed = {_norm(path) for path in held}
    for citation in prose_citations(text):
        path = str(citation["path"])
        if _norm(path) not in allowed:
            shown = path if len(path) <= 120 else path[:119] + "…"
            raise WriterFailure(f"cites {shown!r}, a file the page does not hold")
