// Module frame: the module definition, its state, and the module body that
// initialisation runs once per module object.
#include <vector>

#include "records.hpp"
#include "texts.hpp"
#include "units.hpp"

namespace plan_record {

namespace {

// The module's imports, in order, run as the import statements they are, so
// that the import machinery binds the names and words any failure.
constexpr const char* imports =
    "from __future__ import annotations\n"
    "import json\n"
    "import logging\n"
    "import re\n"
    "from collections.abc import Iterable, Sequence\n"
    "from datetime import datetime\n"
    "from pathlib import Path\n"
    "from typing import Any\n"
    "from malde_ostrel.workers.wiki.page_retirement import PageRetirementMixin\n"
    "from malde_ostrel.workers.wiki.page_sources import unit_topic\n"
    "from malde_ostrel.workers.wiki.page_title import keep_agent_titles\n"
    "from malde_ostrel.workers.wiki.replan_carry import ReplanRemap, amend, carry_superseded, inherit_prose\n"
    "from malde_ostrel.workers.wiki.repo_facts import _norm, _text_hash\n"
    "from malde_ostrel.workers.wiki.sections import changed_files, stale_sections\n"
    "from malde_ostrel.workers.wiki.steering import STEERING_SENTINEL, SteeringMixin\n"
    "from malde_ostrel.workers.wiki.types import PagePlan, citation_key, link_families, section_of\n"
    "from malde_ostrel.workers.wiki.verify import prose_citations\n"
    "from malde_ostrel.workers.wiki_types import NOTE_LEVEL, OTHER_CODE_TYPE, PINNED_LEVELS\n";

class ModuleBody {
 public:
  explicit ModuleBody(PyObject* module)
      : module_(module), globals_(PyModule_GetDict(module)), state_(state_of(module)) {}

  void bind(const char* name, PyObject* value) {
    Ref key = interned(name);
    dict_set(globals_, key.get(), value);
  }

  Ref lookup(const char* name) {
    Ref key = interned(name);
    return module_global(module_, key.get());
  }

  void run_imports() {
    Ref code = check(Py_CompileString(imports, "<plan_record>", Py_file_input));
    check(PyEval_EvalCode(code.get(), globals_, globals_));
  }

  Ref compile(const char* pattern) {
    Ref re = lookup("re");
    Ref source = text(pattern);
    return call_method(re.get(), state_.names.compile, {source.get()});
  }

  void define(const FunctionSpec& spec) {
    Ref fn = make_function(module_, spec);
    bind(spec.name, fn.get());
  }

  void run() {
    run_imports();

    Ref logging = lookup("logging");
    Ref own_name = check(PyModule_GetNameObject(module_));
    Ref logger = call_method(logging.get(), state_.names.getLogger, {own_name.get()});
    bind("logger", logger.get());

    Ref min_new_page_files = integer(2);
    bind("_MIN_NEW_PAGE_FILES", min_new_page_files.get());
    Ref log_name = text("plan-log.jsonl");
    bind("_PLAN_LOG_NAME", log_name.get());
    Ref catch_all_re = compile(R"(^module-additional(-\d+)?$)");
    bind("_CATCH_ALL_RE", catch_all_re.get());
    state_.catch_all_re = catch_all_re.release();

    define(plan_from_row_spec);
    define(pin_plan_spec);
    define(demote_unrecorded_families_spec);
    define(by_importance_spec);

    Ref max_lines = integer(2000);
    bind("_PLAN_LOG_MAX_LINES", max_lines.get());
    Ref keep_lines = integer(1000);
    bind("_PLAN_LOG_KEEP_LINES", keep_lines.get());

    define(append_plan_log_spec);
    define(drift_signal_spec);

    Ref bases = tuple_of({lookup("PageRetirementMixin"), lookup("SteeringMixin")});
    Ref mixin = make_mixin_class(module_, bases.get());
    bind("PlanRecordMixin", mixin.get());

    Ref stale_sentinel = text("__stale__");
    bind("_STALE_SENTINEL", stale_sentinel.get());
    Ref section_re = compile(R"(^##[ \t]+(\S.*?)[ \t#]*$)");
    bind("_SECTION_RE", section_re.get());
    state_.section_re = section_re.release();

    define(sections_spec);
    define(section_map_spec);
  }

