"""The plan audit log (the JSON line byte for byte, the trim at the line limit,
operating-system errors as a warning, errors that reach the caller) and the drift warning (threshold, what counts, the text)."""

from __future__ import annotations

import datetime as dt
import logging
import os
from pathlib import Path
from types import ModuleType
from typing import Any

import pytest

LOG = "plan-log.jsonl"
WARNING = "could not append wiki plan log"


class FixedClock:
    """Stands in for the module's `datetime`: a fixed time with microseconds."""

    @staticmethod
    def now() -> dt.datetime:
        return dt.datetime(2024, 5, 6, 7, 8, 9, 987654)


@pytest.fixture
def clock(impl: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(impl, "datetime", FixedClock)


def line(amendments: str, replan: str = "false") -> bytes:
    stamp = '{"at": "2024-05-06T07:08:09", "replan": '
    return f'{stamp}{replan}, "amendments": {amendments}}}\n'.encode()


def prefill(wiki_dir: Path, count: int, text: str = "old {}\n") -> list[bytes]:
    wiki_dir.mkdir(parents=True, exist_ok=True)
    lines = [text.format(i).encode() for i in range(count)]
    (wiki_dir / LOG).write_bytes(b"".join(lines))
    return lines


@pytest.mark.usefixtures("clock")
class TestLog:
    def test_line_byte_for_byte(self, impl: ModuleType, tmp_path: Path) -> None:
        amendments = [{"action": "add", "page_id": "p", "reason": "na\u00efve \u2014 \u65e5\u672c \U0001f600 \u2028"},
                      {"ctl": '\x00\x1f\t\n\r"\\\x7f', "nested": {"z": {"y": []}, "a": (1, None)}},
                      {"numbers": [1, 0.5, 1e300, float("nan"), float("-inf"), True, 10**20]}]  # fmt: skip
        wiki_dir = tmp_path / "memory" / "lorebook" / "main"
        assert impl.append_plan_log(wiki_dir, amendments, replan=True) is None
        impl.append_plan_log(wiki_dir, ({"action": "retire"},), replan=0)
        assert (wiki_dir / LOG).read_bytes() == line(
            '[{"action": "add", "page_id": "p", "reason": "na\u00efve \u2014 \u65e5\u672c \U0001f600 \u2028"}, '
            '{"ctl": "\\u0000\\u001f\\t\\n\\r\\"\\\\\x7f", "nested": {"z": {"y": []}, "a": [1, null]}}, '
            '{"numbers": [1, 0.5, 1e+300, NaN, -Infinity, true, 100000000000000000000]}]',
            "true",
        ) + line('[{"action": "retire"}]', "0")

    def test_empty_amendments_touch_nothing(
        self, impl: ModuleType, tmp_path: Path, caplog: pytest.LogCaptureFixture
    ) -> None:
        for empty in ([], (), {}):
            assert impl.append_plan_log(tmp_path / "absent", empty, replan=True) is None
        assert not (tmp_path / "absent").exists() and caplog.records == []

    # Only line feeds end lines; carriage returns are read as line feeds.
    @pytest.mark.parametrize(("old", "text", "kept"), [
        (1999, "old {}\n", 0), (2000, "old {}\n", 1001), (1999, "old {} \u2028 \u0085 \x0b \x1c\n", 0),
        (2000, "crlf {}\r\n", 1001), (2000, "cr {}\r", 1001)])  # fmt: skip
    def test_trim_at_the_line_limit(self, impl: ModuleType, tmp_path: Path, old: int, text: str, kept: int) -> None:
        lines = prefill(tmp_path, old, text)
        impl.append_plan_log(tmp_path, [{"n": 1}], replan=False)
        expected = b"".join(lines[kept:]).replace(b"\r\n", b"\n").replace(b"\r", b"\n")
        expected = expected if kept else b"".join(lines)
        assert (tmp_path / LOG).read_bytes() == expected + line('[{"n": 1}]')
        assert [p.name for p in tmp_path.iterdir()] == [LOG]

    @pytest.mark.parametrize(("setup", "error"), [
        ("wiki_dir is a file", FileExistsError), ("log is a directory", IsADirectoryError),
        ("trim target is a directory", IsADirectoryError),
        pytest.param("read-only directory", PermissionError,
                     marks=pytest.mark.skipif(os.geteuid() == 0, reason="root bypasses permissions"))])  # fmt: skip
    def test_os_errors_become_a_warning(
        self, impl: ModuleType, tmp_path: Path, caplog: pytest.LogCaptureFixture, setup: str, error: type[OSError]
    ) -> None:
        wiki_dir = tmp_path / "wiki"
        before = b""
        if setup == "wiki_dir is a file":
            wiki_dir.write_bytes(before := b"not a directory")
        elif setup == "log is a directory":
            (wiki_dir / LOG / "kept").mkdir(parents=True)
        elif setup == "trim target is a directory":
            before = b"".join(prefill(wiki_dir, 2000)) + line("[{}]")
            (wiki_dir / (LOG + ".trim") / "blocker").mkdir(parents=True)
        else:
            wiki_dir.mkdir(mode=0o500)
        assert impl.append_plan_log(wiki_dir, [{}], replan=False) is None
        (record,) = caplog.records
        assert (record.name, record.levelno, record.getMessage()) == (impl.__name__, logging.WARNING, WARNING)
        assert record.exc_info and record.exc_info[0] is error
        log = wiki_dir if wiki_dir.is_file() else wiki_dir / LOG
        assert (log.read_bytes() if log.is_file() else b"") == before

    @pytest.mark.parametrize(("value", "error"), [
        ({1, 2}, "Object of type set is not JSON serializable"), ("\ud800", "surrogates not allowed"),
        ({b"k": 1}, "keys must be str, int, float, bool or None, not bytes")])  # fmt: skip
    def test_unwritable_record_raises_and_adds_no_line(
        self, impl: ModuleType, tmp_path: Path, value: Any, error: str
    ) -> None:
        prefill(tmp_path / "existing", 2)
        before = (tmp_path / "existing" / LOG).read_bytes()
        for wiki_dir in (tmp_path / "fresh", tmp_path / "existing"):
            with pytest.raises((TypeError, ValueError), match=error):
                impl.append_plan_log(wiki_dir, [{"v": value}], replan=False)
        assert not (tmp_path / "fresh" / LOG).exists() or (tmp_path / "fresh" / LOG).read_bytes() == b""
        assert (tmp_path / "existing" / LOG).read_bytes() == before

    @pytest.mark.parametrize("count", [3, 2000])
    def test_log_not_utf8_fails_after_the_append(self, impl: ModuleType, tmp_path: Path, count: int) -> None:
        before = b"".join(prefill(tmp_path, count)) + b"\xff bad\n"
        (tmp_path / LOG).write_bytes(before)
        with pytest.raises(UnicodeDecodeError):
            impl.append_plan_log(tmp_path, [{}], replan=False)
        # The record went in; no trim happened, even past the line limit.
        assert (tmp_path / LOG).read_bytes() == before + line("[{}]")

    @pytest.mark.parametrize("failure", [OSError, RuntimeError])
    def test_only_os_errors_are_caught(self, impl: ModuleType, tmp_path: Path, monkeypatch: pytest.MonkeyPatch,
                                       caplog: pytest.LogCaptureFixture, failure: type[Exception]) -> None:  # fmt: skip
        def now() -> dt.datetime:
            raise failure("clock")

        monkeypatch.setattr(impl, "datetime", type("Clock", (), {"now": staticmethod(now)}))
        if failure is OSError:
            assert impl.append_plan_log(tmp_path, [{}], replan=False) is None
        else:
            with pytest.raises(RuntimeError, match="clock"):
                impl.append_plan_log(tmp_path, [{}], replan=False)
        assert len(caplog.records) == (failure is OSError)


def churn(n: int, **fields: Any) -> list[dict[str, Any]]:
    return [{"action": "add", **fields} for _ in range(n)]


class TestDrift:
    @pytest.mark.parametrize(
        ("plan_size", "threshold"), [(0, 3), (8, 3), (9, 3), (11, 3), (12, 4), (14, 4), (15, 5), (30, 10), (100, 33)]
    )
    def test_threshold(self, impl: ModuleType, plan_size: int, threshold: int) -> None:
        assert impl.drift_signal(churn(threshold - 1), plan_size) is None
        warning = impl.drift_signal(churn(threshold), plan_size)
        assert warning is not None
        assert warning.startswith(f"{threshold} structural amendments against a {plan_size}-")

    def test_warning_text(self, impl: ModuleType) -> None:
        assert impl.drift_signal(churn(10), 30) == (
            "10 structural amendments against a 30-page plan \u2014 the pinned structure is "
            'churning; consider a full replan (wiki(action="generate", replan=true) or '
            "/ostrel-wiki --replan)."
        )

    def test_what_counts(self, impl: ModuleType) -> None:
        counted = [{"action": "add"}, {"action": "retire", "level": None}, {"action": "remap", "level": ""},
                   {"action": "add", "level": "package"}, {"action": "retire", "level": "subsystem"}]  # fmt: skip
        ignored = [{"action": "extend"}] * 20 + [{"action": "add", "level": "overview"}, {"action": "add", "level": "note"},
                                                 {"action": "Add"}, {"action": "add ", "level": "module"}]  # fmt: skip
        assert impl.drift_signal(iter(counted + ignored), 0).startswith("5 structural amendments")
        assert impl.drift_signal(counted + ignored, 15) is not None
        assert impl.drift_signal(counted + ignored, 18) is None
        assert impl.drift_signal([], 0) is None
        with pytest.raises(KeyError, match="action"):
            impl.drift_signal([{"level": "module"}], 0)
