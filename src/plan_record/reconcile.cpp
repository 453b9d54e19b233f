// Plan reconciliation: stored rows and fresh plans become this build's plans.
#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <optional>
#include <vector>

#include "records.hpp"
#include "texts.hpp"
#include "units.hpp"

namespace plan_record {

namespace {

// The catch-all page's topic names the base names of its first paths, at most this many.
constexpr Py_ssize_t catch_all_topic_samples = 12;

// Below this many (pass-through candidate, code-unit plan) pairs, membership is
// tested literally: indexing the code-unit plans costs about as much as this
// many calls of the record's `__eq__`.
constexpr Py_ssize_t membership_index_min_pairs = 64;

bool text_is(PyObject* o, const char* ascii) {
  return PyUnicode_CheckExact(o) && PyUnicode_CompareWithASCIIString(o, ascii) == 0;
}

// ----------------------------------------------------------------------------
// Plain records: attribute reads that run no Python code

// Whether reading the attributes `fields` of a quiet instance (below) of
// exactly `type_obj` runs no Python code: a heap class of metaclass `type`
// whose MRO is (itself, object), with the default attribute access (no
// `__getattribute__` or `__getattr__`), only exact texts as keys of its dict,
// none of the fields a descriptor of the class or of `object`. Such a read
// looks in the instance and then takes a plain class default, or fails with
// AttributeError. `required` gets the fields without a class default (a read
// of the others never fails).
bool plain_record_class(PyObject* type_obj, PyObject* fields, std::vector<PyObject*>* required = nullptr) {
  if (!PyType_Check(type_obj) || Py_TYPE(type_obj) != &PyType_Type) return false;
  auto* type = reinterpret_cast<PyTypeObject*>(type_obj);
  if (!(type->tp_flags & Py_TPFLAGS_HEAPTYPE) || type->tp_getattro != PyObject_GenericGetAttr) return false;
  PyObject* mro = type->tp_mro;
  if (!mro || PyTuple_GET_SIZE(mro) != 2 || PyTuple_GET_ITEM(mro, 0) != type_obj ||
      PyTuple_GET_ITEM(mro, 1) != reinterpret_cast<PyObject*>(&PyBaseObject_Type)) {
    return false;
  }
  Ref own = check(PyType_GetDict(type));
  if (!text_keys(own.get())) return false;
  Ref base = check(PyType_GetDict(&PyBaseObject_Type));
  for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(fields); ++i) {
    PyObject* field = PyTuple_GET_ITEM(fields, i);
    if (!PyUnicode_CheckExact(field) || dict_find(base.get(), field)) return false;
    Ref on_class = dict_find(own.get(), field);
    if (on_class && Py_TYPE(on_class.get())->tp_descr_get) return false;
    if (!on_class && required) required->push_back(field);
  }
  return true;
}

// Whether the instance's own attributes read without running Python code: its
// instance dict holds only exact texts as keys. (Asking for the dict makes one
// for an instance that keeps its attributes inline, whose keys are texts.)
bool quiet_instance(PyObject* o) {
  Ref dict = Ref::steal_maybe(PyObject_GenericGetDict(o, nullptr));
  if (!dict) {
    if (!PyErr_ExceptionMatches(PyExc_AttributeError)) raise();
    PyErr_Clear();
    return false;
  }
  return text_keys(dict.get());
}

// An attribute of a plain record (above), or an empty Ref when it is missing.
Ref plain_attribute(PyObject* record, PyObject* field) {
  Ref value = Ref::steal_maybe(PyObject_GetAttr(record, field));
  if (!value) {
    if (!PyErr_ExceptionMatches(PyExc_AttributeError)) raise();
    PyErr_Clear();
  }
  return value;
}

// ----------------------------------------------------------------------------
// Record equality

// When `member == plan` is known to be false without calling the record's
// `__eq__`. The record type's `__eq__` counts as the one the dataclass machinery
// generates when the type is a plain record class (above) for its compared
// fields, its own dict holds `__dataclass_params__` and no `__class__`, and its
// `__eq__` there is a plain function qualified `<Class>.__eq__` whose code is the
// generated one's: file "<string>", code qualname "__create_fn__.<locals>.__eq__",
// arguments (self, other), no free variables, constants (None,), names
// `__class__`, the compared fields with `page_id` first, `NotImplemented`. That
// function returns `(self.f1, ...) == (other.f1, ...)` for two instances of the
// very class, and the tuples' comparison stops at the first differing field: for
// two instances of exactly that type whose fields all read and whose page ids
// are different exact texts it returns False, and no Python code runs on the way.
class RecordEquality {
 public:
  RecordEquality(const Names& n, PyObject* record_type) {
    if (!PyType_Check(record_type)) return;
    auto* type = reinterpret_cast<PyTypeObject*>(record_type);
    Ref own = check(PyType_GetDict(type));
    if (!text_keys(own.get()) || !dict_find(own.get(), n.dunder_dataclass_params) ||
        dict_find(own.get(), n.dunder_class)) {
      return;
    }
    Ref eq = dict_find(own.get(), n.dunder_eq);
    if (!eq || !PyFunction_Check(eq.get())) return;
    Ref qualname = getattr(eq.get(), n.dunder_qualname);
    Ref class_qualname = check(PyType_GetQualName(type));
    Ref expected = check(PyUnicode_FromFormat("%U.__eq__", class_qualname.get()));
    if (!PyUnicode_CheckExact(qualname.get()) || PyUnicode_Compare(qualname.get(), expected.get()) != 0)
      return;

    auto* code = reinterpret_cast<PyCodeObject*>(PyFunction_GetCode(eq.get()));
    if (code->co_argcount != 2 || code->co_posonlyargcount != 0 || code->co_kwonlyargcount != 0) return;
    Ref filename = getattr(reinterpret_cast<PyObject*>(code), n.co_filename);
    Ref code_qualname = getattr(reinterpret_cast<PyObject*>(code), n.co_qualname);
    if (!text_is(filename.get(), "<string>") ||
        !text_is(code_qualname.get(), "__create_fn__.<locals>.__eq__"))
      return;
    Ref varnames = check(PyCode_GetVarnames(code));
    Ref freevars = check(PyCode_GetFreevars(code));
    Ref cellvars = check(PyCode_GetCellvars(code));
    if (PyTuple_GET_SIZE(varnames.get()) != 2 || !text_is(PyTuple_GET_ITEM(varnames.get(), 0), "self") ||
        !text_is(PyTuple_GET_ITEM(varnames.get(), 1), "other") || PyTuple_GET_SIZE(freevars.get()) ||
        PyTuple_GET_SIZE(cellvars.get())) {
      return;
    }
    Ref consts = getattr(reinterpret_cast<PyObject*>(code), n.co_consts);
    if (!PyTuple_CheckExact(consts.get()) || PyTuple_GET_SIZE(consts.get()) != 1 ||
        PyTuple_GET_ITEM(consts.get(), 0) != Py_None) {
      return;
    }
    Ref names = getattr(reinterpret_cast<PyObject*>(code), n.co_names);
    const Py_ssize_t count = PyTuple_CheckExact(names.get()) ? PyTuple_GET_SIZE(names.get()) : 0;
    if (count < 3 || !text_is(PyTuple_GET_ITEM(names.get(), 0), "__class__") ||
        !text_is(PyTuple_GET_ITEM(names.get(), count - 1), "NotImplemented") ||
        !text_is(PyTuple_GET_ITEM(names.get(), 1), "page_id")) {
      return;
    }
    Ref fields = check(PyTuple_GetSlice(names.get(), 1, count - 1));
    if (!plain_record_class(record_type, fields.get(), &required_)) return;
    type_ = type;
    type_ref_ = Ref::borrow(record_type);
    fields_ = std::move(fields);
  }

