// Plan audit log and drift: the per-branch audit trail of each run's
// amendments, and the warning when the pinned structure churns.
#include <cstring>
#include <vector>

#include "records.hpp"
#include "texts.hpp"
#include "units.hpp"

namespace plan_record {

namespace {

// A tuple of keyword names for `call_kw`.
Ref keywords(std::initializer_list<PyObject*> names) {
  std::vector<Ref> items;
  for (PyObject* name : names) items.push_back(Ref::borrow(name));
  return tuple_of(items);
}

// The text after the `k`-th line feed of `text` (0: all of it), or "" when
// it has fewer: `"\n".join(text.split("\n")[k:])`.
Ref after_line_feeds(const Names& n, PyObject* text, Py_ssize_t k) {
  const Py_ssize_t size = PyUnicode_GET_LENGTH(text);
  Py_ssize_t at = 0;
  for (Py_ssize_t i = 0; i < k; ++i) {
    const Py_ssize_t found = PyUnicode_FindChar(text, '\n', at, size, 1);
    if (found == -2) raise();
    if (found < 0) return Ref::borrow(n.empty);
    at = found + 1;
  }
  return check(PyUnicode_Substring(text, at, size));
}

// `lines[start:]` bounds over `length` items, as list slicing reads them.
Py_ssize_t slice_start(PyObject* start, Py_ssize_t length) {
  Ref slice = check(PySlice_New(start, nullptr, nullptr));
  Py_ssize_t begin = 0;
  Py_ssize_t stop = 0;
  Py_ssize_t step = 0;
  check(PySlice_Unpack(slice.get(), &begin, &stop, &step));
  PySlice_AdjustIndices(length, &begin, &stop, step);
  return begin;
}

// How many line feeds an exact text holds.
Py_ssize_t line_feeds(const Names& n, PyObject* text) {
  if (PyUnicode_KIND(text) != PyUnicode_1BYTE_KIND) {
    return check_size(PyUnicode_Count(text, n.line_feed, 0, PY_SSIZE_T_MAX));
  }
  const auto* at = static_cast<const char*>(PyUnicode_DATA(text));
  const char* const end = at + PyUnicode_GET_LENGTH(text);
  Py_ssize_t count = 0;
  while ((at = static_cast<const char*>(std::memchr(at, '\n', static_cast<std::size_t>(end - at))))) {
    ++count;
    ++at;
  }
  return count;
}

// The log's text after the append: how many lines it holds (counted at line
// feeds only), and the last lines a trim keeps.
class LogLines {
 public:
  // `lines = text.split("\n")`
  // `count = len(lines) - 1 if lines[-1] == "" else len(lines)`
  LogLines(const Names& n, PyObject* text) : n_(n), text_(Ref::borrow(text)) {
    if (PyUnicode_CheckExact(text)) {
      // Fast path: an exact text's lines are counted, not made.
      const Py_ssize_t size = PyUnicode_GET_LENGTH(text);
      const Py_ssize_t feeds = line_feeds(n, text);
      length_ = feeds + 1;
      const bool open_end = size > 0 && PyUnicode_READ_CHAR(text, size - 1) != '\n';
      count_ = check(PyLong_FromSsize_t(open_end ? feeds + 1 : feeds));
      return;
    }
    lines_ = call_method(text, n.split, {n.line_feed});
    Ref minus_one = integer(-1);
    Ref last = getitem(lines_.get(), minus_one.get());
    Ref blank = check(PyObject_RichCompare(last.get(), n.empty, Py_EQ));
    const bool closed = truthy(blank.get());
    length_ = check_size(PyObject_Size(lines_.get()));
    count_ = check(PyLong_FromSsize_t(closed ? length_ - 1 : length_));
  }

  PyObject* count() const noexcept { return count_.get(); }

  // `"\n".join(lines[count - keep:])`
  Ref kept(PyObject* keep) const {
    Ref start = check(PyNumber_Subtract(count_.get(), keep));
    // Fast path: the tail of an exact text is cut at its line feeds.
    if (!lines_) return after_line_feeds(n_, text_.get(), slice_start(start.get(), length_));
    Ref slice = check(PySlice_New(start.get(), nullptr, nullptr));
    Ref tail = getitem(lines_.get(), slice.get());
    return check(PyUnicode_Join(n_.line_feed, tail.get()));
  }

