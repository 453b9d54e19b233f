"""The plan audit log (the JSON line byte for byte, the trim at the line limit,
best-effort failures, errors that reach the caller, the order of the path
operations) and the drift warning (threshold, what counts, what is read first)."""

from __future__ import annotations

import datetime as dt
import logging
import os
from pathlib import Path
from types import ModuleType
from typing import Any

import pytest

from .recording import outcome

LOG = "plan-log.jsonl"


class FixedClock:
    """Stands in for the module's `datetime`: a fixed time with microseconds."""

    @staticmethod
    def now() -> dt.datetime:
        return dt.datetime(2024, 5, 6, 7, 8, 9, 987654)


@pytest.fixture
def clock(impl: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(impl, "datetime", FixedClock)


def line(amendments: str, replan: str = "false") -> bytes:
    return f'{{"at": "2024-05-06T07:08:09", "replan": {replan}, "amendments": {amendments}}}\n'.encode()


def prefill(path: Path, count: int, text: str = "old {}\n") -> list[bytes]:
    path.mkdir(parents=True, exist_ok=True)
    lines = [text.format(i).encode() for i in range(count)]
    (path / LOG).write_bytes(b"".join(lines))
    return lines


@pytest.mark.usefixtures("clock")
class TestLog:
    def test_line_byte_for_byte(self, impl: ModuleType, tmp_path: Path) -> None:
        amendments = [
            {"action": "add", "page_id": "p", "reason": "na\u00efve \u2014 \u65e5\u672c \U0001f600 \u2028"},
            {"ctl": "\x00\x1f\t\n\r\b\f\"\\\x7f", "nested": {"z": {"y": []}, "a": (1, None)}},
            {"numbers": [1, 0.5, 100.0, 1e-05, 1e300, float("nan"), float("inf"), float("-inf"), True, 10**20]},
        ]
        wiki_dir = tmp_path / "memory" / "lorebook" / "main"
        assert impl.append_plan_log(wiki_dir, amendments, replan=True) is None
        impl.append_plan_log(wiki_dir, ({"action": "retire"},), replan=0)
        assert (wiki_dir / LOG).read_bytes() == line(
            '[{"action": "add", "page_id": "p", "reason": "na\u00efve \u2014 \u65e5\u672c \U0001f600 \u2028"}, '
            '{"ctl": "\\u0000\\u001f\\t\\n\\r\\b\\f\\"\\\\\x7f", "nested": {"z": {"y": []}, "a": [1, null]}}, '
            '{"numbers": [1, 0.5, 100.0, 1e-05, 1e+300, NaN, Infinity, -Infinity, true, '
            '100000000000000000000]}]',
            "true") + line('[{"action": "retire"}]', "0")

    def test_empty_amendments_touch_nothing(self, impl: ModuleType, tmp_path: Path,
                                            caplog: pytest.LogCaptureFixture) -> None:
        for empty in ([], (), {}):
            assert impl.append_plan_log(tmp_path / "absent", empty, replan=True) is None
        assert not (tmp_path / "absent").exists() and caplog.records == []

    @pytest.mark.parametrize(("old", "text", "kept"), [
        (1999, "old {}\n", slice(0, None)),
        (2000, "old {}\n", slice(1001, None)),
        # Other line boundaries than the line feed do not count.
        (1999, "old {} \u2028 \u0085 \x0b \x1c\n", slice(0, None)),
    ])
    def test_trim_boundary(self, impl: ModuleType, tmp_path: Path, old: int, text: str, kept: slice) -> None:
        lines = prefill(tmp_path, old, text)
        impl.append_plan_log(tmp_path, [{"n": 1}], replan=False)
        assert (tmp_path / LOG).read_bytes() == b"".join(lines[kept]) + line('[{"n": 1}]')
        assert [p.name for p in tmp_path.iterdir()] == [LOG]

    def test_carriage_returns_read_as_line_feeds(self, impl: ModuleType, tmp_path: Path) -> None:
        old = [f"crlf {i}\r\n".encode() for i in range(1000)] + [f"cr {i}\r".encode() for i in range(1000)]
        tmp_path.joinpath(LOG).write_bytes(b"".join(old))
        impl.append_plan_log(tmp_path, [{}], replan=False)
        assert (tmp_path / LOG).read_bytes() == b"".join(old[1001:]).replace(b"\r", b"\n") + line("[{}]")

    @pytest.mark.parametrize(("max_lines", "keep", "kept"), [
        (3, 2, "l4\nnew\n"), (3, 6, "l0\nl1\nl2\nl3\nl4\nnew\n"), (3, 0, ""), (3, -1, ""), (3, 7, ""),
        (3, 10, "l3\nl4\nnew\n"), (6, 2, "l0\nl1\nl2\nl3\nl4\nnew\n"), (3, 0.5, TypeError),
    ])
    def test_rebound_limits_slice_like_a_list(self, impl: ModuleType, tmp_path: Path,
                                              monkeypatch: pytest.MonkeyPatch, max_lines: int, keep: Any,
                                              kept: Any) -> None:
        monkeypatch.setattr(impl, "_PLAN_LOG_MAX_LINES", max_lines)
        monkeypatch.setattr(impl, "_PLAN_LOG_KEEP_LINES", keep)
        monkeypatch.setattr(impl, "json", type("Json", (), {"dumps": staticmethod(lambda r, **k: "new")}))
        prefill(tmp_path, 5, "l{}\n")
        if kept is TypeError:
            with pytest.raises(TypeError, match="slice indices must be integers"):
                impl.append_plan_log(tmp_path, [{}], replan=False)
        else:
            impl.append_plan_log(tmp_path, [{}], replan=False)
            assert (tmp_path / LOG).read_text() == kept

    @pytest.mark.parametrize(("setup", "error"), [
        ("wiki_dir is a file", FileExistsError),
        ("log is a directory", IsADirectoryError),
        ("trim target is a directory", IsADirectoryError),
        pytest.param("read-only directory", PermissionError, marks=pytest.mark.skipif(
            os.geteuid() == 0, reason="root bypasses directory permissions")),
    ])
    def test_os_errors_become_a_warning(self, impl: ModuleType, tmp_path: Path,
                                        caplog: pytest.LogCaptureFixture, setup: str,
                                        error: type[OSError]) -> None:
        wiki_dir = tmp_path / "wiki"
        before = b""
        if setup == "wiki_dir is a file":
            wiki_dir.write_bytes(before := b"not a directory")
        elif setup == "log is a directory":
            (wiki_dir / LOG).mkdir(parents=True)
        elif setup == "trim target is a directory":
            before = b"".join(prefill(wiki_dir, 2000)) + line("[{}]")
            (wiki_dir / (LOG + ".trim") / "blocker").mkdir(parents=True)
        else:
            wiki_dir.mkdir(mode=0o500)
        assert impl.append_plan_log(wiki_dir, [{}], replan=False) is None
        (record,) = caplog.records
        assert (record.name, record.levelno, record.getMessage()) == (
            impl.__name__, logging.WARNING, "could not append wiki plan log")
        assert record.exc_info and record.exc_info[0] is error
        if setup == "trim target is a directory":
            # The write failed, then the clean-up too; the log stays whole.
            assert isinstance(record.exc_info[1].__context__, IsADirectoryError)
        assert (wiki_dir.read_bytes() if wiki_dir.is_file() else
                (wiki_dir / LOG).read_bytes() if (wiki_dir / LOG).is_file() else b"") == before

    @pytest.mark.parametrize(("value", "error"), [
        ({1, 2}, "Object of type set is not JSON serializable"),
        ("\ud800", "'utf-8' codec can't encode character '\\ud800' in position 69: surrogates not allowed"),
        ({b"k": 1}, "keys must be str, int, float, bool or None, not bytes"),
        ("self", "Circular reference detected"),
    ])
    def test_unwritable_record_raises_and_adds_no_line(self, impl: ModuleType, tmp_path: Path,
                                                       value: Any, error: str) -> None:
        record: dict[str, Any] = {"v": value}
        if value == "self":
            record["v"] = record
        prefill(tmp_path / "existing", 2)
        before = (tmp_path / "existing" / LOG).read_bytes()
        for wiki_dir in (tmp_path / "fresh", tmp_path / "existing"):
            with pytest.raises((TypeError, ValueError)) as caught:
                impl.append_plan_log(wiki_dir, [record], replan=False)
            assert str(caught.value) == error
        # The log is opened for appending before the record is serialised.
        assert (tmp_path / "fresh" / LOG).read_bytes() == b""
        assert (tmp_path / "existing" / LOG).read_bytes() == before

    def test_invalid_utf8_raises_after_the_append(self, impl: ModuleType, tmp_path: Path) -> None:
        (tmp_path / LOG).write_bytes(b"ok\n\xff bad\n")
        with pytest.raises(UnicodeDecodeError) as caught:
            impl.append_plan_log(tmp_path, [{}], replan=False)
        assert (caught.value.start, caught.value.reason) == (3, "invalid start byte")
        assert (tmp_path / LOG).read_bytes() == b"ok\n\xff bad\n" + line("[{}]")

    @pytest.mark.parametrize("failure", [OSError, RuntimeError])
    def test_only_os_errors_are_caught(self, impl: ModuleType, tmp_path: Path, monkeypatch: pytest.MonkeyPatch,
                                       caplog: pytest.LogCaptureFixture, failure: type[Exception]) -> None:
        def now() -> dt.datetime:
            raise failure("clock")

        monkeypatch.setattr(impl, "datetime", type("Clock", (), {"now": staticmethod(now)}))
        result = outcome(lambda: impl.append_plan_log(tmp_path, [{}], replan=False))
        caught = failure is OSError
        assert result == (("returned", None) if caught else ("raised", RuntimeError, "clock"))
        assert len(caplog.records) == caught


def test_time_stamp_is_local_time_to_the_second(impl: ModuleType, tmp_path: Path) -> None:
    before = dt.datetime.now().replace(microsecond=0)
    impl.append_plan_log(tmp_path, [{}], replan=False)
    stamp = (tmp_path / LOG).read_text()[len('{"at": "'):][:19]
    assert before <= dt.datetime.fromisoformat(stamp) <= dt.datetime.now() and stamp[10] == "T"


class FakePath:
    """A path that keeps its files in memory and logs each use of itself and
    of the file it opens."""

    def __init__(self, path: str, files: dict[str, str], log: list[tuple[Any, ...]], tag: str = "") -> None:
        self.path, self.files, self.log, self.tag = path, files, log, tag

    def __getattr__(self, name: str) -> Any:
        def use(*args: Any, **options: Any) -> Any:
            shown = [a.path if isinstance(a, FakePath) else a for a in args]
            self.log.append((name + self.tag, self.path, *shown, options))
            return getattr(self, "_" + name)(*args)

        return use

    def __truediv__(self, name: str) -> FakePath:
        self.log.append(("/", self.path, name))
        return FakePath(f"{self.path}/{name}", self.files, self.log)

    @property
    def parent(self) -> FakePath:
        self.log.append(("parent", self.path))
        return FakePath(self.path.rsplit("/", 1)[0], self.files, self.log)

    @property
    def name(self) -> str:
        self.log.append(("name", self.path))
        return self.path.rsplit("/", 1)[1]

    def _mkdir(self) -> None:
        pass

    def _open(self, mode: str) -> FakePath:
        return self

    def __enter__(self) -> FakePath:
        self.log.append(("enter",))
        return FakePath(self.path, self.files, self.log, " (entered)")

    def __exit__(self, *exc: Any) -> None:
        self.log.append(("exit", exc[0]))

    def _write(self, text: str) -> None:
        self.files[self.path] = self.files.get(self.path, "") + text

    def _read_text(self) -> str:
        return self.files[self.path]

    def _with_name(self, name: str) -> FakePath:
        return FakePath(self.path.rsplit("/", 1)[0] + "/" + name, self.files, self.log)

    def _write_text(self, text: str) -> None:
        self.files[self.path] = text

    def _replace(self, target: FakePath) -> None:
        self.files[target.path] = self.files.pop(self.path)

    def _unlink(self) -> None:
        pass


def test_path_operations_in_order(native: ModuleType, twin: ModuleType,
                                  monkeypatch: pytest.MonkeyPatch) -> None:
    runs = []
    for module in (native, twin):
        monkeypatch.setattr(module, "datetime", FixedClock)
        monkeypatch.setattr(module, "_PLAN_LOG_MAX_LINES", 2)
        monkeypatch.setattr(module, "_PLAN_LOG_KEEP_LINES", 1)
        log: list[tuple[Any, ...]] = []
        files = {"/w/plan-log.jsonl": "a\nb\n"}
        module.append_plan_log(FakePath("/w", files, log), [{"x": 1}], replan=False)
        runs.append((log, files))
    assert runs[0] == runs[1]
    assert [entry[0] for entry in runs[0][0]] == [
        "/", "parent", "mkdir", "open", "enter", "write (entered)", "exit", "read_text", "name", "with_name",
        "write_text", "replace", "unlink"]
    assert runs[0][1] == {"/w/plan-log.jsonl": line('[{"x": 1}]').decode()}


# Drift ---------------------------------------------------------------------

def churn(n: int, **fields: Any) -> list[dict[str, Any]]:
    return [{"action": "add", **fields} for _ in range(n)]


class TestDrift:
    @pytest.mark.parametrize(("plan_size", "threshold"), [(size, 3) for size in range(12)] + [
        (12, 4), (14, 4), (30, 10), (32, 10), (100, 33)])
    def test_threshold(self, impl: ModuleType, plan_size: int, threshold: int) -> None:
        assert impl.drift_signal(churn(threshold - 1), plan_size) is None
        warning = impl.drift_signal(churn(threshold), plan_size)
        assert warning is not None
        assert warning.startswith(f"{threshold} structural amendments against a {plan_size}-")

    def test_warning_text(self, impl: ModuleType) -> None:
        assert impl.drift_signal(churn(10), 30) == (
            "10 structural amendments against a 30-page plan \u2014 the pinned structure is churning; "
            'consider a full replan (wiki(action="generate", replan=true) or /ostrel-wiki --replan).')

    def test_what_counts(self, impl: ModuleType) -> None:
        counted = [{"action": "add"}, {"action": "retire", "level": None}, {"action": "remap", "level": ""},
                   {"action": "add", "level": "package"}, {"action": "retire", "level": "subsystem"}]
        ignored = [{"action": "extend"}] * 20 + [
            {"action": "add", "level": "overview"}, {"action": "add", "level": "note"},
            {"action": "Add"}, {"action": "add ", "level": "module"}]
        assert impl.drift_signal(iter(counted + ignored), 0).startswith("5 structural amendments against a 0-")
        assert impl.drift_signal(counted + ignored, 15) is not None
        assert impl.drift_signal(counted + ignored, 18) is None
        assert impl.drift_signal([], 0) is None

    def test_plan_size_and_levels_as_python_has_them(self, impl: ModuleType,
                                                     monkeypatch: pytest.MonkeyPatch) -> None:
        assert impl.drift_signal(churn(10), 30.0).startswith("10 structural amendments against a 30.0-page")
        assert impl.drift_signal(churn(3), -50) is not None
        assert impl.drift_signal(churn(10**3), 10**30) is None
        with pytest.raises(TypeError):
            impl.drift_signal(churn(3), "30")
        monkeypatch.setattr(impl, "PINNED_LEVELS", ("overview",))
        assert impl.drift_signal(churn(3, level="overview"), 1) is not None
        assert impl.drift_signal(churn(3), 1) is None
        monkeypatch.delattr(impl, "PINNED_LEVELS")
        assert impl.drift_signal(churn(3, action="extend"), 1) is None
        with pytest.raises(NameError):
            impl.drift_signal(churn(1), 1)

    def test_action_is_read_first_and_required(self, native: ModuleType, twin: ModuleType) -> None:
        class Record(dict[str, Any]):
            def __init__(self, log: list[str], **fields: Any) -> None:
                super().__init__(fields)
                self.log = log

            def __getitem__(self, key: str) -> Any:
                self.log.append(f"[{key}]")
                return super().__getitem__(key)

            def get(self, key: str, default: Any = None) -> Any:
                self.log.append(f"get {key}")
                return super().get(key, default)

        results = []
        for module in (native, twin):
            log: list[str] = []
            records = [Record(log, action="add", level="x"), Record(log, action="extend"),
                       Record(log, level="module"), Record(log, action="add")]
            results.append((outcome(lambda: module.drift_signal(records, 0)), log))
            for bad in ([None], [3], ["add"], 5):
                results.append(outcome(lambda: module.drift_signal(bad, 1)))
        assert results[:5] == results[5:]
        assert results[0] == (("raised", KeyError, "'action'"),
                              ["[action]", "get level", "[action]", "[action]"])
