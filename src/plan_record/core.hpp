// Small core shared by every unit: an owning reference, C API calls that throw
// when they fail, and the one boundary per entry point that turns a throw back
// into NULL with the Python error left intact.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <cstddef>
#include <initializer_list>
#include <new>
#include <span>
#include <utility>
#include <vector>

namespace plan_record {

// Thrown after a C API call failed; the Python error indicator is set.
struct PyErrorSet {};

[[noreturn]] inline void raise() { throw PyErrorSet{}; }

// Set a Python exception and throw.
[[noreturn]] void raise(PyObject* type, const char* message);
[[noreturn]] void raise_format(PyObject* type, const char* format, ...);

// An owning (strong) reference. Algorithm code holds objects only through it.
class Ref {
 public:
  Ref() noexcept = default;
  Ref(std::nullptr_t) noexcept {}
  Ref(const Ref& other) noexcept : p_(Py_XNewRef(other.p_)) {}
  Ref(Ref&& other) noexcept : p_(std::exchange(other.p_, nullptr)) {}
  ~Ref() { Py_XDECREF(p_); }

  Ref& operator=(Ref other) noexcept {
    std::swap(p_, other.p_);
    return *this;
  }

  // A new reference that may legitimately be NULL without an error. A new
  // reference whose NULL means failure is taken with `check` below.
  static Ref steal_maybe(PyObject* p) noexcept { return Ref(p); }
  // A borrowed reference: take our own.
  static Ref borrow(PyObject* p) noexcept { return Ref(Py_XNewRef(p)); }

  PyObject* get() const noexcept { return p_; }
  PyObject* release() noexcept { return std::exchange(p_, nullptr); }
  explicit operator bool() const noexcept { return p_ != nullptr; }
  bool is(PyObject* other) const noexcept { return p_ == other; }

 private:
  explicit Ref(PyObject* p) noexcept : p_(p) {}
  PyObject* p_ = nullptr;
};

// Check results of C API calls. `check(p)` takes the new reference `p`
// returned by the C API, and throws when it is NULL (the error is set).
inline Ref check(PyObject* p) {
  if (p == nullptr) raise();
  return Ref::steal_maybe(p);
}
inline int check(int status) {
  if (status < 0) raise();
  return status;
}
inline Py_ssize_t check_size(Py_ssize_t n) {
  if (n < 0) raise();
  return n;
}

// Thin wrappers over the C API, each throwing on failure.
inline bool truthy(PyObject* o) { return check(PyObject_IsTrue(o)) != 0; }
inline bool contains(PyObject* container, PyObject* item) {
  return check(PySequence_Contains(container, item)) != 0;
}
inline Ref getattr(PyObject* o, PyObject* name) { return check(PyObject_GetAttr(o, name)); }
inline void setattr(PyObject* o, PyObject* name, PyObject* value) { check(PyObject_SetAttr(o, name, value)); }
inline Ref getitem(PyObject* o, PyObject* key) { return check(PyObject_GetItem(o, key)); }
inline void setitem(PyObject* o, PyObject* key, PyObject* value) { check(PyObject_SetItem(o, key, value)); }
inline Ref iterate(PyObject* o) { return check(PyObject_GetIter(o)); }
// The next item, or an empty Ref at the end of the iteration.
inline Ref next(PyObject* iterator) {
  Ref item = Ref::steal_maybe(PyIter_Next(iterator));
  if (!item && PyErr_Occurred()) raise();
  return item;
}
inline Ref new_list(Py_ssize_t n = 0) { return check(PyList_New(n)); }
inline void append(PyObject* list, PyObject* item) { check(PyList_Append(list, item)); }
inline Ref new_dict() { return check(PyDict_New()); }
// Whether every key of a dict is an exact text: a lookup by an exact text then
// compares texts only, and runs no Python code (another key's `__eq__` could).
inline bool text_keys(PyObject* dict) {
  Py_ssize_t pos = 0;
  PyObject* key;
  PyObject* value;
  while (PyDict_Next(dict, &pos, &key, &value)) {
    if (!PyUnicode_CheckExact(key)) return false;
  }
  return true;
}
inline Ref new_set() { return check(PySet_New(nullptr)); }
inline Ref text(const char* utf8) { return check(PyUnicode_FromString(utf8)); }
inline Ref interned(const char* utf8) { return check(PyUnicode_InternFromString(utf8)); }
inline Ref integer(long value) { return check(PyLong_FromLong(value)); }
inline Ref boolean(bool value) { return Ref::borrow(value ? Py_True : Py_False); }
inline Ref none() { return Ref::borrow(Py_None); }

// `(a, b, ...)` and `[a, b, ...]` of the given items, each held by the result.
Ref tuple_of(std::initializer_list<Ref> items);
Ref tuple_of(std::span<const Ref> items);
Ref list_of(std::initializer_list<Ref> items);
Ref list_of(std::span<const Ref> items);
// The same of borrowed items: `(a, b)` where the caller holds `a` and `b`.
Ref tuple_of(std::initializer_list<PyObject*> items);
Ref list_of(std::initializer_list<PyObject*> items);

// Calls with positional arguments only.
Ref call(PyObject* callable, std::initializer_list<PyObject*> args);
// Calls with positional arguments followed by keyword arguments whose names
// are the items of `kwnames` (a tuple of texts), in that order.
Ref call_kw(PyObject* callable, std::initializer_list<PyObject*> positional,
            std::initializer_list<PyObject*> keywords, PyObject* kwnames);
Ref call_method(PyObject* self, PyObject* name, std::initializer_list<PyObject*> args);

// The boundary of every entry point called by the interpreter: runs `body`,
// returns its result as a new reference, or NULL with a Python error set.
template <class Body>
PyObject* boundary(Body&& body) noexcept {
  try {
    return body().release();
  } catch (const PyErrorSet&) {
    if (!PyErr_Occurred()) {
      PyErr_SetString(PyExc_SystemError, "plan_record: error signalled without an exception");
    }
  } catch (const std::bad_alloc&) {
    PyErr_NoMemory();
  } catch (...) {
    PyErr_SetString(PyExc_SystemError, "plan_record: unexpected native exception");
  }
  return nullptr;
}

// The same boundary for entry points that report by status (0 or -1).
template <class Body>
int boundary_status(Body&& body) noexcept {
  Ref done = Ref::steal_maybe(boundary([&] {
    body();
    return Ref::borrow(Py_None);
  }));
  return done ? 0 : -1;
}

}  // namespace plan_record