 private:
  const Names& n_;
  Ref text_;
  Ref lines_;  // the split lines, for a text that is not an exact str
  Py_ssize_t length_ = 0;
  Ref count_;
};

void append_record(const Call& call, PyObject* wiki_dir, PyObject* amendments, PyObject* replan) {
  const Names& n = call.state().names;
  Ref encoding_kw = keywords({n.encoding});

  Ref log_name = call.global(n.PLAN_LOG_NAME);
  Ref path = check(PyNumber_TrueDivide(wiki_dir, log_name.get()));
  Ref parent = getattr(path.get(), n.parent);
  Ref mkdir = getattr(parent.get(), n.mkdir);
  Ref mkdir_kw = keywords({n.parents, n.exist_ok});
  call_kw(mkdir.get(), {}, {Py_True, Py_True}, mkdir_kw.get());

  Ref clock = call.global(n.datetime);
  Ref now = call_method(clock.get(), n.now, {});
  Ref isoformat = getattr(now.get(), n.isoformat);
  Ref timespec_kw = keywords({n.timespec});
  Ref at = call_kw(isoformat.get(), {}, {n.seconds}, timespec_kw.get());
  Ref record = new_dict();
  dict_set(record.get(), n.at, at.get());
  dict_set(record.get(), n.replan, replan);
  dict_set(record.get(), n.amendments, amendments);

  Ref open = getattr(path.get(), n.open);
  Ref log = call_kw(open.get(), {n.append_mode}, {n.utf_8}, encoding_kw.get());
  with_context(n, log.get(), [&](PyObject* entered) {
    Ref write = getattr(entered, n.write);
    Ref json = call.global(n.json);
    Ref dumps = getattr(json.get(), n.dumps);
    Ref ascii_kw = keywords({n.ensure_ascii});
    Ref dumped = call_kw(dumps.get(), {record.get()}, {Py_False}, ascii_kw.get());
    Ref line = check(PyNumber_Add(dumped.get(), n.line_feed));
    plan_record::call(write.get(), {line.get()});
  });

  Ref read_text = getattr(path.get(), n.read_text);
  Ref text = call_kw(read_text.get(), {}, {n.utf_8}, encoding_kw.get());
  const LogLines lines(n, text.get());
  Ref max_lines = call.global(n.PLAN_LOG_MAX_LINES);
  Ref over = check(PyObject_RichCompare(lines.count(), max_lines.get(), Py_GT));
  if (!truthy(over.get())) return;

  // Write the kept lines beside the log and rename them over it, so that a
  // failed trim leaves the log whole.
  Ref keep_lines = call.global(n.PLAN_LOG_KEEP_LINES);
  Ref kept = lines.kept(keep_lines.get());
  Ref with_name = getattr(path.get(), n.with_name);
  Ref name = getattr(path.get(), n.name);
  Ref scratch_name = check(PyNumber_Add(name.get(), n.trim_suffix));
  Ref scratch = plan_record::call(with_name.get(), {scratch_name.get()});
  try_finally(
      [&] {
        Ref write_text = getattr(scratch.get(), n.write_text);
        call_kw(write_text.get(), {kept.get()}, {n.utf_8}, encoding_kw.get());
        call_method(scratch.get(), n.replace, {path.get()});
      },
      [&] {
        Ref unlink = getattr(scratch.get(), n.unlink);
        Ref missing_kw = keywords({n.missing_ok});
        call_kw(unlink.get(), {}, {Py_True}, missing_kw.get());
      });
}

Ref append_plan_log(const Call& call, PyObject* wiki_dir, PyObject* amendments, PyObject* replan) {
  if (!truthy(amendments)) return none();
  try {
    append_record(call, wiki_dir, amendments, replan);
  } catch (const PyErrorSet&) {
    // Writing the log is best effort: an operating-system error is a warning.
    if (!PyErr_ExceptionMatches(PyExc_OSError)) throw;
    Ref error = Ref::steal_maybe(PyErr_GetRaisedException());
    while_handling(error.get(), [&] {
      const Names& n = call.state().names;
      Ref logger = call.global(n.logger);
      Ref warning = getattr(logger.get(), n.warning);
      Ref exc_info_kw = keywords({n.exc_info});
      call_kw(warning.get(), {n.log_failed}, {Py_True}, exc_info_kw.get());
    });
  }
  return none();
}

Ref append_plan_log_entry(const Call& call) {
  return append_plan_log(call, call.arg(0), call.arg(1), call.arg(2));
}

Ref drift_signal(const Call& call, PyObject* amendments, PyObject* plan_size) {
  const Names& n = call.state().names;
  Ref structural_actions = check(PyTuple_Pack(3, n.action_add, n.action_retire, n.action_remap));
  Py_ssize_t structural = 0;
  for_each(amendments, [&](PyObject* a) {
    Ref action = row_item(a, n.action);
    if (!contains(structural_actions.get(), action.get())) return;
    Ref level = row_level(n, a);
    Ref pinned = call.global(n.PINNED_LEVELS);
    if (contains(pinned.get(), level.get())) ++structural;
  });

  // max(3, plan_size // 3), as the builtin picks: the later only when greater.
  Ref three = integer(3);
  Ref threshold = check(PyNumber_FloorDivide(plan_size, three.get()));
  if (!check(PyObject_RichCompareBool(threshold.get(), three.get(), Py_GT))) threshold = three;
  Ref count = check(PyLong_FromSsize_t(structural));
  Ref churning = check(PyObject_RichCompare(count.get(), threshold.get(), Py_GE));
  if (!truthy(churning.get())) return none();

  Ref size_text = formatted(plan_size);
  Ref head =
      check(PyUnicode_FromFormat("%zd structural amendments against a %U", structural, size_text.get()));
  Ref tail = text(
      "-page plan \xe2\x80\x94 the pinned structure is churning; consider a full replan "
      "(wiki(action=\"generate\", replan=true) or /ostrel-wiki --replan).");
  return check(PyUnicode_Concat(head.get(), tail.get()));
}

Ref drift_signal_entry(const Call& call) { return drift_signal(call, call.arg(0), call.arg(1)); }

}  // namespace

const FunctionSpec append_plan_log_spec{texts::append_plan_log, append_plan_log_entry};
const FunctionSpec drift_signal_spec{texts::drift_signal, drift_signal_entry};

}  // namespace plan_record
