#include "core.hpp"

#include <cstdarg>
#include <iterator>

namespace plan_record {

namespace {

// Argument slots on the stack of one call, one more than the arguments: the
// slot in front lets the callee prepend `self` without copying.
constexpr std::size_t call_slots = 8;
constexpr std::size_t call_kw_slots = 24;

}  // namespace

void raise(PyObject* type, const char* message) {
  PyErr_SetString(type, message);
  throw PyErrorSet{};
}

void raise_format(PyObject* type, const char* format, ...) {
  va_list vargs;
  va_start(vargs, format);
  Ref message = Ref::steal_maybe(PyUnicode_FromFormatV(format, vargs));
  va_end(vargs);
  if (message) PyErr_SetObject(type, message.get());
  throw PyErrorSet{};
}

namespace {

PyObject* pointer(const Ref& item) { return item.get(); }
PyObject* pointer(PyObject* item) { return item; }

// A new tuple or list filled with the items: the only place that fills a
// container's slots directly.
template <class Items>
Ref filled(PyObject* (*make)(Py_ssize_t), void (*set)(PyObject*, Py_ssize_t, PyObject*),
           const char* empty_item, const Items& items) {
  Ref container = check(make(static_cast<Py_ssize_t>(std::size(items))));
  Py_ssize_t i = 0;
  for (const auto& item : items) {
    PyObject* p = pointer(item);
    if (p == nullptr) raise(PyExc_SystemError, empty_item);
    set(container.get(), i++, Py_NewRef(p));
  }
  return container;
}

void tuple_slot(PyObject* tuple, Py_ssize_t i, PyObject* item) { PyTuple_SET_ITEM(tuple, i, item); }
void list_slot(PyObject* list, Py_ssize_t i, PyObject* item) { PyList_SET_ITEM(list, i, item); }

template <class Items>
Ref tuple_from(const Items& items) {
  return filled(PyTuple_New, tuple_slot, "plan_record: empty reference in a tuple", items);
}

template <class Items>
Ref list_from(const Items& items) {
  return filled(PyList_New, list_slot, "plan_record: empty reference in a list", items);
}

}  // namespace

Ref tuple_of(std::initializer_list<Ref> items) { return tuple_from(items); }
Ref tuple_of(std::span<const Ref> items) { return tuple_from(items); }
Ref list_of(std::initializer_list<Ref> items) { return list_from(items); }
Ref list_of(std::span<const Ref> items) { return list_from(items); }
Ref tuple_of(std::initializer_list<PyObject*> items) { return tuple_from(items); }
Ref list_of(std::initializer_list<PyObject*> items) { return list_from(items); }

Ref call(PyObject* callable, std::initializer_list<PyObject*> args) {
  PyObject* slots[call_slots];
  const std::size_t n = args.size();
  if (n + 1 > std::size(slots)) raise(PyExc_SystemError, "plan_record: too many call arguments");
  std::size_t i = 1;
  for (PyObject* a : args) slots[i++] = a;
  return check(PyObject_Vectorcall(callable, slots + 1, n | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr));
}

Ref call_kw(PyObject* callable, std::initializer_list<PyObject*> positional,
            std::initializer_list<PyObject*> keywords, PyObject* kwnames) {
  PyObject* slots[call_kw_slots];
  const std::size_t n = positional.size() + keywords.size();
  if (n + 1 > std::size(slots)) raise(PyExc_SystemError, "plan_record: too many call arguments");
  std::size_t i = 1;
  for (PyObject* a : positional) slots[i++] = a;
  for (PyObject* a : keywords) slots[i++] = a;
  return check(
      PyObject_Vectorcall(callable, slots + 1, positional.size() | PY_VECTORCALL_ARGUMENTS_OFFSET, kwnames));
}

Ref call_method(PyObject* self, PyObject* name, std::initializer_list<PyObject*> args) {
  PyObject* slots[call_slots];
  const std::size_t n = args.size() + 1;
  if (n > std::size(slots)) raise(PyExc_SystemError, "plan_record: too many call arguments");
  slots[0] = self;
  std::size_t i = 1;
  for (PyObject* a : args) slots[i++] = a;
  return check(PyObject_VectorcallMethod(name, slots, n, nullptr));
}

}  // namespace plan_record