 private:
  PyObject* module_;
  PyObject* globals_;
  ModuleState& state_;
};

Ref interned_tuple(std::initializer_list<const char*> names) {
  std::vector<Ref> items;
  for (const char* name : names) items.push_back(interned(name));
  return tuple_of(items);
}

void init_state(PyObject* module) {
  ModuleState& st = state_of(module);
#define PLAN_RECORD_NAME_INIT(field, literal) st.names.field = interned(literal).release();
  PLAN_RECORD_NAMES(PLAN_RECORD_NAME_INIT)
#undef PLAN_RECORD_NAME_INIT
  st.function_type = make_function_type(module).release();
  // Keyword names must be interned: callees match them by identity first.
  st.row_plan_fields = interned_tuple({"page_id", "title", "level", "importance", "description", "topic",
                                       "source_files", "catch_all", "type"})
                           .release();
  st.parent_plan_fields = interned_tuple({"page_id", "title", "level", "importance", "description", "topic",
                                          "source_files", "children", "related_pages", "type"})
                              .release();
  st.level_keyword = interned_tuple({"level"}).release();
  st.skeleton_columns =
      interned_tuple({"description", "importance", "level", "parent_section", "rel_path", "source_files",
                      "source_hashes", "related_pages", "status", "page_type"})
          .release();
}

int module_exec(PyObject* module) noexcept {
  return boundary_status([&] {
    init_state(module);
    ModuleBody(module).run();
  });
}

int module_traverse(PyObject* module, visitproc visit, void* arg) noexcept {
  ModuleState& st = state_of(module);
#define PLAN_RECORD_NAME_VISIT(field, literal) Py_VISIT(st.names.field);
  PLAN_RECORD_NAMES(PLAN_RECORD_NAME_VISIT)
#undef PLAN_RECORD_NAME_VISIT
  Py_VISIT(st.function_type);
  Py_VISIT(st.row_plan_fields);
  Py_VISIT(st.parent_plan_fields);
  Py_VISIT(st.level_keyword);
  Py_VISIT(st.skeleton_columns);
  Py_VISIT(st.catch_all_re);
  Py_VISIT(st.section_re);
  return 0;
}

int module_clear(PyObject* module) noexcept {
  ModuleState& st = state_of(module);
#define PLAN_RECORD_NAME_CLEAR(field, literal) Py_CLEAR(st.names.field);
  PLAN_RECORD_NAMES(PLAN_RECORD_NAME_CLEAR)
#undef PLAN_RECORD_NAME_CLEAR
  Py_CLEAR(st.function_type);
  Py_CLEAR(st.row_plan_fields);
  Py_CLEAR(st.parent_plan_fields);
  Py_CLEAR(st.level_keyword);
  Py_CLEAR(st.skeleton_columns);
  Py_CLEAR(st.catch_all_re);
  Py_CLEAR(st.section_re);
  return 0;
}

void module_free(void* module) noexcept { module_clear(static_cast<PyObject*>(module)); }

PyModuleDef_Slot module_slots[] = {
    {Py_mod_exec, reinterpret_cast<void*>(module_exec)},
    {Py_mod_multiple_interpreters, Py_MOD_PER_INTERPRETER_GIL_SUPPORTED},
    {0, nullptr},
};

PyModuleDef module_def = {
    PyModuleDef_HEAD_INIT, "plan_record",   texts::module_doc, sizeof(ModuleState), nullptr,
    module_slots,          module_traverse, module_clear,      module_free,
};

}  // namespace

ModuleState& state_of(PyObject* module) noexcept {
  return *static_cast<ModuleState*>(PyModule_GetState(module));
}

}  // namespace plan_record

PyMODINIT_FUNC PyInit_plan_record() { return PyModuleDef_Init(&plan_record::module_def); }
