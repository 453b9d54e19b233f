// Python statements that the algorithms are written in: `for` over any
// iterable or over a dict's items, unpacking a pair, `with`, `try`/`finally`,
// and the scope in which an exception is the one being handled. Each behaves
// and fails as the statement does.
#pragma once

#include <new>
#include <utility>

#include "core.hpp"
#include "state.hpp"

namespace plan_record {

// `for item in iterable: body(item)`
template <class Body>
void for_each(PyObject* iterable, Body&& body) {
  if (PyList_CheckExact(iterable)) {
    // Fast path: a list's own iterator reads it by index, re-reading its length.
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(iterable); ++i) {
      Ref item = Ref::borrow(PyList_GET_ITEM(iterable, i));
      body(item.get());
    }
    return;
  }
  Ref it = iterate(iterable);
  while (Ref item = next(it.get())) body(item.get());
}

// `for key, value in dict.items(): body(key, value)` for an exact dict, walked
// in place with its iterator's checks: its size must not change, nor may it
// yield more entries than it held at the start.
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

// `a, b = pair`, with the errors Python's unpacking raises.
std::pair<Ref, Ref> unpack_pair(PyObject* pair);

// `for key, value in mapping.items(): body(key, value)`
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

// `for key in mapping: body(key)`
template <class Body>
void for_each_key(PyObject* mapping, Body&& body) {
  if (PyDict_CheckExact(mapping)) {
    walk_dict(mapping, [&](PyObject* k, PyObject*) { body(k); });
    return;
  }
  for_each(mapping, body);
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

// `try: body() finally: cleanup()`
template <class Body, class Cleanup>
void try_finally(Body&& body, Cleanup&& cleanup) {
  try {
    body();
  } catch (const PyErrorSet&) {
    Ref pending = Ref::steal_maybe(PyErr_GetRaisedException());
    while_handling(pending.get(), cleanup);
    PyErr_SetRaisedException(pending.release());
    throw;
  }
  cleanup();
}

// The `__enter__`/`__exit__` pair of a context manager, looked up on its type
// and bound to it, as the with statement finds them.
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
