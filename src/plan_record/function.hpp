// Native callables that look and bind like Python functions: name, qualname,
// module, docstring, annotations, a readable signature, defaults, CPython's own
// argument errors, vectorcall, and method binding inside a class.
#pragma once

#include <span>

#include "core.hpp"

namespace plan_record {

struct ModuleState;
struct Function;

// One call of a native function, its arguments already bound to parameters.
class Call {
 public:
  Call(Function* fn, PyObject* const* args) noexcept : fn_(fn), args_(args) {}

  PyObject* arg(std::size_t i) const noexcept { return args_[i]; }
  Function* function() const noexcept { return fn_; }
  PyObject* module() const noexcept;
  ModuleState& state() const noexcept;

  // A module-level name, looked up now in the module's namespace, then in the
  // builtins; NameError as Python raises it when neither holds the name.
  Ref global(PyObject* name) const;
  // The module namespace's binding of `name`, or an empty Ref when it is
  // unbound or when the lookup could run Python code (a key of the namespace
  // not an exact text): for fast paths that look up a name the steps
  // themselves do not read, where the lookup must change nothing but the path
  // taken.
  Ref global_if_bound(PyObject* name) const;

 private:
  Function* fn_;
  PyObject* const* args_;
};

using Impl = Ref (*)(const Call&);

struct ParamSpec {
  const char* name;
  const char* annotation;  // nullptr: not annotated (a method's `self`)
  bool default_false = false;
};

// What a function shows of itself. The texts are generated from the
// pure-Python twin's source at build time (texts.hpp).
struct FunctionText {
  const char* name;
  const char* qualname;
  const char* doc;
  std::span<const ParamSpec> params;  // positional-or-keyword, then keyword-only
  std::size_t kwonly;                 // number of trailing keyword-only parameters
  const char* returns;
};

// A native function: its texts and its body.
struct FunctionSpec : FunctionText {
  Impl impl;
};

inline constexpr std::size_t max_params = 8;

struct Function {
  PyObject_HEAD
  vectorcallfunc vectorcall;
  const FunctionSpec* spec;
  PyObject* module;  // owning module: its state and namespace
  PyObject* name;
  PyObject* qualname;
  PyObject* module_name;  // __module__
  PyObject* doc;
  PyObject* annotations;
  PyObject* defaults;    // tuple or NULL
  PyObject* kwdefaults;  // dict or NULL
  PyObject* varnames;    // tuple of parameter names
  PyObject* dict;
  PyObject* weakrefs;
};

// A name of `module`'s namespace, looked up now as a function of the module
// looks up a global: the namespace, then the builtins; NameError as Python
// raises it when neither holds the name.
Ref module_global(PyObject* module, PyObject* name);

// The function type, made once per module object.
Ref make_function_type(PyObject* module);

// A new function of `spec`, bound to `module` (whose state holds the type).
Ref make_function(PyObject* module, const FunctionSpec& spec);

// `o` as a native function of `spec` made by this module object, or nullptr:
// a caller that finds one may run its body directly, skipping argument binding.
Function* as_native(const ModuleState& state, PyObject* o, const FunctionSpec& spec) noexcept;

}  // namespace plan_record