  explicit operator bool() const noexcept { return static_cast<bool>(fields_); }

  // The page id of `o` when it is a plain instance: of exactly the record type,
  // quiet, every compared field readable (those without a class default are
  // read), the page id an exact text. Reading runs no Python code.
  Ref plain_id(PyObject* o) const {
    if (Py_TYPE(o) != type_ || !quiet_instance(o)) return Ref();
    Ref id = plain_attribute(o, PyTuple_GET_ITEM(fields_.get(), 0));
    if (!id || !PyUnicode_CheckExact(id.get())) return Ref();
    for (PyObject* field : required_) {
      if (!plain_attribute(o, field)) return Ref();
    }
    return id;
  }

 private:
  PyTypeObject* type_ = nullptr;
  Ref type_ref_;
  Ref fields_;                       // the compared field names, page_id first
  std::vector<PyObject*> required_;  // those without a class default (borrowed from fields_)
};

// `plan in fresh_modules` by the record's equality: `member == plan` for each
// member in list order until one is equal, members by identity settled at
// once. When the record's equality is the generated one (above), `__eq__` can
// only be true, or run Python code, for a member that is not a plain instance
// or that shares the plan's page id: the test starts at the first such member
// (found through an index by page id) and, since that `__eq__` may change the
// plans or the list, goes on literally from there.
class Membership {
 public:
  Membership(const Names& n, PyObject* record_type, PyObject* members, Py_ssize_t candidates)
      : members_(members) {
    const Py_ssize_t count = PyList_GET_SIZE(members);
    identities_.reserve(static_cast<std::size_t>(count));
    for (Py_ssize_t i = 0; i < count; ++i) identities_.push_back(PyList_GET_ITEM(members, i));
    std::sort(identities_.begin(), identities_.end(), std::less<PyObject*>());
    if (!record_type || candidates * count < membership_index_min_pairs) return;
    equality_.emplace(n, record_type);
    if (!*equality_) return;
    first_by_id_ = new_dict();
    first_odd_ = count;
    for (Py_ssize_t i = 0; i < count; ++i) {
      Ref id = equality_->plain_id(PyList_GET_ITEM(members, i));
      if (!id) {
        first_odd_ = std::min(first_odd_, i);
        continue;
      }
      if (dict_find(first_by_id_.get(), id.get())) continue;
      Ref at = check(PyLong_FromSsize_t(i));
      check(PyDict_SetItem(first_by_id_.get(), id.get(), at.get()));
    }
    indexed_ = true;
  }

  // `id(plan) in member_ids or plan in members`, the ids taken when the
  // members were gathered: a member is settled by identity in one step.
  bool contains(PyObject* plan) {
    if (std::binary_search(identities_.begin(), identities_.end(), plan, std::less<PyObject*>())) return true;
    if (!indexed_) return literal_from(plan, 0);
    Ref id = equality_->plain_id(plan);
    if (!id) {
      indexed_ = false;
      return literal_from(plan, 0);
    }
    // Members before `start` compare unequal without running Python code.
    Py_ssize_t start = first_odd_;
    if (Ref at = dict_find(first_by_id_.get(), id.get())) start = std::min(start, PyLong_AsSsize_t(at.get()));
    indexed_ = start == PyList_GET_SIZE(members_);
    return literal_from(plan, start);
  }

 private:
  // `any(member == plan for member in members[start:])`, re-reading the length
  // at each step as the list's own membership test does.
  bool literal_from(PyObject* plan, Py_ssize_t start) {
    for (Py_ssize_t i = start; i < PyList_GET_SIZE(members_); ++i) {
      Ref member = Ref::borrow(PyList_GET_ITEM(members_, i));
      if (check(PyObject_RichCompareBool(member.get(), plan, Py_EQ))) return true;
    }
    return false;
  }

