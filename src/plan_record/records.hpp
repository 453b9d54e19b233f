// Reading the shared records (stored page rows, plans) and reaching the
// host's collaborators, with the fallbacks every unit applies the same way.
#pragma once

#include <utility>

#include "function.hpp"
#include "state.hpp"
#include "statements.hpp"

namespace plan_record {

// row.get(key): a missing key reads as None.
Ref row_get(const Names& names, PyObject* row, PyObject* key);
// row.get(key, fallback)
Ref row_get(const Names& names, PyObject* row, PyObject* key, PyObject* fallback);
// row[key]: a missing key raises the mapping's own error.
Ref row_item(PyObject* row, PyObject* key);

// `value or fallback`: the value when it is true, else the fallback.
Ref or_else(Ref value, PyObject* fallback);

// A stored row's level: its "level" when present and not empty, else "module".
Ref row_level(const Names& names, PyObject* row);

// `text.startswith(prefix)`, natively for exact texts.
bool starts_with(const Names& names, PyObject* text, PyObject* prefix);

// `cls(**keywords)`, the names being the items of `kwnames`.
Ref make_record(const Names& names, PyObject* cls, std::initializer_list<PyObject*> keywords,
                PyObject* kwnames);

// Format a value as an f-string replacement field does (`f"{value}"`).
Ref formatted(PyObject* value);

// A compiled pattern of the module, looked up when made. While the module
// attribute still holds the pattern compiled at initialisation and a subject is
// an exact text, matching runs natively instead of through the pattern engine.
class ModulePattern {
 public:
  using Native = bool (*)(PyObject* subject);
  ModulePattern(const Call& call, PyObject* name, PyObject* original, Native native);
  // `bool(pattern.match(subject))`
  bool matches(PyObject* subject) const;

 private:
  Ref pattern_;
  Ref match_;  // the bound `match` of a pattern that is not the original
  PyObject* match_name_;
  Native native_;
};

// Whether an exact text is a catch-all page id: "module-additional",
// optionally followed by a hyphen and decimal digits.
bool native_catch_all_match(PyObject* subject);

// Our own sets and dicts (exact types made by this module).
inline void set_add(PyObject* set, PyObject* item) { check(PySet_Add(set, item)); }
inline bool set_has(PyObject* set, PyObject* item) { return check(PySet_Contains(set, item)) != 0; }
inline void set_update(PyObject* set, PyObject* iterable) {
  for_each(iterable, [&](PyObject* item) { set_add(set, item); });
}
inline void dict_set(PyObject* dict, PyObject* key, PyObject* value) {
  check(PyDict_SetItem(dict, key, value));
}
// The value under `key`, or an empty Ref.
inline Ref dict_find(PyObject* dict, PyObject* key) {
  PyObject* found = PyDict_GetItemWithError(dict, key);
  if (!found && PyErr_Occurred()) raise();
  return Ref::borrow(found);
}
// A new list of the iterable's items, sorted as `sorted()` sorts them.
inline Ref sorted_list(PyObject* iterable) {
  Ref list = check(PySequence_List(iterable));
  check(PyList_Sort(list.get()));
  return list;
}

}  // namespace plan_record
