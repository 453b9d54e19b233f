// Module frame: the module definition, its state, and the module body that
// initialisation runs once per module object.
#include <array>
#include <vector>

#include "records.hpp"
#include "units.hpp"

namespace plan_record {

namespace {

constexpr const char* module_doc =
    "Plan of record: reconcile fresh structural plans against the stored pages.\n"
    "\n"
    "Stored code-unit pages keep their page ids across builds; new source paths\n"
    "that no kept page covers become \"add\" amendments (new pages, or files absorbed\n"
    "by a kept page, or the catch-all page); pages whose source files all vanished\n"
    "become \"retire\" amendments.  A changed decomposition of a family is the one\n"
    "exception: the fresh split wins and the superseded children retire, their\n"
    "prose carried into the fresh family.  A replan maps old pages to new ids by\n"
    "source-file overlap and carries their prose.  Every structural change is\n"
    "returned as an amendment record.\n";

struct ImportRow {
  const char* module;
  std::array<const char*, 4> names;  // empty: bind the module itself
};

// The module's imports, in order.
constexpr ImportRow imports[] = {
    {"__future__", {"annotations"}},
    {"json", {}},
    {"logging", {}},
    {"re", {}},
    {"collections.abc", {"Iterable", "Sequence"}},
    {"datetime", {"datetime"}},
    {"pathlib", {"Path"}},
    {"typing", {"Any"}},
    {"malde_ostrel.workers.wiki.page_retirement", {"PageRetirementMixin"}},
    {"malde_ostrel.workers.wiki.page_sources", {"unit_topic"}},
    {"malde_ostrel.workers.wiki.page_title", {"keep_agent_titles"}},
    {"malde_ostrel.workers.wiki.replan_carry", {"ReplanRemap", "amend", "carry_superseded", "inherit_prose"}},
    {"malde_ostrel.workers.wiki.repo_facts", {"_norm", "_text_hash"}},
    {"malde_ostrel.workers.wiki.sections", {"changed_files", "stale_sections"}},
    {"malde_ostrel.workers.wiki.steering", {"STEERING_SENTINEL", "SteeringMixin"}},
    {"malde_ostrel.workers.wiki.types", {"PagePlan", "citation_key", "link_families", "section_of"}},
    {"malde_ostrel.workers.wiki.verify", {"prose_citations"}},
    {"malde_ostrel.workers.wiki_types", {"NOTE_LEVEL", "OTHER_CODE_TYPE", "PINNED_LEVELS"}},
};

class ModuleBody {
 public:
  explicit ModuleBody(PyObject* module)
      : module_(module), globals_(PyModule_GetDict(module)), state_(state_of(module)) {}

  void bind(const char* name, PyObject* value) { check(PyDict_SetItemString(globals_, name, value)); }

  Ref lookup(const char* name) {
    PyObject* found = PyDict_GetItemString(globals_, name);
    if (!found) raise_format(PyExc_NameError, "name '%s' is not defined", name);
    return Ref::borrow(found);
  }

  // `import a.b` binds `a`; `from a.b import x, y` binds `x` and `y`.
  void run_import(const ImportRow& row) {
    Ref name = text(row.module);
    Ref fromlist;
    if (row.names[0]) {
      fromlist = new_list();
      for (const char* n : row.names) {
        if (!n) break;
        Ref item = interned(n);
        append(fromlist.get(), item.get());
      }
    }
    Ref mod = check(PyImport_ImportModuleLevelObject(name.get(), globals_, globals_, fromlist.get(), 0));
    if (!row.names[0]) {
      bind(row.module, mod.get());
      return;
    }
    for (const char* n : row.names) {
      if (!n) break;
      Ref value = import_from(mod.get(), row.module, n);
      bind(n, value.get());
    }
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
    for (const ImportRow& row : imports) run_import(row);

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

    Ref mixin = make_mixin_class(module_);
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
  // One name of a `from module import name`: the attribute, or a submodule
  // of that name, else ImportError as the import statement words it.
  Ref import_from(PyObject* mod, const char* module_name, const char* name) {
    Ref attr = Ref::steal_maybe(PyObject_GetAttrString(mod, name));
    if (attr) return attr;
    if (!PyErr_ExceptionMatches(PyExc_AttributeError)) raise();
    PyErr_Clear();
    Ref full = check(PyUnicode_FromFormat("%s.%s", module_name, name));
    PyObject* submodule = PyDict_GetItemWithError(PyImport_GetModuleDict(), full.get());
    if (submodule) return Ref::borrow(submodule);
    if (PyErr_Occurred()) raise();
    Ref file = Ref::steal_maybe(PyModule_GetFilenameObject(mod));
    if (!file) {
      PyErr_Clear();
      file = text("unknown location");
    }
    Ref message = check(PyUnicode_FromFormat("cannot import name '%s' from '%s' (%U)", name, module_name,
                                             file.get()));
    Ref module_text = text(module_name);
    PyErr_SetImportError(message.get(), module_text.get(), file.get());
    raise();
  }

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
  st.skeleton_columns = interned_tuple({"description", "importance", "level", "parent_section", "rel_path",
                                        "source_files", "source_hashes", "related_pages", "status", "page_type"})
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
    PyModuleDef_HEAD_INIT,
    "plan_record",
    module_doc,
    sizeof(ModuleState),
    nullptr,
    module_slots,
    module_traverse,
    module_clear,
    module_free,
};

}  // namespace

ModuleState& state_of(PyObject* module) noexcept {
  return *static_cast<ModuleState*>(PyModule_GetState(module));
}

}  // namespace plan_record

PyMODINIT_FUNC PyInit_plan_record() { return PyModuleDef_Init(&plan_record::module_def); }