  PyObject* members_;
  std::vector<PyObject*> identities_;  // the members when gathered, in address order
  std::optional<RecordEquality> equality_;
  bool indexed_ = false;      // no Python code ran since the index was built
  Ref first_by_id_;           // page id -> position of its first plain member
  Py_ssize_t first_odd_ = 0;  // position of the first member that is not plain
};

// `path in paths`, directly for an exact set.
bool has_path(PyObject* paths, PyObject* path) {
  return PyAnySet_CheckExact(paths) ? set_has(paths, path) : contains(paths, path);
}

// sorted(p for p in stored if p in live_paths): the stored files of a row that
// still exist; duplicates stay.
Ref live_files(PyObject* stored, PyObject* live_paths) {
  Ref files = new_list();
  for_each(stored, [&](PyObject* path) {
    if (has_path(live_paths, path)) append(files.get(), path);
  });
  check(PyList_Sort(files.get()));
  return files;
}

Ref plan_from_row(const Call& call, PyObject* row, PyObject* live_paths) {
  const ModuleState& st = call.state();
  const Names& n = st.names;

  Ref stored = row_get(n, row, n.source_files);
  if (!truthy(stored.get())) stored = new_list();
  Ref files = live_files(stored.get(), live_paths);
  Ref title = row_get(n, row, n.title);
  if (!truthy(title.get())) title = row_item(row, n.page_id);

  Ref page_plan = call.global(n.PagePlan);
  Ref page_id = row_item(row, n.page_id);
  Ref level = or_else(row_get(n, row, n.level), n.module);
  Ref importance = or_else(row_get(n, row, n.importance), n.medium);
  Ref description = row_get(n, row, n.description);
  if (!truthy(description.get())) {
    Ref shown = formatted(title.get());
    description =
        check(PyUnicode_FromFormat("The %U page (%zd files).", shown.get(), PyList_GET_SIZE(files.get())));
  }
  Ref topic_of = call.global(n.unit_topic);
  Ref topic = plan_record::call(topic_of.get(), {title.get(), files.get()});
  ModulePattern catch_all_re(call, n.CATCH_ALL_RE, st.catch_all_re, native_catch_all_match);
  Ref id_text = row_get(n, row, n.page_id, n.empty);
  Ref catch_all = boolean(catch_all_re.matches(id_text.get()));
  Ref type = or_else(row_get(n, row, n.page_type), n.empty);

  return make_record(n, page_plan.get(),
                     {page_id.get(), title.get(), level.get(), importance.get(), description.get(),
                      topic.get(), files.get(), catch_all.get(), type.get()},
                     st.row_plan_fields);
}

Ref plan_from_row_entry(const Call& call) { return plan_from_row(call, call.arg(0), call.arg(1)); }

// `_plan_from_row(row, live_paths)` through the module's current binding.
Ref rebuild_from_row(const Call& call, PyObject* row, PyObject* live_paths) {
  Ref fn = call.global(call.state().names.plan_from_row);
  if (Function* own = as_native(call.state(), fn.get(), plan_from_row_spec)) {
    PyObject* args[] = {row, live_paths};
    return plan_from_row(Call(own, args), row, live_paths);
  }
  return plan_record::call(fn.get(), {row, live_paths});
}

Ref amendment(const Call& call, PyObject* action, PyObject* page_id, PyObject* reason) {
  Ref amend = call.global(call.state().names.amend);
  return plan_record::call(amend.get(), {action, page_id, reason});
}

Ref amendment_with_level(const Call& call, PyObject* action, PyObject* page_id, PyObject* reason,
                         PyObject* level) {
  Ref amend = call.global(call.state().names.amend);
  return call_kw(amend.get(), {action, page_id, reason}, {level}, call.state().level_keyword);
}

// ----------------------------------------------------------------------------
// Family demotion

// Whether `text in levels` runs no Python code for an exact text: a set or
// frozenset of exact texts.
bool quiet_levels(PyObject* levels) {
  if (!PyFrozenSet_CheckExact(levels) && !PySet_CheckExact(levels)) return false;
  Ref it = iterate(levels);
  while (Ref level = next(it.get())) {
    if (!PyUnicode_CheckExact(level.get())) return false;
  }
  return true;
}

// Whether `files` is an exact list of exact texts: iterating it and hashing
// its items runs no Python code.
bool text_list(PyObject* files) {
  if (!PyList_CheckExact(files)) return false;
  for (Py_ssize_t i = 0; i < PyList_GET_SIZE(files); ++i) {
    if (!PyUnicode_CheckExact(PyList_GET_ITEM(files, i))) return false;
  }
  return true;
}

// The demotion's pinned paths. `pinned.update(files)` with an exact list of
// exact texts runs no Python code, so no one can tell when it happens: such
// updates wait, in order, until the set is needed or until Python code may run
// (which could change the lists).
class PinnedPaths {
 public:
  // pinned.update(files)
  void update(PyObject* files) {
    if (text_list(files) && PyList_GET_SIZE(files)) {
      pending_.push_back(Ref::borrow(files));
      return;
    }
    flush();
    set_update(set_.get(), files);
  }
  // Before anything that may run Python code.
  void flush() {
    for (const Ref& files : pending_) set_update(set_.get(), files.get());
    pending_.clear();
  }
  bool empty() const { return PySet_GET_SIZE(set_.get()) == 0 && pending_.empty(); }
  PyObject* set() {
    flush();
    return set_.get();
  }

