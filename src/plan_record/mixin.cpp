// Store side of the plan of record: the class `PlanRecordMixin`, made the way
// a class statement makes it, from the bases the host gives.
#include "records.hpp"
#include "units.hpp"

namespace plan_record {

namespace {

constexpr const char* mixin_doc = "The store side of the plan of record, mixed into ``WikiGenerator``.";

// The declared instance attributes the host object must provide.
constexpr const char* mixin_declarations[][2] = {
    {"branch", "str"},
    {"pages_dir", "Path"},
    {"_existing", "dict[str, dict[str, Any]]"},
};

// The most derived metaclass of the bases, as a class statement finds it.
Ref metaclass_of(PyObject* bases) {
  const Py_ssize_t n = PyTuple_GET_SIZE(bases);
  Ref winner = Ref::borrow(n ? reinterpret_cast<PyObject*>(Py_TYPE(PyTuple_GET_ITEM(bases, 0)))
                             : reinterpret_cast<PyObject*>(&PyType_Type));
  if (!PyType_Check(winner.get())) return winner;
  for (Py_ssize_t i = 0; i < n; ++i) {
    auto* base_meta = Py_TYPE(PyTuple_GET_ITEM(bases, i));
    auto* current = reinterpret_cast<PyTypeObject*>(winner.get());
    if (PyType_IsSubtype(current, base_meta)) continue;
    if (PyType_IsSubtype(base_meta, current)) {
      winner = Ref::borrow(reinterpret_cast<PyObject*>(base_meta));
      continue;
    }
    raise(PyExc_TypeError,
          "metaclass conflict: the metaclass of a derived class must be a (non-strict) subclass of "
          "the metaclasses of all its bases");
  }
  return winner;
}

}  // namespace

Ref make_mixin_class(PyObject* module) {
  PyObject* globals = PyModule_GetDict(module);
  const Names& n = state_of(module).names;
  auto base = [&](const char* name) -> Ref {
    PyObject* found = PyDict_GetItemString(globals, name);
    if (!found) raise_format(PyExc_NameError, "name '%s' is not defined", name);
    return Ref::borrow(found);
  };
  Ref retirement = base("PageRetirementMixin");
  Ref steering = base("SteeringMixin");
  Ref bases = check(PyTuple_Pack(2, retirement.get(), steering.get()));
  Ref name = interned("PlanRecordMixin");

  Ref meta = metaclass_of(bases.get());
  Ref prepare = getattr(meta.get(), n.prepare);
  Ref ns = call(prepare.get(), {name.get(), bases.get()});

  // The class body, statement by statement.
  Ref module_name = check(PyModule_GetNameObject(module));
  setitem(ns.get(), n.dunder_module, module_name.get());
  setitem(ns.get(), n.dunder_qualname, name.get());
  if (!contains(ns.get(), n.dunder_annotations)) {
    Ref annotations = new_dict();
    setitem(ns.get(), n.dunder_annotations, annotations.get());
  }
  Ref doc = text(mixin_doc);
  setitem(ns.get(), n.dunder_doc, doc.get());
  for (const auto& [attribute, declared] : mixin_declarations) {
    Ref key = interned(attribute);
    Ref value = text(declared);
    Ref target = getitem(ns.get(), n.dunder_annotations);
    setitem(target.get(), key.get(), value.get());
  }

  return call(meta.get(), {name.get(), bases.get(), ns.get()});
}

}  // namespace plan_record
