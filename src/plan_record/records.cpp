#include "records.hpp"

#include <array>

namespace plan_record {

Ref row_get(const Names& names, PyObject* row, PyObject* key) {
  if (PyDict_CheckExact(row)) {
    PyObject* value = PyDict_GetItemWithError(row, key);
    if (value) return Ref::borrow(value);
    if (PyErr_Occurred()) raise();
    return none();
  }
  return call_method(row, names.get, {key});
}

Ref row_get(const Names& names, PyObject* row, PyObject* key, PyObject* fallback) {
  if (PyDict_CheckExact(row)) {
    PyObject* value = PyDict_GetItemWithError(row, key);
    if (value) return Ref::borrow(value);
    if (PyErr_Occurred()) raise();
    return Ref::borrow(fallback);
  }
  return call_method(row, names.get, {key, fallback});
}

Ref row_item(PyObject* row, PyObject* key) {
  if (PyDict_CheckExact(row)) {
    PyObject* value = PyDict_GetItemWithError(row, key);
    if (value) return Ref::borrow(value);
    if (PyErr_Occurred()) raise();
    // KeyError carries the key itself, as dict's own lookup does.
    Ref args = check(PyTuple_Pack(1, key));
    PyErr_SetObject(PyExc_KeyError, args.get());
    raise();
  }
  return getitem(row, key);
}

Ref or_else(Ref value, PyObject* fallback) {
  if (truthy(value.get())) return value;
  return Ref::borrow(fallback);
}

Ref row_level(const Names& names, PyObject* row) {
  return or_else(row_get(names, row, names.level), names.module);
}

bool starts_with(const Names& names, PyObject* text, PyObject* prefix) {
  if (PyUnicode_CheckExact(text)) {
    return check_size(PyUnicode_Tailmatch(text, prefix, 0, PY_SSIZE_T_MAX, -1)) != 0;
  }
  Ref result = call_method(text, names.startswith, {prefix});
  return truthy(result.get());
}

Ref formatted(PyObject* value) {
  if (PyUnicode_CheckExact(value)) return Ref::borrow(value);
  return check(PyObject_Format(value, nullptr));
}

ModulePattern::ModulePattern(const Call& call, PyObject* name, PyObject* original, Native native)
    : pattern_(call.global(name)), match_name_(call.state().names.match), native_(native) {
  if (!pattern_.is(original)) match_ = getattr(pattern_.get(), match_name_);
}

bool ModulePattern::matches(PyObject* subject) const {
  Ref found;
  if (match_) {
    found = call(match_.get(), {subject});
  } else if (PyUnicode_CheckExact(subject)) {
    return native_(subject);
  } else {
    found = call_method(pattern_.get(), match_name_, {subject});
  }
  return truthy(found.get());
}

bool native_catch_all_match(PyObject* subject) {
  static constexpr char stem[] = "module-additional";
  constexpr Py_ssize_t stem_len = sizeof(stem) - 1;
  const Py_ssize_t n = PyUnicode_GET_LENGTH(subject);
  const int kind = PyUnicode_KIND(subject);
  const void* data = PyUnicode_DATA(subject);
  if (n < stem_len) return false;
  for (Py_ssize_t i = 0; i < stem_len; ++i) {
    if (PyUnicode_READ(kind, data, i) != static_cast<Py_UCS4>(stem[i])) return false;
  }
  // `$` also matches just before one line feed that ends the subject.
  const Py_ssize_t end = (n > stem_len && PyUnicode_READ(kind, data, n - 1) == '\n') ? n - 1 : n;
  if (end == stem_len) return true;
  if (PyUnicode_READ(kind, data, stem_len) != '-' || end == stem_len + 1) return false;
  for (Py_ssize_t i = stem_len + 1; i < end; ++i) {
    if (!Py_UNICODE_ISDECIMAL(PyUnicode_READ(kind, data, i))) return false;
  }
  return true;
}

}  // namespace plan_record