 private:
  Ref set_ = new_set();
  std::vector<Ref> pending_;
};

Ref demote_unrecorded_families(const Call& call, PyObject* fresh_plans, PyObject* existing) {
  const ModuleState& st = call.state();
  const Names& n = st.names;

  auto pinned_level = [&](PyObject* level) {
    Ref levels = call.global(n.PINNED_LEVELS);
    return contains(levels.get(), level);
  };
  // Whether the names a row's step looks up are bound to plain values, the
  // lookups running no Python code. Known until Python code may run.
  bool names_quiet = false;
  auto quiet_names = [&] {
    Ref levels = call.global_if_bound(n.PINNED_LEVELS);
    Ref pattern = call.global_if_bound(n.CATCH_ALL_RE);
    return levels && quiet_levels(levels.get()) && pattern.is(st.catch_all_re);
  };
  // Whether this row's step runs no Python code: an exact dict with text keys
  // only, its level an exact text or None, its files an exact list of exact
  // texts or None, the names quiet.
  auto quiet_row = [&](PyObject* pid, PyObject* row) {
    if (!PyUnicode_CheckExact(pid) || !PyDict_CheckExact(row) || !text_keys(row)) return false;
    Ref level = dict_find(row, n.level);
    if (level && !level.is(Py_None) && !PyUnicode_CheckExact(level.get())) return false;
    Ref files = dict_find(row, n.source_files);
    if (files && !files.is(Py_None) && !text_list(files.get())) return false;
    if (!names_quiet) names_quiet = quiet_names();
    return names_quiet;
  };

  // Files that stored code pages pin (custom pages and the catch-all never do).
  PinnedPaths pinned;
  const bool deferrable = PyDict_CheckExact(existing);
  bool all_quiet = deferrable;
  for_each_item(n, existing, [&](PyObject* pid, PyObject* row) {
    if (!deferrable || !quiet_row(pid, row)) {
      // The step may run Python code, which could change the lists and the names.
      all_quiet = false;
      names_quiet = false;
      pinned.flush();
    }
    Ref level = row_level(n, row);
    if (!pinned_level(level.get())) return;
    if (starts_with(n, pid, n.custom_prefix)) return;
    if (ModulePattern(call, n.CATCH_ALL_RE, st.catch_all_re, native_catch_all_match).matches(pid)) return;
    Ref files = row_get(n, row, n.source_files);
    if (truthy(files.get())) pinned.update(files.get());
  });
  if (pinned.empty()) return Ref::borrow(fresh_plans);

  // When no fresh plan is a family parent that could lose its parent (children,
  // an id the store lacks, a code-unit level), and reading that runs no Python
  // code, the set is never consulted: the result is a copy of the plans. No
  // Python code has run since the names were found quiet.
  if (all_quiet && PyList_CheckExact(fresh_plans)) {
    Ref record_type = call.global_if_bound(n.PagePlan);
    Ref fields = tuple_of({n.page_id, n.children, n.level});
    Ref levels = call.global(n.PINNED_LEVELS);
    bool no_parent = record_type && plain_record_class(record_type.get(), fields.get());
    for (Py_ssize_t i = 0; no_parent && i < PyList_GET_SIZE(fresh_plans); ++i) {
      PyObject* plan = PyList_GET_ITEM(fresh_plans, i);
      no_parent = Py_TYPE(plan) == reinterpret_cast<PyTypeObject*>(record_type.get()) && quiet_instance(plan);
      Ref pid = no_parent ? plain_attribute(plan, n.page_id) : Ref();
      Ref children = pid ? plain_attribute(plan, n.children) : Ref();
      no_parent = pid && PyUnicode_CheckExact(pid.get()) && children && PyList_CheckExact(children.get());
      if (!no_parent || PyList_GET_SIZE(children.get()) == 0 || dict_find(existing, pid.get())) continue;
      Ref level = plain_attribute(plan, n.level);
      no_parent = level && PyUnicode_CheckExact(level.get()) && !set_has(levels.get(), level.get());
    }
    // [plan for plan in fresh_plans if plan.page_id not in dropped], nothing dropped
    if (no_parent) return check(PySequence_List(fresh_plans));
  }
  pinned.flush();

  Ref by_id = new_dict();
  for_each(fresh_plans, [&](PyObject* plan) {
    Ref pid = getattr(plan, n.page_id);
    dict_set(by_id.get(), pid.get(), plan);
  });

  Ref dropped = new_set();
  for_each(fresh_plans, [&](PyObject* plan) {
    Ref children = getattr(plan, n.children);
    if (!truthy(children.get())) return;
    Ref pid = getattr(plan, n.page_id);
    if (contains(existing, pid.get())) return;
    Ref level = getattr(plan, n.level);
    if (!pinned_level(level.get())) return;

    Ref parts = new_list();
    for_each(children.get(), [&](PyObject* kid) {
      if (Ref part = dict_find(by_id.get(), kid)) append(parts.get(), part.get());
    });
    bool collides = false;
    for_each(parts.get(), [&](PyObject* part) {
      if (collides) return;
      Ref files = getattr(part, n.source_files);
      Ref disjoint = call_method(pinned.set(), n.isdisjoint, {files.get()});
      collides = !truthy(disjoint.get());
    });
    if (!collides) return;
    set_add(dropped.get(), pid.get());
    Ref section = getattr(plan, n.parent_section);
    for_each(parts.get(), [&](PyObject* part) { setattr(part, n.parent_section, section.get()); });
  });

  Ref kept = new_list();
  for_each(fresh_plans, [&](PyObject* plan) {
    Ref pid = getattr(plan, n.page_id);
    if (!set_has(dropped.get(), pid.get())) append(kept.get(), plan);
  });
  return kept;
}

Ref demote_entry(const Call& call) { return demote_unrecorded_families(call, call.arg(0), call.arg(1)); }

// ----------------------------------------------------------------------------
// Build order

// The sort key of one plan: (is a code page, -importance_score or 0.0).
struct ImportanceKey {
  bool code = false;
  // The negated score as a C double, when the score is an exact float (not
  // NaN) or an exact int that a double holds exactly: then keys compare as
  // doubles do, and no Python code runs in the comparisons.
  std::optional<double> rank;
  Ref score;  // the score, for the literal key
};

std::optional<double> plain_rank(PyObject* score) {
  if (PyFloat_CheckExact(score)) {
    const double value = PyFloat_AS_DOUBLE(score);
    if (std::isnan(value)) return std::nullopt;
    return -value;
  }
  if (PyLong_CheckExact(score)) {
    constexpr long long exact_limit = 1LL << 53;  // beyond it a double rounds
    int overflow = 0;
    const long long value = PyLong_AsLongLongAndOverflow(score, &overflow);
    if (overflow || (value == -1 && PyErr_Occurred()) || value > exact_limit || value < -exact_limit) {
      PyErr_Clear();
      return std::nullopt;
    }
    return -static_cast<double>(value);
  }
  return std::nullopt;
}

Ref by_importance(const Call& call, PyObject* plans) {
  const Names& n = call.state().names;
  Ref pinned_levels = call.global(n.PINNED_LEVELS);
  // `sorted` sorts its own copy, which no other code can reach.
  std::vector<Ref> items;
  {
    Ref copy = check(PySequence_List(plans));
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(copy.get()); ++i) {
      items.push_back(Ref::borrow(PyList_GET_ITEM(copy.get(), i)));
    }
  }
  const std::size_t count = items.size();

