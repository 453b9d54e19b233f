// Plan reconciliation: stored rows and fresh plans become this build's plans.
#include <array>

#include "records.hpp"
#include "units.hpp"

namespace plan_record {

namespace {

// The stored files of a row that still exist, sorted; duplicates stay.
Ref live_files(PyObject* stored, PyObject* live_paths) {
  Ref files = new_list();
  Ref it = iterate(stored);
  while (Ref path = next(it.get())) {
    if (contains(live_paths, path.get())) append(files.get(), path.get());
  }
  check(PyList_Sort(files.get()));
  return files;
}

Ref plan_from_row(const Call& call, PyObject* row, PyObject* live_paths) {
  const ModuleState& st = call.state();
  const Names& n = st.names;

  Ref stored = row_get(n, row, n.source_files);
  if (!truthy(stored.get())) stored = new_list();
  Ref files = live_files(stored.get(), live_paths);
  Ref title = row_get(n, row, n.title);
  if (!truthy(title.get())) title = row_item(row, n.page_id);

  Ref page_plan = call.global(n.PagePlan);
  Ref page_id = row_item(row, n.page_id);
  Ref level = or_else(row_get(n, row, n.level), n.module);
  Ref importance = or_else(row_get(n, row, n.importance), n.medium);
  Ref description = row_get(n, row, n.description);
  if (!truthy(description.get())) {
    Ref shown = formatted(title.get());
    description = check(PyUnicode_FromFormat("The %U page (%zd files).", shown.get(),
                                              PyList_GET_SIZE(files.get())));
  }
  Ref topic_of = call.global(n.unit_topic);
  Ref topic = plan_record::call(topic_of.get(), {title.get(), files.get()});
  ModulePattern catch_all_re(call, n.CATCH_ALL_RE, st.catch_all_re, native_catch_all_match);
  Ref id_text = row_get(n, row, n.page_id, n.empty);
  Ref catch_all = boolean(catch_all_re.matches(id_text.get()));
  Ref type = or_else(row_get(n, row, n.page_type), n.empty);

  return call_kw(page_plan.get(), {},
                 {page_id.get(), title.get(), level.get(), importance.get(), description.get(), topic.get(),
                  files.get(), catch_all.get(), type.get()},
                 st.row_plan_fields);
}

Ref plan_from_row_entry(const Call& call) { return plan_from_row(call, call.arg(0), call.arg(1)); }

constexpr std::array<ParamSpec, 2> plan_from_row_params{{
    {"row", "dict[str, Any]"},
    {"live_paths", "set[str]"},
}};

}  // namespace

const FunctionSpec plan_from_row_spec{
    "_plan_from_row",
    "_plan_from_row",
    "Rebuild a PagePlan from a stored wiki page row (pinned identity).",
    plan_from_row_params,
    0,
    "PagePlan",
    plan_from_row_entry,
};

}  // namespace plan_record
