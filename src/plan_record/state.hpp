// Module state: everything a module object keeps, made by its exec step and
// released with it. Nothing here changes after initialisation.
#pragma once

#include "core.hpp"

namespace plan_record {

// Interned texts: attribute names, keys, module-level names and literals.
#define PLAN_RECORD_NAMES(X)                                                 \
  X(page_id, "page_id")                                                      \
  X(title, "title")                                                          \
  X(level, "level")                                                          \
  X(importance, "importance")                                                \
  X(description, "description")                                              \
  X(topic, "topic")                                                          \
  X(source_files, "source_files")                                            \
  X(children, "children")                                                    \
  X(related_pages, "related_pages")                                          \
  X(catch_all, "catch_all")                                                  \
  X(type, "type")                                                            \
  X(page_type, "page_type")                                                  \
  X(parent_section, "parent_section")                                        \
  X(importance_score, "importance_score")                                    \
  X(get, "get")                                                              \
  X(match, "match")                                                          \
  X(startswith, "startswith")                                                \
  X(compile, "compile")                                                      \
  X(getLogger, "getLogger")                                                  \
  X(dunder_module, "__module__")                                             \
  X(dunder_qualname, "__qualname__")                                         \
  X(dunder_doc, "__doc__")                                                   \
  X(dunder_annotations, "__annotations__")                                   \
  X(dunder_file, "__file__")                                                 \
  X(dunder_name, "__name__")                                                 \
  X(dunder_init, "__init__")                                                 \
  X(empty, "")                                                               \
  X(module, "module")                                                        \
  X(medium, "medium")                                                        \
  X(custom_prefix, "custom-")                                                \
  X(PagePlan, "PagePlan")                                                    \
  X(unit_topic, "unit_topic")                                                \
  X(PINNED_LEVELS, "PINNED_LEVELS")                                          \
  X(CATCH_ALL_RE, "_CATCH_ALL_RE")                                           \
  X(SECTION_RE, "_SECTION_RE")                                               \
  /* plan log, drift, sections */                                            \
  X(PLAN_LOG_NAME, "_PLAN_LOG_NAME")                                         \
  X(PLAN_LOG_MAX_LINES, "_PLAN_LOG_MAX_LINES")                               \
  X(PLAN_LOG_KEEP_LINES, "_PLAN_LOG_KEEP_LINES")                             \
  X(datetime, "datetime")                                                    \
  X(now, "now")                                                              \
  X(isoformat, "isoformat")                                                  \
  X(timespec, "timespec")                                                    \
  X(seconds, "seconds")                                                      \
  X(parent, "parent")                                                        \
  X(mkdir, "mkdir")                                                          \
  X(parents, "parents")                                                      \
  X(exist_ok, "exist_ok")                                                    \
  X(open, "open")                                                            \
  X(append_mode, "a")                                                        \
  X(encoding, "encoding")                                                    \
  X(utf_8, "utf-8")                                                          \
  X(dunder_enter, "__enter__")                                               \
  X(dunder_exit, "__exit__")                                                 \
  X(json, "json")                                                            \
  X(dumps, "dumps")                                                          \
  X(ensure_ascii, "ensure_ascii")                                            \
  X(write, "write")                                                          \
  X(line_feed, "\n")                                                         \
  X(read_text, "read_text")                                                  \
  X(split, "split")                                                          \
  X(name, "name")                                                            \
  X(with_name, "with_name")                                                  \
  X(trim_suffix, ".trim")                                                    \
  X(write_text, "write_text")                                                \
  X(replace, "replace")                                                      \
  X(unlink, "unlink")                                                        \
  X(missing_ok, "missing_ok")                                                \
  X(logger, "logger")                                                        \
  X(warning, "warning")                                                      \
  X(exc_info, "exc_info")                                                    \
  X(log_failed, "could not append wiki plan log")                            \
  X(at, "at")                                                                \
  X(replan, "replan")                                                        \
  X(amendments, "amendments")                                                \
  X(action, "action")                                                        \
  X(action_add, "add")                                                       \
  X(action_retire, "retire")                                                 \
  X(action_remap, "remap")                                                   \
  X(lstrip, "lstrip")                                                        \
  X(group, "group")                                                          \
  X(fence_backticks, "```")                                                  \
  X(fence_tildes, "~~~")                                                     \
  X(sections, "_sections")                                                   \
  X(citation_path, "path")                                                   \
  X(line_start, "line_start")                                                \
  X(line_end, "line_end")                                                    \
  X(symbol, "symbol")                                                        \
  X(prose_citations, "prose_citations")                                      \
  X(citation_key, "citation_key")                                            \
  X(text_hash, "_text_hash")                                                 \
  X(heading, "heading")                                                      \
  X(files, "files")                                                          \
  X(symbols, "symbols")                                                      \
  X(hash, "hash")                                                            \
  X(plan_from_row, "_plan_from_row")                                         \
  /* reconciliation */                                                       \
  X(items, "items")                                                          \
  X(isdisjoint, "isdisjoint")                                                \
  X(sort, "sort")                                                            \
  X(key, "key")                                                              \
  X(rsplit, "rsplit")                                                        \
  X(slash, "/")                                                              \
  X(blank, " ")                                                              \
  X(ReplanRemap, "ReplanRemap")                                              \
  X(amend, "amend")                                                          \
  X(carry_superseded, "carry_superseded")                                    \
  X(inherit_prose, "inherit_prose")                                          \
  X(keep_agent_titles, "keep_agent_titles")                                  \
  X(link_families, "link_families")                                          \
  X(NOTE_LEVEL, "NOTE_LEVEL")                                                \
  X(OTHER_CODE_TYPE, "OTHER_CODE_TYPE")                                      \
  X(MIN_NEW_PAGE_FILES, "_MIN_NEW_PAGE_FILES")                               \
  X(demote_unrecorded_families, "_demote_unrecorded_families")               \
  X(by_importance, "_by_importance")                                         \
  X(add, "add")                                                              \
  X(retire, "retire")                                                        \
  X(extend, "extend")                                                        \
  X(low, "low")                                                              \
  X(catch_all_id, "module-additional")                                       \
  X(other_code, "Other code")                                                \
  X(re_chunked, "module re-chunked; superseded child")                       \
  X(collapsed_reason, "module no longer oversized; decomposition collapsed") \
  X(empty_parent, "decomposition changed; empty parent")                     \
  X(removed_from_steering, "removed from steering")                          \
  X(files_gone, "all source files gone")                                     \
  X(children_retired, "all decomposed children retired")                     \
  X(catch_all_empty, "catch-all has no remaining files")                     \
  /* store side */                                                           \
  X(repository, "repository")                                                \
  X(db, "db")                                                                \
  X(transaction, "transaction")                                              \
  X(upsert_wiki_page, "upsert_wiki_page")                                    \
  X(execute, "execute")                                                      \
  X(branch, "branch")                                                        \
  X(existing_attr, "_existing")                                              \
  X(hashes_with_steering, "_hashes_with_steering")                           \
  X(source_hashes_method, "_source_hashes")                                  \
  X(stored_source_files, "stored_source_files")                              \
  X(section_of, "section_of")                                                \
  X(STALE_SENTINEL, "_STALE_SENTINEL")                                       \
  X(STEERING_SENTINEL, "STEERING_SENTINEL")                                  \
  X(pending, "pending")                                                      \
  X(stale, "stale")                                                          \
  X(source_hashes, "source_hashes")                                          \
  X(content_hash, "content_hash")                                            \
  X(build_cache, "build_cache")                                              \
  X(file_hashes, "file_hashes")                                              \
  X(sections_key, "sections")                                                \
  X(path, "path")                                                            \
  X(norm, "_norm")                                                           \
  X(changed_files, "changed_files")                                          \
  X(stale_sections, "stale_sections")                                        \
  X(changed_files_key, "changed_files")                                      \
  X(stale_sections_key, "stale_sections")                                    \
  X(removed, "removed")                                                      \
  X(modified, "modified")                                                    \
  X(section_map, "section_map")                                              \
  /* class creation */                                                       \
  X(types, "types")                                                          \
  X(new_class, "new_class")                                                  \
  /* record equality and build order */                                      \
  X(dunder_eq, "__eq__")                                                     \
  X(dunder_class, "__class__")                                               \
  X(dunder_getitem, "__getitem__")                                           \
  X(co_names, "co_names")                                                    \
  X(co_consts, "co_consts")                                                  \
  X(co_filename, "co_filename")                                              \
  X(co_qualname, "co_qualname")                                              \
  X(dunder_dataclass_params, "__dataclass_params__")

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
  // Keyword names of a skeleton row's columns, in the order they are passed.
  PyObject* skeleton_columns;
  // The patterns as compiled at initialisation: while a module attribute still
  // holds one of these very objects, matching may take the native path.
  PyObject* catch_all_re;
  PyObject* section_re;
};

ModuleState& state_of(PyObject* module) noexcept;

}  // namespace plan_record