  // One key per plan, in order.
  std::vector<ImportanceKey> keys(count);
  bool plain = true;
  for (std::size_t i = 0; i < count; ++i) {
    Ref level = getattr(items[i].get(), n.level);
    keys[i].code = contains(pinned_levels.get(), level.get());
    if (!keys[i].code) continue;
    keys[i].score = getattr(items[i].get(), n.importance_score);
    keys[i].rank = plain_rank(keys[i].score.get());
    if (!keys[i].rank) {
      // `-plan.importance_score`, now, as the key function would.
      keys[i].score = check(PyNumber_Negative(keys[i].score.get()));
      plain = false;
    }
  }

  std::vector<std::size_t> order(count);
  for (std::size_t i = 0; i < count; ++i) order[i] = i;
  if (plain) {
    // sorted(plans, key=lambda p: (code, -score)), every score a plain number.
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
      if (keys[a].code != keys[b].code) return !keys[a].code;
      return keys[a].code && *keys[a].rank < *keys[b].rank;
    });
  } else {
    // The positions sorted with the list's own stable sort on the key tuples.
    Ref zero = check(PyFloat_FromDouble(0.0));
    std::vector<Ref> key_tuples;
    key_tuples.reserve(count);
    for (const ImportanceKey& key : keys) {
      Ref rank;
      if (!key.code) {
        rank = zero;
      } else if (key.rank) {
        rank = check(PyNumber_Negative(key.score.get()));
      } else {
        rank = key.score;
      }
      key_tuples.push_back(tuple_of({key.code ? Py_True : Py_False, rank.get()}));
    }
    Ref key_list = list_of(key_tuples);
    std::vector<Ref> positions;
    positions.reserve(count);
    for (std::size_t i = 0; i < count; ++i) positions.push_back(check(PyLong_FromSize_t(i)));
    Ref sorted_positions = list_of(positions);
    Ref key_of = getattr(key_list.get(), n.dunder_getitem);
    Ref key_name = tuple_of({n.key});
    Ref sort = getattr(sorted_positions.get(), n.sort);
    call_kw(sort.get(), {}, {key_of.get()}, key_name.get());
    // Comparisons ran Python code, which may have reached the list: read it with care.
    if (static_cast<std::size_t>(PyList_GET_SIZE(sorted_positions.get())) != count) {
      raise(PyExc_ValueError, "list modified during sort");
    }
    for (std::size_t i = 0; i < count; ++i) {
      PyObject* at = PyList_GET_ITEM(sorted_positions.get(), static_cast<Py_ssize_t>(i));
      const Py_ssize_t index = PyLong_Check(at) ? PyLong_AsSsize_t(at) : -1;
      if (index < 0 || static_cast<std::size_t>(index) >= count) {
        PyErr_Clear();
        raise(PyExc_ValueError, "list modified during sort");
      }
      order[i] = static_cast<std::size_t>(index);
    }
  }

  std::vector<Ref> result;
  result.reserve(count);
  for (std::size_t i : order) result.push_back(items[i]);
  return list_of(result);
}

Ref by_importance_entry(const Call& call) { return by_importance(call, call.arg(0)); }

// ----------------------------------------------------------------------------
// Plan pinning

class PinPlan {
 public:
  PinPlan(const Call& call, PyObject* fresh_plans, PyObject* existing, PyObject* live_paths, PyObject* replan)
      : call_(call),
        st_(call.state()),
        n_(st_.names),
        fresh_plans_(Ref::borrow(fresh_plans)),
        existing_(existing),
        live_paths_(live_paths),
        replan_(replan) {}

  Ref run() {
    amendments_ = new_list();
    Ref remap_type = call_.global(n_.ReplanRemap);
    remap_ = plan_record::call(remap_type.get(), {});
    if (!truthy(replan_)) fresh_plans_ = demote();

    find_stored_families();
    find_fresh_families();
    decide_pinnable();
    partition_fresh_plans();
    record_pass_through();

    if (truthy(replan_) || PyDict_GET_SIZE(pinned_existing_.get()) == 0) return fresh_path();
    return pinned_assembly();
  }

 private:
  // `level in PINNED_LEVELS`, the name looked up at each use.
  bool pinned_level(PyObject* level) {
    Ref levels = call_.global(n_.PINNED_LEVELS);
    return contains(levels.get(), level);
  }
  // `plan.page_id`, read where a step reads it.
  Ref page_id(PyObject* plan) { return getattr(plan, n_.page_id); }
  Ref plan_level(PyObject* plan) { return getattr(plan, n_.level); }
  bool custom(PyObject* page_id) { return starts_with(n_, page_id, n_.custom_prefix); }
  void record(Ref amendment) { append(amendments_.get(), amendment.get()); }

  Ref demote() {
    Ref fn = call_.global(n_.demote_unrecorded_families);
    if (Function* own = as_native(st_, fn.get(), demote_unrecorded_families_spec)) {
      PyObject* args[] = {fresh_plans_.get(), existing_};
      return demote_unrecorded_families(Call(own, args), fresh_plans_.get(), existing_);
    }
    return plan_record::call(fn.get(), {fresh_plans_.get(), existing_});
  }

  // Stored families: code-unit rows whose related pages name stored pages.
  void find_stored_families() {
    stored_families_ = new_dict();
    for_each_item(n_, existing_, [&](PyObject* pid, PyObject* row) {
      Ref level = row_level(n_, row);
      if (!pinned_level(level.get()) || custom(pid)) return;
      Ref related = row_get(n_, row, n_.related_pages);
      Ref kids = new_list();
      if (truthy(related.get())) {
        for_each(related.get(), [&](PyObject* kid) {
          if (contains(existing_, kid)) append(kids.get(), kid);
        });
      }
      if (PyList_GET_SIZE(kids.get())) dict_set(stored_families_.get(), pid, kids.get());
    });
  }

