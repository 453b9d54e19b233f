// Reading the shared records (stored page rows, plans) and reaching the
// host's collaborators, with the fallbacks every unit applies the same way.
#pragma once

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

}  // namespace plan_record
