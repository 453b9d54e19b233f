// Reading the shared records (stored page rows, plans) and reaching the
// host's collaborators, with the fallbacks every unit applies the same way.
#pragma once

#include <utility>

#include "function.hpp"
#include "state.hpp"

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

// `a, b = pair`, with the errors Python's unpacking raises.
std::pair<Ref, Ref> unpack_pair(PyObject* pair);

// `for item in iterable:`; an exact list is walked by index, re-reading its
// length each step as its own iterator does.
template <class Body>
void for_each(PyObject* iterable, Body&& body) {
  if (PyList_CheckExact(iterable)) {
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(iterable); ++i) {
      Ref item = Ref::borrow(PyList_GET_ITEM(iterable, i));
      body(item.get());
    }
    return;
  }
  Ref it = iterate(iterable);
  while (Ref item = next(it.get())) body(item.get());
}

// Walk an exact dict in place with the checks of the dict's own iterator: it
// refuses to go on once the size changed, and to yield more entries than the
// dict held when the walk began (keys deleted and others added meanwhile).
template <class Body>
void walk_dict(PyObject* dict, Body&& body) {
  const Py_ssize_t size = PyDict_GET_SIZE(dict);
  Py_ssize_t remaining = size;
  Py_ssize_t pos = 0;
  PyObject* key;
  PyObject* value;
  while (true) {
    if (PyDict_GET_SIZE(dict) != size) raise(PyExc_RuntimeError, "dictionary changed size during iteration");
    if (!PyDict_Next(dict, &pos, &key, &value)) break;
    if (remaining-- == 0) raise(PyExc_RuntimeError, "dictionary keys changed during iteration");
    Ref k = Ref::borrow(key);
    Ref v = Ref::borrow(value);
    body(k.get(), v.get());
  }
}

// `for key, value in mapping.items():`
template <class Body>
void for_each_item(const Names& names, PyObject* mapping, Body&& body) {
  if (PyDict_CheckExact(mapping)) {
    walk_dict(mapping, body);
    return;
  }
  Ref items = call_method(mapping, names.items, {});
  for_each(items.get(), [&](PyObject* pair) {
    auto [k, v] = unpack_pair(pair);
    body(k.get(), v.get());
  });
}

// `for key in mapping:`
template <class Body>
void for_each_key(PyObject* mapping, Body&& body) {
  if (PyDict_CheckExact(mapping)) {
    walk_dict(mapping, [&](PyObject* k, PyObject*) { body(k); });
    return;
  }
  for_each(mapping, body);
}

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

// Runs `action` with `error` as the exception being handled, as the body of
// an `except` or `finally` clause sees it: `sys.exc_info()` reports it and an
// exception raised meanwhile takes it as its context.
template <class Action>
void while_handling(PyObject* error, Action&& action) {
  struct Restore {
    Ref previous = Ref::steal_maybe(PyErr_GetHandledException());
    ~Restore() { PyErr_SetHandledException(previous.get()); }
  } restore;
  PyErr_SetHandledException(error);
  action();
}

// The `__enter__`/`__exit__` pair of a context manager, looked up on its type
// as the with statement looks them up.
class ContextExit {
 public:
  // Looks up both methods and calls `__enter__`.
  ContextExit(const Names& names, PyObject* manager);
  // What `__enter__` returned (the target of `with ... as`).
  PyObject* entered() const noexcept { return entered_.get(); }
  // `__exit__(None, None, None)`.
  void on_success();
  // `__exit__(type, value, traceback)` for the error now set: returns when the
  // manager suppressed it, else throws with the error set again.
  void on_error();

 private:
  Ref exit_;
  Ref entered_;
};

// `with manager as entered: body(entered)`
template <class Body>
void with_context(const Names& names, PyObject* manager, Body&& body) {
  ContextExit context(names, manager);
  try {
    body(context.entered());
  } catch (const PyErrorSet&) {
    context.on_error();
    return;
  } catch (const std::bad_alloc&) {
    PyErr_NoMemory();
    context.on_error();
    return;
  }
  context.on_success();
}

}  // namespace plan_record