  // Fresh families, and the stored children they supersede.
  void find_fresh_families() {
    family_ids_ = new_set();
    collapsed_ = new_set();
    superseded_kids_ = new_dict();
    Ref fresh_by_page = new_dict();
    for_each(fresh_plans_.get(), [&](PyObject* plan) {
      Ref pid = getattr(plan, n_.page_id);
      dict_set(fresh_by_page.get(), pid.get(), plan);
    });
    for_each(fresh_plans_.get(), [&](PyObject* plan) {
      Ref level = getattr(plan, n_.level);
      if (!pinned_level(level.get())) return;
      Ref pid = getattr(plan, n_.page_id);
      Ref children = getattr(plan, n_.children);
      if (truthy(children.get())) {
        set_add(family_ids_.get(), pid.get());
        set_update(family_ids_.get(), children.get());
        Ref fresh_kids = new_list();
        for_each(children.get(), [&](PyObject* kid) {
          if (Ref found = dict_find(fresh_by_page.get(), kid)) append(fresh_kids.get(), found.get());
        });
        Ref pair = tuple_of({n_.re_chunked, fresh_kids.get()});
        if (Ref stored = dict_find(stored_families_.get(), pid.get())) {
          for_each(stored.get(), [&](PyObject* kid) {
            if (!contains(children.get(), kid)) dict_set(superseded_kids_.get(), kid, pair.get());
          });
        }
      } else if (Ref stored = dict_find(stored_families_.get(), pid.get())) {
        set_add(collapsed_.get(), pid.get());
        for_each(stored.get(), [&](PyObject* kid) {
          Ref family = list_of({plan});
          Ref pair = tuple_of({n_.collapsed_reason, family.get()});
          dict_set(superseded_kids_.get(), kid, pair.get());
        });
      }
    });
  }

  bool pinnable(PyObject* pid, PyObject* row) {
    Ref level = row_level(n_, row);
    if (!pinned_level(level.get())) return false;
    if (Ref pair = dict_find(superseded_kids_.get(), pid)) {
      PyObject* reason = PyTuple_GET_ITEM(pair.get(), 0);
      PyObject* family = PyTuple_GET_ITEM(pair.get(), 1);
      Ref carry = call_.global(n_.carry_superseded);
      record(plan_record::call(carry.get(), {remap_.get(), pid, row, family, live_paths_, reason}));
      return false;
    }
    if (set_has(family_ids_.get(), pid)) return false;
    if (custom(pid)) return false;
    if (set_has(collapsed_.get(), pid)) return true;
    if (dict_find(stored_families_.get(), pid)) return false;
    Ref files = row_get(n_, row, n_.source_files);
    if (!truthy(files.get())) {
      record(amendment(call_, n_.retire, pid, n_.empty_parent));
      return false;
    }
    return true;
  }

  void decide_pinnable() {
    pinned_existing_ = new_dict();
    for_each_item(n_, existing_, [&](PyObject* pid, PyObject* row) {
      if (pinnable(pid, row)) dict_set(pinned_existing_.get(), pid, row);
    });
  }

  // Code-unit plans outside fresh families and steering; everything else passes through.
  void partition_fresh_plans() {
    fresh_modules_ = new_list();
    for_each(fresh_plans_.get(), [&](PyObject* plan) {
      Ref level = plan_level(plan);
      if (!pinned_level(level.get())) return;
      if (set_has(family_ids_.get(), page_id(plan).get())) return;
      if (custom(page_id(plan).get())) return;
      append(fresh_modules_.get(), plan);
    });
    // passthrough = [plan for plan in fresh_plans if plan not in fresh_modules]
    const Py_ssize_t candidates =
        PyList_CheckExact(fresh_plans_.get())
            ? PyList_GET_SIZE(fresh_plans_.get()) - PyList_GET_SIZE(fresh_modules_.get())
            : 0;
    Ref record_type = call_.global_if_bound(n_.PagePlan);
    Membership members(n_, record_type.get(), fresh_modules_.get(), candidates);
    passthrough_ = new_list();
    for_each(fresh_plans_.get(), [&](PyObject* plan) {
      if (!members.contains(plan)) append(passthrough_.get(), plan);
    });
  }

  void record_pass_through() {
    fresh_ids_ = new_set();
    for_each(fresh_plans_.get(), [&](PyObject* plan) {
      Ref pid = getattr(plan, n_.page_id);
      set_add(fresh_ids_.get(), pid.get());
    });
    for_each_key(existing_, [&](PyObject* pid) {
      if (custom(pid) && !set_has(fresh_ids_.get(), pid)) {
        record(amendment(call_, n_.retire, pid, n_.removed_from_steering));
      }
    });
    for_each(passthrough_.get(), [&](PyObject* plan) {
      if (contains(existing_, page_id(plan).get())) return;
      // amend("add", plan.page_id, f"new {plan.level} page", level=plan.level)
      Ref pid = page_id(plan);
      Ref shown = formatted(plan_level(plan).get());
      Ref reason = check(PyUnicode_FromFormat("new %U page", shown.get()));
      record(amendment_with_level(call_, n_.add, pid.get(), reason.get(), plan_level(plan).get()));
    });
    for_each_item(n_, existing_, [&](PyObject* pid, PyObject* row) {
      Ref level = row_level(n_, row);
      if (pinned_level(level.get())) return;
      Ref note = call_.global(n_.NOTE_LEVEL);
      Ref same = check(PyObject_RichCompare(level.get(), note.get(), Py_EQ));
      if (truthy(same.get())) return;
      if (set_has(fresh_ids_.get(), pid)) return;
      Ref shown = formatted(level.get());
      Ref reason = check(PyUnicode_FromFormat("%U page no longer planned", shown.get()));
      record(amendment_with_level(call_, n_.retire, pid, reason.get(), level.get()));
    });
  }

  Ref result(Ref plans) { return check(PyTuple_Pack(3, plans.get(), amendments_.get(), remap_.get())); }

  Ref fresh_path() {
    if (truthy(replan_) && PyDict_GET_SIZE(pinned_existing_.get())) {
      Ref successors = new_list();
      for_each(fresh_plans_.get(), [&](PyObject* plan) {
        Ref level = getattr(plan, n_.level);
        if (!pinned_level(level.get())) return;
        Ref files = getattr(plan, n_.source_files);
        if (!truthy(files.get())) return;
        Ref pid = getattr(plan, n_.page_id);
        if (!custom(pid.get())) append(successors.get(), plan);
      });
      Ref inherit = call_.global(n_.inherit_prose);
      plan_record::call(inherit.get(), {remap_.get(), pinned_existing_.get(), successors.get(), live_paths_,
                                        fresh_ids_.get(), amendments_.get()});
    }
    Ref link = call_.global(n_.link_families);
    Ref keep_titles = call_.global(n_.keep_agent_titles);
    Ref titled = plan_record::call(keep_titles.get(), {fresh_plans_.get(), existing_});
    return result(plan_record::call(link.get(), {titled.get()}));
  }

