#include "statements.hpp"

namespace plan_record {

std::pair<Ref, Ref> unpack_pair(PyObject* pair) {
  if (PyTuple_CheckExact(pair) && PyTuple_GET_SIZE(pair) == 2) {
    // Fast path: `a, b = pair` of an exact 2-tuple takes its two items.
    return {Ref::borrow(PyTuple_GET_ITEM(pair, 0)), Ref::borrow(PyTuple_GET_ITEM(pair, 1))};
  }
  Ref it = Ref::steal_maybe(PyObject_GetIter(pair));
  if (!it) {
    if (PyErr_ExceptionMatches(PyExc_TypeError)) {
      PyErr_Clear();
      raise_format(PyExc_TypeError, "cannot unpack non-iterable %.200s object", Py_TYPE(pair)->tp_name);
    }
    raise();
  }
  Ref first = next(it.get());
  Ref second = first ? next(it.get()) : Ref();
  if (!second) {
    raise_format(PyExc_ValueError, "not enough values to unpack (expected 2, got %d)", first ? 1 : 0);
  }
  if (Ref extra = next(it.get())) raise(PyExc_ValueError, "too many values to unpack (expected 2)");
  return {std::move(first), std::move(second)};
}

namespace {

// `type(obj).<name>` found along the type's method resolution order, without
// the metaclass's own attributes, and bound to `obj`: how the interpreter
// finds a special method. An empty Ref when no class on the way defines it.
Ref lookup_special(PyObject* obj, PyObject* name) {
  PyTypeObject* type = Py_TYPE(obj);
  const Ref mro = Ref::borrow(type->tp_mro);
  Ref found;
  for (Py_ssize_t i = 0; !found && i < PyTuple_GET_SIZE(mro.get()); ++i) {
    auto* base = reinterpret_cast<PyTypeObject*>(PyTuple_GET_ITEM(mro.get(), i));
    Ref namespace_ = check(PyType_GetDict(base));
    PyObject* value = PyDict_GetItemWithError(namespace_.get(), name);
    if (!value && PyErr_Occurred()) raise();
    found = Ref::borrow(value);
  }
  if (!found) return found;
  if (descrgetfunc bind = Py_TYPE(found.get())->tp_descr_get) {
    return check(bind(found.get(), obj, reinterpret_cast<PyObject*>(type)));
  }
  return found;
}

}  // namespace

ContextExit::ContextExit(const Names& names, PyObject* manager) {
  Ref enter = lookup_special(manager, names.dunder_enter);
  if (!enter) {
    raise_format(PyExc_TypeError, "'%.200s' object does not support the context manager protocol",
                 Py_TYPE(manager)->tp_name);
  }
  exit_ = lookup_special(manager, names.dunder_exit);
  if (!exit_) {
    raise_format(PyExc_TypeError,
                 "'%.200s' object does not support the context manager protocol (missed __exit__ method)",
                 Py_TYPE(manager)->tp_name);
  }
  entered_ = call(enter.get(), {});
}

void ContextExit::on_success() { call(exit_.get(), {Py_None, Py_None, Py_None}); }

void ContextExit::on_error() {
  Ref error = Ref::steal_maybe(PyErr_GetRaisedException());
  if (!error) raise();
  bool suppressed = false;
  // While __exit__ runs the error is the one being handled, so what it raises
  // chains to it.
  while_handling(error.get(), [&] {
    Ref type = Ref::borrow(reinterpret_cast<PyObject*>(Py_TYPE(error.get())));
    Ref traceback = Ref::steal_maybe(PyException_GetTraceback(error.get()));
    Ref verdict = call(exit_.get(), {type.get(), error.get(), traceback ? traceback.get() : Py_None});
    suppressed = truthy(verdict.get());
  });
  if (suppressed) return;
  PyErr_SetRaisedException(error.release());
  raise();
}

}  // namespace plan_record
