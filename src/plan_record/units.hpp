// What each subsystem unit gives the module frame: the specs of its functions
// (the frame defines them in the module's order) and the mixin class builder.
#pragma once

#include "function.hpp"

namespace plan_record {

// Plan reconciliation.
extern const FunctionSpec plan_from_row_spec;
extern const FunctionSpec pin_plan_spec;
extern const FunctionSpec demote_unrecorded_families_spec;
extern const FunctionSpec by_importance_spec;

// Plan audit log and drift.
extern const FunctionSpec append_plan_log_spec;
extern const FunctionSpec drift_signal_spec;

// Section analysis.
extern const FunctionSpec sections_spec;
extern const FunctionSpec section_map_spec;

// Store side: creates `PlanRecordMixin` from its bases as a class statement
// of the module does.
Ref make_mixin_class(PyObject* module, PyObject* bases);

}  // namespace plan_record