  // -- pinned assembly ------------------------------------------------------

  void keep(PyObject* plan, PyObject* pid) {
    append(plans_.get(), plan);
    set_add(kept_ids_.get(), pid);
    Ref files = getattr(plan, n_.source_files);
    set_update(covered_.get(), files.get());
  }

  void keep_pinned_pages() {
    Ref fresh_by_id = new_dict();
    for_each(fresh_modules_.get(), [&](PyObject* plan) {
      Ref catch_all = getattr(plan, n_.catch_all);
      if (truthy(catch_all.get())) return;
      Ref pid = getattr(plan, n_.page_id);
      dict_set(fresh_by_id.get(), pid.get(), plan);
    });
    walk_dict(pinned_existing_.get(), [&](PyObject* pid, PyObject* row) {
      Ref stored = rebuild_from_row(call_, row, live_paths_);
      Ref catch_all = getattr(stored.get(), n_.catch_all);
      if (truthy(catch_all.get())) {
        catch_all_row_ = Ref::borrow(row);
        return;
      }
      Ref fresh_same = dict_find(fresh_by_id.get(), pid);
      Ref stored_files = getattr(stored.get(), n_.source_files);
      if (!truthy(stored_files.get()) && !fresh_same) {
        record(amendment(call_, n_.retire, pid, n_.files_gone));
        return;
      }
      keep(fresh_same ? fresh_same.get() : stored.get(), pid);
    });
  }

  void rebuild_stored_families() {
    walk_dict(stored_families_.get(), [&](PyObject* parent_id, PyObject* kids) {
      if (set_has(family_ids_.get(), parent_id) || set_has(collapsed_.get(), parent_id)) return;
      Ref row = getitem(existing_, parent_id);
      Ref surviving = new_list();
      for_each(kids, [&](PyObject* kid) {
        if (set_has(kept_ids_.get(), kid)) append(surviving.get(), kid);
      });
      if (PyList_GET_SIZE(surviving.get()) == 0) {
        record(amendment(call_, n_.retire, parent_id, n_.children_retired));
        return;
      }
      Ref title = or_else(row_get(n_, row.get(), n_.title), parent_id);
      Ref page_plan = call_.global(n_.PagePlan);
      Ref level = or_else(row_get(n_, row.get(), n_.level), n_.module);
      Ref importance = or_else(row_get(n_, row.get(), n_.importance), n_.medium);
      Ref description = row_get(n_, row.get(), n_.description);
      if (!truthy(description.get())) {
        Ref shown = formatted(title.get());
        description = check(PyUnicode_FromFormat("The %U page.", shown.get()));
      }
      Ref topic_of = call_.global(n_.unit_topic);
      Ref files = new_list();
      for_each(surviving.get(), [&](PyObject* kid) {
        Ref kid_row = getitem(existing_, kid);
        Ref kid_files = row_get(n_, kid_row.get(), n_.source_files);
        if (truthy(kid_files.get())) {
          for_each(kid_files.get(), [&](PyObject* path) { append(files.get(), path); });
        }
      });
      Ref topic = plan_record::call(topic_of.get(), {title.get(), files.get()});
      Ref no_files = new_list();
      Ref type = or_else(row_get(n_, row.get(), n_.page_type), n_.empty);
      Ref parent = make_record(n_, page_plan.get(),
                               {parent_id, title.get(), level.get(), importance.get(), description.get(),
                                topic.get(), no_files.get(), surviving.get(), surviving.get(), type.get()},
                               st_.parent_plan_fields);
      append(plans_.get(), parent.get());
      set_add(kept_ids_.get(), parent_id);
    });
  }

