// Module state: everything a module object keeps, made by its exec step and
// released with it. Nothing here changes after initialisation.
#pragma once

#include "core.hpp"

namespace plan_record {

// Interned texts: attribute names, keys, module-level names and literals.
#define PLAN_RECORD_NAMES(X)                          \
  X(page_id, "page_id")                               \
  X(title, "title")                                   \
  X(level, "level")                                   \
  X(importance, "importance")                         \
  X(description, "description")                       \
  X(topic, "topic")                                   \
  X(source_files, "source_files")                     \
  X(children, "children")                             \
  X(related_pages, "related_pages")                   \
  X(catch_all, "catch_all")                           \
  X(type, "type")                                     \
  X(page_type, "page_type")                           \
  X(parent_section, "parent_section")                 \
  X(importance_score, "importance_score")             \
  X(get, "get")                                       \
  X(match, "match")                                   \
  X(startswith, "startswith")                         \
  X(compile, "compile")                               \
  X(getLogger, "getLogger")                           \
  X(prepare, "__prepare__")                           \
  X(dunder_module, "__module__")                      \
  X(dunder_qualname, "__qualname__")                  \
  X(dunder_doc, "__doc__")                            \
  X(dunder_annotations, "__annotations__")            \
  X(dunder_file, "__file__")                          \
  X(dunder_name, "__name__")                          \
  X(empty, "")                                        \
  X(module, "module")                                 \
  X(medium, "medium")                                 \
  X(custom_prefix, "custom-")                         \
  X(PagePlan, "PagePlan")                             \
  X(unit_topic, "unit_topic")                         \
  X(PINNED_LEVELS, "PINNED_LEVELS")                   \
  X(CATCH_ALL_RE, "_CATCH_ALL_RE")                    \
  X(SECTION_RE, "_SECTION_RE")                        \
  X(plan_from_row, "_plan_from_row")                 \
  /* reconciliation */                               \
  X(items, "items")                                   \
  X(isdisjoint, "isdisjoint")                         \
  X(sort, "sort")                                     \
  X(key, "key")                                       \
  X(rsplit, "rsplit")                                 \
  X(slash, "/")                                       \
  X(blank, " ")                                       \
  X(ReplanRemap, "ReplanRemap")                       \
  X(amend, "amend")                                   \
  X(carry_superseded, "carry_superseded")             \
  X(inherit_prose, "inherit_prose")                   \
  X(keep_agent_titles, "keep_agent_titles")           \
  X(link_families, "link_families")                   \
  X(NOTE_LEVEL, "NOTE_LEVEL")                         \
  X(OTHER_CODE_TYPE, "OTHER_CODE_TYPE")               \
  X(MIN_NEW_PAGE_FILES, "_MIN_NEW_PAGE_FILES")        \
  X(demote_unrecorded_families, "_demote_unrecorded_families") \
  X(by_importance, "_by_importance")                  \
  X(add, "add")                                       \
  X(retire, "retire")                                 \
  X(extend, "extend")                                 \
  X(low, "low")                                       \
  X(catch_all_id, "module-additional")                \
  X(other_code, "Other code")                         \
  X(re_chunked, "module re-chunked; superseded child") \
  X(collapsed_reason, "module no longer oversized; decomposition collapsed") \
  X(empty_parent, "decomposition changed; empty parent") \
  X(removed_from_steering, "removed from steering")   \
  X(files_gone, "all source files gone")              \
  X(children_retired, "all decomposed children retired") \
  X(catch_all_empty, "catch-all has no remaining files")

struct Names {
#define PLAN_RECORD_NAME_FIELD(field, literal) PyObject* field;
  PLAN_RECORD_NAMES(PLAN_RECORD_NAME_FIELD)
#undef PLAN_RECORD_NAME_FIELD
};

struct ModuleState {
  Names names;
  PyObject* function_type;
  // Keyword names of the three ways a PagePlan is built (the catch-all page
  // names the same fields as a plan rebuilt from a row), and of `amend`'s level.
  PyObject* row_plan_fields;
  PyObject* parent_plan_fields;
  PyObject* level_keyword;
  // The patterns as compiled at initialisation: while a module attribute still
  // holds one of these very objects, matching may take the native path.
  PyObject* catch_all_re;
  PyObject* section_re;
};

ModuleState& state_of(PyObject* module) noexcept;

}  // namespace plan_record
