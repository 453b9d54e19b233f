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

namespace {

// A class made by a class statement (metaclass `type`) whose instances come
// from object.__new__ and have no finaliser: calling it runs no code of its
// own besides its __init__.
bool plain_class(PyObject* cls) {
  if (!PyType_CheckExact(cls)) return false;
  auto* type = reinterpret_cast<PyTypeObject*>(cls);
  return (PyType_GetFlags(type) & Py_TPFLAGS_HEAPTYPE) &&
         PyType_GetSlot(type, Py_tp_new) == PyType_GetSlot(&PyBaseObject_Type, Py_tp_new) &&
         PyType_GetSlot(type, Py_tp_finalize) == nullptr;
}

// One level of the interpreter's recursion count, as a call through
// type.__call__ takes.
class CallDepth {
 public:
  CallDepth() {
    if (Py_EnterRecursiveCall(" while calling a Python object")) raise();
  }
  ~CallDepth() { Py_LeaveRecursiveCall(); }
  CallDepth(const CallDepth&) = delete;
  CallDepth& operator=(const CallDepth&) = delete;
};

// The class's own attribute `name` as the interpreter finds it for a slot:
// the first value in the dicts of its method resolution order, unbound.
Ref class_attribute(PyTypeObject* type, PyObject* name) {
  Ref mro = Ref::borrow(type->tp_mro);
  if (!mro || !PyTuple_Check(mro.get())) return Ref();
  for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(mro.get()); ++i) {
    PyObject* base = PyTuple_GET_ITEM(mro.get(), i);
    if (!PyType_Check(base)) return Ref();
    Ref dict = check(PyType_GetDict(reinterpret_cast<PyTypeObject*>(base)));
    if (Ref found = dict_find(dict.get(), name)) return found;
  }
  return Ref();
}

}  // namespace

Ref make_record(const Names& names, PyObject* cls, std::initializer_list<PyObject*> keywords,
                PyObject* kwnames) {
  if (!plain_class(cls)) return call_kw(cls, {}, keywords, kwnames);
  // type.__call__ makes the instance, then calls the __init__ its class has
  // then; with a plain class and a Python __init__ that is
  //   self = object.__new__(cls); cls.__init__(self, **keywords)  -> must be None
  // which here passes the keywords on as they are instead of through a dict.
  auto* type = reinterpret_cast<PyTypeObject*>(cls);
  auto* make = reinterpret_cast<newfunc>(PyType_GetSlot(type, Py_tp_new));
  Ref no_args = check(PyTuple_New(0));
  Ref self = check(make(type, no_args.get(), nullptr));
  Ref init = class_attribute(type, names.dunder_init);
  // Any other __init__ is bound as the interpreter binds it: the unused
  // instance goes (no finaliser sees it) and the class is called.
  if (!init || !PyFunction_Check(init.get())) return call_kw(cls, {}, keywords, kwnames);
  Ref result;
  {
    CallDepth depth;
    result = call_kw(init.get(), {self.get()}, keywords, kwnames);
  }
  if (!result.is(Py_None)) {
    raise_format(PyExc_TypeError, "__init__() should return None, not '%.200s'",
                 Py_TYPE(result.get())->tp_name);
  }
  return self;
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