  // The first plan of `plans` whose page id equals `wanted`, as the plans and
  // their ids are now, or an empty Ref.
  Ref first_kept_with_id(PyObject* wanted) {
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(plans_.get()); ++i) {
      Ref kept = Ref::borrow(PyList_GET_ITEM(plans_.get(), i));
      Ref same = check(PyObject_RichCompare(page_id(kept.get()).get(), wanted, Py_EQ));
      if (truthy(same.get())) return kept;
    }
    return Ref();
  }

  // `len(own_new)`, taken where the step takes it: code run meanwhile may have changed the list.
  static Ref count_text(PyObject* own_new, const char* format) {
    return check(PyUnicode_FromFormat(format, PyList_GET_SIZE(own_new)));
  }

  void absorb_new_paths() {
    for_each(fresh_modules_.get(), [&](PyObject* plan) {
      // own_new = sorted(path for path in plan.source_files if path in new_paths)
      Ref own_new = new_list();
      Ref files = getattr(plan, n_.source_files);
      for_each(files.get(), [&](PyObject* path) {
        if (set_has(new_paths_.get(), path)) append(own_new.get(), path);
      });
      check(PyList_Sort(own_new.get()));
      if (PyList_GET_SIZE(own_new.get()) == 0) return;
      Ref count = check(PyLong_FromSsize_t(PyList_GET_SIZE(own_new.get())));
      Ref minimum = call_.global(n_.MIN_NEW_PAGE_FILES);
      bool own_page = check(PyObject_RichCompareBool(count.get(), minimum.get(), Py_GE)) != 0;
      if (own_page) {
        Ref catch_all = getattr(plan, n_.catch_all);
        own_page = !truthy(catch_all.get());
      }
      if (own_page && set_has(kept_ids_.get(), page_id(plan).get())) {
        Ref wanted = page_id(plan);
        if (Ref target = first_kept_with_id(wanted.get())) {
          // target.source_files = sorted({*target.source_files, *own_new})
          Ref target_files = getattr(target.get(), n_.source_files);
          Ref merged = new_set();
          set_update(merged.get(), target_files.get());
          set_update(merged.get(), own_new.get());
          Ref sorted = sorted_list(merged.get());
          setattr(target.get(), n_.source_files, sorted.get());
        }
        Ref pid = page_id(plan);
        Ref reason = count_text(own_new.get(), "%zd new source file(s) absorbed");
        record(amendment(call_, n_.extend, pid.get(), reason.get()));
      } else if (own_page) {
        // The fresh plan becomes a new page with just its new files.
        setattr(plan, n_.source_files, own_new.get());
        append(plans_.get(), plan);
        set_add(kept_ids_.get(), page_id(plan).get());
        Ref pid = page_id(plan);
        Ref reason = count_text(own_new.get(), "new subsystem (%zd files)");
        record(amendment(call_, n_.add, pid.get(), reason.get()));
      } else {
        set_update(catch_all_files_.get(), own_new.get());
      }
      // new_paths.difference_update(own_new)
      for_each(own_new.get(), [&](PyObject* path) { check(PySet_Discard(new_paths_.get(), path)); });
    });
    set_update(catch_all_files_.get(), new_paths_.get());
  }

  // The base name of a path: after its last "/".
  Ref base_name(PyObject* path) {
    if (PyUnicode_CheckExact(path)) {
      const Py_ssize_t n = PyUnicode_GET_LENGTH(path);
      const Py_ssize_t slash = check_size(PyUnicode_FindChar(path, '/', 0, n, -1) + 1) - 1;
      if (slash < 0) return Ref::borrow(path);
      return check(PyUnicode_Substring(path, slash + 1, n));
    }
    Ref one = integer(1);
    Ref parts = call_method(path, n_.rsplit, {n_.slash, one.get()});
    Ref last = integer(-1);
    return getitem(parts.get(), last.get());
  }

  void make_catch_all_page() {
    if (PySet_GET_SIZE(catch_all_files_.get()) == 0) {
      if (catch_all_row_) {
        Ref pid = row_item(catch_all_row_.get(), n_.page_id);
        record(amendment(call_, n_.retire, pid.get(), n_.catch_all_empty));
      }
      return;
    }
    Ref merged = sorted_list(catch_all_files_.get());
    // " ".join(path.rsplit("/", 1)[-1] for path in merged[:12])
    Ref head = check(PyList_GetSlice(merged.get(), 0, catch_all_topic_samples));
    Ref samples_list = new_list();
    for_each(head.get(), [&](PyObject* path) {
      Ref name = base_name(path);
      append(samples_list.get(), name.get());
    });
    Ref samples = check(PyUnicode_Join(n_.blank, samples_list.get()));
    Ref base = catch_all_row_ ? catch_all_row_ : new_dict();
    Ref page_plan = call_.global(n_.PagePlan);
    Ref pid = row_get(n_, base.get(), n_.page_id, n_.catch_all_id);
    Ref title = or_else(row_get(n_, base.get(), n_.title), n_.other_code);
    Ref description = check(
        PyUnicode_FromFormat("Remaining modules and files (%zd files).", PyList_GET_SIZE(merged.get())));
    Ref topic = check(PyUnicode_FromFormat("additional modules utilities helpers %U", samples.get()));
    Ref type = call_.global(n_.OTHER_CODE_TYPE);
    Ref page = make_record(n_, page_plan.get(),
                           {pid.get(), title.get(), n_.module, n_.low, description.get(), topic.get(),
                            merged.get(), Py_True, type.get()},
                           st_.row_plan_fields);
    append(plans_.get(), page.get());
  }

  Ref pinned_assembly() {
    plans_ = check(PySequence_List(passthrough_.get()));
    covered_ = new_set();
    for_each(passthrough_.get(), [&](PyObject* plan) {
      Ref files = getattr(plan, n_.source_files);
      set_update(covered_.get(), files.get());
    });
    kept_ids_ = new_set();
    keep_pinned_pages();
    rebuild_stored_families();

    catch_all_files_ = new_set();
    if (catch_all_row_) {
      Ref files = row_get(n_, catch_all_row_.get(), n_.source_files);
      if (truthy(files.get())) {
        for_each(files.get(), [&](PyObject* path) {
          if (contains(live_paths_, path)) set_add(catch_all_files_.get(), path);
        });
      }
      set_update(covered_.get(), catch_all_files_.get());
    }
    new_paths_ = new_set();
    for_each(live_paths_, [&](PyObject* path) {
      if (!set_has(covered_.get(), path)) set_add(new_paths_.get(), path);
    });

    if (PySet_GET_SIZE(new_paths_.get())) absorb_new_paths();
    make_catch_all_page();

    Ref keep_titles = call_.global(n_.keep_agent_titles);
    Ref order = call_.global(n_.by_importance);
    Ref ordered;
    if (Function* own = as_native(st_, order.get(), by_importance_spec)) {
      PyObject* args[] = {plans_.get()};
      ordered = by_importance(Call(own, args), plans_.get());
    } else {
      ordered = plan_record::call(order.get(), {plans_.get()});
    }
    Ref titled = plan_record::call(keep_titles.get(), {ordered.get(), existing_});
    Ref link = call_.global(n_.link_families);
    return result(plan_record::call(link.get(), {titled.get()}));
  }

  const Call& call_;
  const ModuleState& st_;
  const Names& n_;
  Ref fresh_plans_;
  PyObject* existing_;
  PyObject* live_paths_;
  PyObject* replan_;

  Ref amendments_, remap_;
  Ref stored_families_, family_ids_, collapsed_, superseded_kids_;
  Ref pinned_existing_, fresh_modules_, passthrough_, fresh_ids_;
  Ref plans_, covered_, kept_ids_, catch_all_row_, catch_all_files_, new_paths_;
};

Ref pin_plan_entry(const Call& call) {
  return PinPlan(call, call.arg(0), call.arg(1), call.arg(2), call.arg(3)).run();
}

}  // namespace

const FunctionSpec plan_from_row_spec{texts::plan_from_row, plan_from_row_entry};
const FunctionSpec pin_plan_spec{texts::pin_plan, pin_plan_entry};
const FunctionSpec demote_unrecorded_families_spec{texts::demote_unrecorded_families, demote_entry};
const FunctionSpec by_importance_spec{texts::by_importance, by_importance_entry};

}  // namespace plan_record
