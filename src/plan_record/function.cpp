#include "function.hpp"

#include <algorithm>
#include <cstddef>
#include <vector>

#include "state.hpp"

namespace plan_record {

PyObject* Call::module() const noexcept { return fn_->module; }

ModuleState& Call::state() const noexcept { return state_of(fn_->module); }

namespace {

// The module namespace's binding of `name`, or an empty Ref.
Ref namespace_binding(PyObject* module, PyObject* name) {
  PyObject* found =
      PyDict_GetItemWithError(PyModule_GetDict(module), name);  // the dict: borrowed, never NULL
  if (!found && PyErr_Occurred()) raise();
  return Ref::borrow(found);
}

}  // namespace

Ref Call::global(PyObject* name) const { return module_global(fn_->module, name); }

Ref Call::global_if_bound(PyObject* name) const {
  if (!text_keys(PyModule_GetDict(fn_->module))) return Ref();
  return namespace_binding(fn_->module, name);
}

Ref module_global(PyObject* module, PyObject* name) {
  if (Ref bound = namespace_binding(module, name)) return bound;
  PyObject* found = PyDict_GetItemWithError(PyEval_GetBuiltins(), name);
  if (found) return Ref::borrow(found);
  if (PyErr_Occurred()) raise();
  Ref message = check(PyUnicode_FromFormat("name '%U' is not defined", name));
  Ref error = check(PyObject_CallOneArg(PyExc_NameError, message.get()));
  check(PyObject_SetAttrString(error.get(), "name", name));
  PyErr_SetObject(PyExc_NameError, error.get());
  raise();
}

Function* as_native(const ModuleState& state, PyObject* o, const FunctionSpec& spec) noexcept {
  if (Py_TYPE(o) != reinterpret_cast<PyTypeObject*>(state.function_type)) return nullptr;
  auto* fn = reinterpret_cast<Function*>(o);
  return fn->spec == &spec ? fn : nullptr;
}

namespace {

Function* as_function(PyObject* o) noexcept { return reinterpret_cast<Function*>(o); }

// `mapping[key]` of a dict, or an empty Ref when absent. The lookup may run a
// key's `__eq__`: the caller holds the dict.
Ref find(PyObject* dict, PyObject* key) {
  PyObject* found = PyDict_GetItemWithError(dict, key);
  if (!found && PyErr_Occurred()) raise();
  return Ref::borrow(found);
}

std::size_t positional_count(const FunctionSpec& spec) noexcept { return spec.params.size() - spec.kwonly; }

// "f() missing 2 required positional arguments: 'a' and 'b'", as CPython words it.
[[noreturn]] void missing_arguments(Function* fn, const char* kind, PyObject* const* slots, std::size_t start,
                                    std::size_t end) {
  Ref names = new_list();
  for (std::size_t i = start; i < end; ++i) {
    if (slots[i]) continue;
    Ref repr = check(PyObject_Repr(PyTuple_GET_ITEM(fn->varnames, i)));
    append(names.get(), repr.get());
  }
  const Py_ssize_t n = PyList_GET_SIZE(names.get());
  Ref joined;
  if (n == 1) {
    joined = Ref::borrow(PyList_GET_ITEM(names.get(), 0));
  } else if (n == 2) {
    joined = check(
        PyUnicode_FromFormat("%U and %U", PyList_GET_ITEM(names.get(), 0), PyList_GET_ITEM(names.get(), 1)));
  } else {
    Ref tail = check(PyUnicode_FromFormat(", %U, and %U", PyList_GET_ITEM(names.get(), n - 2),
                                          PyList_GET_ITEM(names.get(), n - 1)));
    Ref head = check(PyList_GetSlice(names.get(), 0, n - 2));
    Ref comma = text(", ");
    Ref start_text = check(PyUnicode_Join(comma.get(), head.get()));
    joined = check(PyUnicode_Concat(start_text.get(), tail.get()));
  }
  raise_format(PyExc_TypeError, "%U() missing %zd required %s argument%s: %U", fn->qualname, n, kind,
               n == 1 ? "" : "s", joined.get());
}

[[noreturn]] void too_many_positional(Function* fn, Py_ssize_t defcount, Py_ssize_t given,
                                      PyObject* const* slots) {
  const std::size_t npos = positional_count(*fn->spec);
  Py_ssize_t kwonly_given = 0;
  for (std::size_t i = npos; i < fn->spec->params.size(); ++i) {
    if (slots[i]) ++kwonly_given;
  }
  Ref sig;
  bool plural;
  if (defcount) {
    plural = true;
    sig = check(PyUnicode_FromFormat("from %zd to %zd", static_cast<Py_ssize_t>(npos) - defcount,
                                     static_cast<Py_ssize_t>(npos)));
  } else {
    plural = npos != 1;
    sig = check(PyUnicode_FromFormat("%zd", static_cast<Py_ssize_t>(npos)));
  }
  Ref kwonly_sig;
  if (kwonly_given) {
    kwonly_sig =
        check(PyUnicode_FromFormat(" positional argument%s (and %zd keyword-only argument%s)",
                                   given != 1 ? "s" : "", kwonly_given, kwonly_given != 1 ? "s" : ""));
  } else {
    kwonly_sig = text("");
  }
  raise_format(PyExc_TypeError, "%U() takes %U positional argument%s but %zd%U %s given", fn->qualname,
               sig.get(), plural ? "s" : "", given, kwonly_sig.get(),
               given == 1 && !kwonly_given ? "was" : "were");
}

// Bind the call's arguments to parameters exactly as CPython binds them for a
// Python function with the same signature, then run the native body.
PyObject* function_vectorcall(PyObject* callable, PyObject* const* args, std::size_t nargsf,
                              PyObject* kwnames) noexcept {
  Function* fn = as_function(callable);
  return boundary([&]() -> Ref {
    const FunctionSpec& spec = *fn->spec;
    const std::size_t total = spec.params.size();
    const std::size_t npos = positional_count(spec);
    const auto nargs = static_cast<std::size_t>(PyVectorcall_NARGS(nargsf));
    // Comparing a keyword of a str subclass, or looking a name up in the
    // keyword defaults, can run Python code that replaces either default:
    // the call binds against the ones it started with.
    const Ref defaults = Ref::borrow(fn->defaults);
    const Ref kwdefaults = Ref::borrow(fn->kwdefaults);
    const Py_ssize_t defcount = defaults ? PyTuple_GET_SIZE(defaults.get()) : 0;

    Ref slots[max_params];
    PyObject* raw[max_params] = {};
    auto bind = [&](std::size_t i, Ref value) {
      raw[i] = value.get();
      slots[i] = std::move(value);
    };

    for (std::size_t i = 0, n = std::min(nargs, npos); i < n; ++i) bind(i, Ref::borrow(args[i]));

    if (kwnames) {
      const Py_ssize_t nkw = PyTuple_GET_SIZE(kwnames);
      for (Py_ssize_t k = 0; k < nkw; ++k) {
        PyObject* keyword = PyTuple_GET_ITEM(kwnames, k);
        if (!PyUnicode_Check(keyword)) {
          raise_format(PyExc_TypeError, "%U() keywords must be strings", fn->qualname);
        }
        // `keyword is name` for each parameter name first, then `keyword == name`,
        // as CPython matches keywords.
        std::size_t j = 0;
        while (j < total && PyTuple_GET_ITEM(fn->varnames, j) != keyword) ++j;
        if (j == total) {
          for (j = 0; j < total; ++j) {
            if (check(PyObject_RichCompareBool(keyword, PyTuple_GET_ITEM(fn->varnames, j), Py_EQ))) {
              break;
            }
          }
        }
        if (j == total) {
          raise_format(PyExc_TypeError, "%U() got an unexpected keyword argument '%S'", fn->qualname,
                       keyword);
        }
        if (raw[j]) {
          raise_format(PyExc_TypeError, "%U() got multiple values for argument '%S'", fn->qualname, keyword);
        }
        bind(j, Ref::borrow(args[nargs + static_cast<std::size_t>(k)]));
      }
    }

    if (nargs > npos) too_many_positional(fn, defcount, static_cast<Py_ssize_t>(nargs), raw);

    if (nargs < npos) {
      const Py_ssize_t first_default = static_cast<Py_ssize_t>(npos) - defcount;
      for (Py_ssize_t i = static_cast<Py_ssize_t>(nargs); i < first_default; ++i) {
        if (!raw[i]) missing_arguments(fn, "positional", raw, nargs, static_cast<std::size_t>(first_default));
      }
      for (Py_ssize_t i = std::max(static_cast<Py_ssize_t>(nargs), first_default);
           i < static_cast<Py_ssize_t>(npos); ++i) {
        if (!raw[i])
          bind(static_cast<std::size_t>(i), Ref::borrow(PyTuple_GET_ITEM(defaults.get(), i - first_default)));
      }
    }

    bool missing_kwonly = false;
    for (std::size_t i = npos; i < total; ++i) {
      if (raw[i]) continue;
      if (kwdefaults) {
        if (Ref value = find(kwdefaults.get(), PyTuple_GET_ITEM(fn->varnames, i))) {
          bind(i, std::move(value));
          continue;
        }
      }
      missing_kwonly = true;
    }
    if (missing_kwonly) missing_arguments(fn, "keyword-only", raw, npos, total);

    return spec.impl(Call(fn, raw));
  });
}

PyObject* function_descr_get(PyObject* self, PyObject* obj, PyObject*) noexcept {
  if (obj == nullptr || obj == Py_None) return Py_NewRef(self);
  return PyMethod_New(self, obj);
}

PyObject* function_repr(PyObject* self) noexcept {
  return PyUnicode_FromFormat("<function %U at %p>", as_function(self)->qualname, self);
}

int function_traverse(PyObject* self, visitproc visit, void* arg) noexcept {
  Function* fn = as_function(self);
  Py_VISIT(Py_TYPE(self));
  Py_VISIT(fn->module);
  Py_VISIT(fn->name);
  Py_VISIT(fn->qualname);
  Py_VISIT(fn->module_name);
  Py_VISIT(fn->doc);
  Py_VISIT(fn->annotations);
  Py_VISIT(fn->defaults);
  Py_VISIT(fn->kwdefaults);
  Py_VISIT(fn->varnames);
  Py_VISIT(fn->dict);
  return 0;
}

int function_clear(PyObject* self) noexcept {
  Function* fn = as_function(self);
  Py_CLEAR(fn->module);
  Py_CLEAR(fn->name);
  Py_CLEAR(fn->qualname);
  Py_CLEAR(fn->module_name);
  Py_CLEAR(fn->doc);
  Py_CLEAR(fn->annotations);
  Py_CLEAR(fn->defaults);
  Py_CLEAR(fn->kwdefaults);
  Py_CLEAR(fn->varnames);
  Py_CLEAR(fn->dict);
  return 0;
}

void function_dealloc(PyObject* self) noexcept {
  PyTypeObject* type = Py_TYPE(self);
  PyObject_GC_UnTrack(self);
  if (as_function(self)->weakrefs) PyObject_ClearWeakRefs(self);
  function_clear(self);
  type->tp_free(self);
  Py_DECREF(type);
}

// Attribute access --------------------------------------------------------

template <PyObject* Function::*Field>
PyObject* get_field(PyObject* self, void*) noexcept {
  PyObject* value = as_function(self)->*Field;
  return Py_NewRef(value ? value : Py_None);
}

template <PyObject* Function::*Field>
int set_text_field(PyObject* self, PyObject* value, void* closure) noexcept {
  if (value == nullptr || !PyUnicode_Check(value)) {
    PyErr_Format(PyExc_TypeError, "%s must be set to a string object", static_cast<const char*>(closure));
    return -1;
  }
  Py_XSETREF(as_function(self)->*Field, Py_NewRef(value));
  return 0;
}

template <PyObject* Function::*Field>
int set_any_field(PyObject* self, PyObject* value, void*) noexcept {
  Py_XSETREF(as_function(self)->*Field, Py_NewRef(value ? value : Py_None));
  return 0;
}

int set_annotations(PyObject* self, PyObject* value, void*) noexcept {
  if (value == Py_None) value = nullptr;
  if (value && !PyDict_Check(value)) {
    PyErr_SetString(PyExc_TypeError, "__annotations__ must be set to a dict object");
    return -1;
  }
  Py_XSETREF(as_function(self)->annotations, Py_XNewRef(value));
  return 0;
}

PyObject* get_annotations(PyObject* self, void*) noexcept {
  Function* fn = as_function(self);
  if (!fn->annotations) fn->annotations = PyDict_New();
  return Py_XNewRef(fn->annotations);
}

int set_defaults(PyObject* self, PyObject* value, void*) noexcept {
  if (value == Py_None) value = nullptr;
  if (value && !PyTuple_Check(value)) {
    PyErr_SetString(PyExc_TypeError, "__defaults__ must be set to a tuple object");
    return -1;
  }
  Py_XSETREF(as_function(self)->defaults, Py_XNewRef(value));
  return 0;
}

int set_kwdefaults(PyObject* self, PyObject* value, void*) noexcept {
  if (value == Py_None) value = nullptr;
  if (value && !PyDict_Check(value)) {
    PyErr_SetString(PyExc_TypeError, "__kwdefaults__ must be set to a dict object");
    return -1;
  }
  Py_XSETREF(as_function(self)->kwdefaults, Py_XNewRef(value));
  return 0;
}

PyObject* get_globals(PyObject* self, void*) noexcept {
  return Py_NewRef(PyModule_GetDict(as_function(self)->module));
}

// inspect.Signature of the current parameters, defaults and annotations.
PyObject* get_signature(PyObject* self, void*) noexcept {
  Function* fn = as_function(self);
  return boundary([&]() -> Ref {
    // Looking a name up in the annotations or the keyword defaults can run a
    // key's `__eq__`, which may replace any of the three: the signature is
    // made from the ones read here, as `inspect` reads a function's once.
    const Ref defaults = Ref::borrow(fn->defaults);
    const Ref kwdefaults = Ref::borrow(fn->kwdefaults);
    const Ref annotations = Ref::borrow(fn->annotations);

    Ref inspect = check(PyImport_ImportModule("inspect"));
    Ref parameter = check(PyObject_GetAttrString(inspect.get(), "Parameter"));
    Ref signature = check(PyObject_GetAttrString(inspect.get(), "Signature"));
    Ref empty = check(PyObject_GetAttrString(parameter.get(), "empty"));
    Ref positional = check(PyObject_GetAttrString(parameter.get(), "POSITIONAL_OR_KEYWORD"));
    Ref keyword_only = check(PyObject_GetAttrString(parameter.get(), "KEYWORD_ONLY"));
    Ref kwnames = check(Py_BuildValue("(ss)", "default", "annotation"));

    const std::size_t total = fn->spec->params.size();
    const std::size_t npos = positional_count(*fn->spec);
    const Py_ssize_t defcount = defaults ? PyTuple_GET_SIZE(defaults.get()) : 0;
    auto annotation_of = [&](PyObject* name) -> Ref {
      Ref found = annotations ? find(annotations.get(), name) : Ref();
      return found ? found : empty;
    };

    Ref params = new_list();
    for (std::size_t i = 0; i < total; ++i) {
      PyObject* name = PyTuple_GET_ITEM(fn->varnames, i);
      Ref fallback;
      if (i < npos) {
        const Py_ssize_t at = static_cast<Py_ssize_t>(i) - (static_cast<Py_ssize_t>(npos) - defcount);
        if (at >= 0) fallback = Ref::borrow(PyTuple_GET_ITEM(defaults.get(), at));
      } else if (kwdefaults) {
        fallback = find(kwdefaults.get(), name);
      }
      if (!fallback) fallback = empty;
      Ref annotation = annotation_of(name);
      Ref param = call_kw(parameter.get(), {name, i < npos ? positional.get() : keyword_only.get()},
                          {fallback.get(), annotation.get()}, kwnames.get());
      append(params.get(), param.get());
    }
    Ref return_name = interned("return");
    Ref returns = annotation_of(return_name.get());
    Ref return_kw = check(Py_BuildValue("(s)", "return_annotation"));
    return call_kw(signature.get(), {params.get()}, {returns.get()}, return_kw.get());
  });
}

PyObject* function_reduce(PyObject* self, PyObject*) noexcept {
  // Pickled by reference, like a Python function: its qualified name in its module.
  return Py_NewRef(as_function(self)->qualname);
}

PyGetSetDef function_getset[] = {
    {"__name__", get_field<&Function::name>, set_text_field<&Function::name>, nullptr,
     const_cast<char*>("__name__")},
    {"__qualname__", get_field<&Function::qualname>, set_text_field<&Function::qualname>, nullptr,
     const_cast<char*>("__qualname__")},
    {"__module__", get_field<&Function::module_name>, set_any_field<&Function::module_name>, nullptr,
     nullptr},
    {"__doc__", get_field<&Function::doc>, set_any_field<&Function::doc>, nullptr, nullptr},
    {"__annotations__", get_annotations, set_annotations, nullptr, nullptr},
    {"__defaults__", get_field<&Function::defaults>, set_defaults, nullptr, nullptr},
    {"__kwdefaults__", get_field<&Function::kwdefaults>, set_kwdefaults, nullptr, nullptr},
    {"__globals__", get_globals, nullptr, nullptr, nullptr},
    {"__signature__", get_signature, nullptr, nullptr, nullptr},
    {"__dict__", PyObject_GenericGetDict, PyObject_GenericSetDict, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyMemberDef function_members[] = {
    {"__vectorcalloffset__", Py_T_PYSSIZET, offsetof(Function, vectorcall), Py_READONLY, nullptr},
    {"__dictoffset__", Py_T_PYSSIZET, offsetof(Function, dict), Py_READONLY, nullptr},
    {"__weaklistoffset__", Py_T_PYSSIZET, offsetof(Function, weakrefs), Py_READONLY, nullptr},
    {nullptr, 0, 0, 0, nullptr},
};

PyMethodDef function_methods[] = {
    {"__reduce__", function_reduce, METH_NOARGS, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

PyType_Slot function_slots[] = {
    {Py_tp_call, reinterpret_cast<void*>(PyVectorcall_Call)},
    {Py_tp_descr_get, reinterpret_cast<void*>(function_descr_get)},
    {Py_tp_repr, reinterpret_cast<void*>(function_repr)},
    {Py_tp_traverse, reinterpret_cast<void*>(function_traverse)},
    {Py_tp_clear, reinterpret_cast<void*>(function_clear)},
    {Py_tp_dealloc, reinterpret_cast<void*>(function_dealloc)},
    {Py_tp_getset, function_getset},
    {Py_tp_members, function_members},
    {Py_tp_methods, function_methods},
    {0, nullptr},
};

PyType_Spec function_spec = {
    "plan_record.function",
    sizeof(Function),
    0,
    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_HAVE_VECTORCALL | Py_TPFLAGS_METHOD_DESCRIPTOR |
        Py_TPFLAGS_IMMUTABLETYPE | Py_TPFLAGS_DISALLOW_INSTANTIATION,
    function_slots,
};

}  // namespace

Ref make_function_type(PyObject* module) {
  return check(PyType_FromModuleAndSpec(module, &function_spec, nullptr));
}

Ref make_function(PyObject* module, const FunctionSpec& spec) {
  ModuleState& state = state_of(module);
  auto* type = reinterpret_cast<PyTypeObject*>(state.function_type);
  Ref self = check(reinterpret_cast<PyObject*>(PyObject_GC_New(Function, type)));
  Function* fn = as_function(self.get());
  fn->vectorcall = function_vectorcall;
  fn->spec = &spec;
  fn->module = Py_NewRef(module);
  fn->name = fn->qualname = fn->module_name = fn->doc = nullptr;
  fn->annotations = fn->defaults = fn->kwdefaults = fn->varnames = nullptr;
  fn->dict = fn->weakrefs = nullptr;
  PyObject_GC_Track(self.get());

  fn->name = interned(spec.name).release();
  fn->qualname = interned(spec.qualname).release();
  fn->module_name = PyModule_GetNameObject(module);
  if (!fn->module_name) raise();
  fn->doc = text(spec.doc).release();

  std::vector<Ref> varnames;
  Ref annotations = new_dict();
  Ref kwdefaults;
  for (std::size_t i = 0; i < spec.params.size(); ++i) {
    const ParamSpec& p = spec.params[i];
    Ref name = interned(p.name);
    if (p.annotation) {
      Ref annotation = text(p.annotation);
      check(PyDict_SetItem(annotations.get(), name.get(), annotation.get()));
    }
    if (p.default_false) {
      if (!kwdefaults) kwdefaults = new_dict();
      check(PyDict_SetItem(kwdefaults.get(), name.get(), Py_False));
    }
    varnames.push_back(std::move(name));
  }
  Ref return_key = interned("return");
  Ref returns = text(spec.returns);
  check(PyDict_SetItem(annotations.get(), return_key.get(), returns.get()));
  fn->varnames = tuple_of(varnames).release();
  fn->annotations = annotations.release();
  fn->kwdefaults = kwdefaults.release();
  return self;
}

}  // namespace plan_record
