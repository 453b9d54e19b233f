// Store side of the plan of record: the class `PlanRecordMixin`, made the way
// a class statement makes it, from the bases the host gives.
#include <string>
#include <vector>

#include "records.hpp"
#include "texts.hpp"
#include "units.hpp"

namespace plan_record {

namespace {

// -- skeleton rows -----------------------------------------------------------

Ref persist_plan_skeleton(const Call& call) {
  PyObject* self = call.arg(0);
  PyObject* plans = call.arg(1);
  const ModuleState& st = call.state();
  const Names& n = st.names;

  long persisted = 0;
  Ref repository = getattr(self, n.repository);
  Ref db = getattr(repository.get(), n.db);
  Ref transaction = call_method(db.get(), n.transaction, {});
  with_context(n, transaction.get(), [&](PyObject*) {
    for_each(plans, [&](PyObject* p) {
      Ref level = getattr(p, n.level);
      Ref pinned_levels = call.global(n.PINNED_LEVELS);
      if (!contains(pinned_levels.get(), level.get())) return;
      Ref pid = getattr(p, n.page_id);
      if (starts_with(n, pid.get(), n.custom_prefix)) return;
      Ref files = getattr(p, n.source_files);
      if (!truthy(files.get())) {
        Ref children = getattr(p, n.children);
        if (!truthy(children.get())) return;
      }
      Ref stored_pid = getattr(p, n.page_id);
      Ref existing = getattr(self, n.existing_attr);
      if (contains(existing.get(), stored_pid.get())) return;

      Ref repo = getattr(self, n.repository);
      Ref upsert = getattr(repo.get(), n.upsert_wiki_page);
      Ref branch = getattr(self, n.branch);
      Ref page_id = getattr(p, n.page_id);
      Ref title = getattr(p, n.title);
      Ref description = or_else(getattr(p, n.description), n.empty);
      Ref importance = or_else(getattr(p, n.importance), n.medium);
      Ref row_level = getattr(p, n.level);
      Ref section_of = call.global(n.section_of);
      Ref section = plan_record::call(section_of.get(), {p});
      Ref id_text = formatted(Ref(getattr(p, n.page_id)).get());
      Ref rel_path = check(PyUnicode_FromFormat("pages/%U.md", id_text.get()));
      Ref source_files = call_method(p, n.stored_source_files, {});
      Ref stale_mark = new_dict();
      Ref sentinel = call.global(n.STALE_SENTINEL);
      dict_set(stale_mark.get(), sentinel.get(), n.pending);
      Ref related = getattr(p, n.children);
      if (!truthy(related.get())) related = getattr(p, n.related_pages);
      Ref type = getattr(p, n.type);
      call_kw(upsert.get(), {branch.get(), page_id.get(), title.get()},
              {description.get(), importance.get(), row_level.get(), section.get(), rel_path.get(),
               source_files.get(), stale_mark.get(), related.get(), n.stale, type.get()},
              st.skeleton_columns);
      ++persisted;
    });
  });
  return check(PyLong_FromLong(persisted));
}

// -- stale selection and marking ----------------------------------------------

Ref select_stale(const Call& call) {
  PyObject* self = call.arg(0);
  PyObject* plans = call.arg(1);
  PyObject* existing = call.arg(2);
  const Names& n = call.state().names;

  Ref stale = new_set();
  if (truthy(call.arg(3)) || !truthy(existing)) {
    for_each(plans, [&](PyObject* plan) {
      Ref pid = getattr(plan, n.page_id);
      set_add(stale.get(), pid.get());
    });
    return stale;
  }
  for_each(plans, [&](PyObject* plan) {
    Ref pid = getattr(plan, n.page_id);
    Ref prev = row_get(n, existing, pid.get());
    if (prev.is(Py_None)) {
      Ref again = getattr(plan, n.page_id);
      set_add(stale.get(), again.get());
      return;
    }
    Ref files = getattr(plan, n.source_files);
    if (!truthy(files.get())) {
      Ref none_recorded = new_list();
      files = row_get(n, prev.get(), n.source_files, none_recorded.get());
    }
    Ref current = call_method(self, n.hashes_with_steering, {files.get()});
    Ref nothing_stored = new_dict();
    Ref stored = row_get(n, prev.get(), n.source_hashes, nothing_stored.get());
    Ref differs = check(PyObject_RichCompare(current.get(), stored.get(), Py_NE));
    if (truthy(differs.get())) {
      Ref again = getattr(plan, n.page_id);
      set_add(stale.get(), again.get());
    }
  });
  return stale;
}

Ref mark_synthesis_stale(const Call& call) {
  PyObject* self = call.arg(0);
  const Names& n = call.state().names;

  Ref distinct = check(PySet_New(call.arg(1)));
  Ref ids = sorted_list(distinct.get());
  const Py_ssize_t count = PyList_GET_SIZE(ids.get());
  if (count == 0) return none();

  std::string placeholders;
  placeholders.reserve(static_cast<std::size_t>(count) * 2);
  for (Py_ssize_t i = 0; i < count; ++i) placeholders += i ? ",?" : "?";

  Ref repository = getattr(self, n.repository);
  Ref db = getattr(repository.get(), n.db);
  Ref execute = getattr(db.get(), n.execute);
  Ref sql = check(PyUnicode_FromFormat(
      "UPDATE wiki_pages SET source_hashes = ? WHERE branch = ? AND page_id IN (%s)", placeholders.c_str()));
  Ref json = call.global(n.json);
  Ref dumps = getattr(json.get(), n.dumps);
  Ref stale_mark = new_dict();
  Ref sentinel = call.global(n.STALE_SENTINEL);
  dict_set(stale_mark.get(), sentinel.get(), n.pending);
  Ref mark_text = plan_record::call(dumps.get(), {stale_mark.get()});
  Ref branch = getattr(self, n.branch);

  // (mark_text, branch, *ids): the ids as the list holds them now, since the
  // code run above may have reached the list and changed it.
  std::vector<Ref> params{std::move(mark_text), std::move(branch)};
  for (Py_ssize_t i = 0; i < PyList_GET_SIZE(ids.get()); ++i) {
    params.push_back(Ref::borrow(PyList_GET_ITEM(ids.get(), i)));
  }
  Ref bound = tuple_of(params);
  plan_record::call(execute.get(), {sql.get(), bound.get()});
  return none();
}

// -- section cache and change report ------------------------------------------

Ref section_cache(const Call& call) {
  PyObject* self = call.arg(0);
  PyObject* body = call.arg(1);
  PyObject* citations = call.arg(2);
  const Names& n = call.state().names;

  Ref cited = new_set();
  for_each(citations, [&](PyObject* citation) {
    Ref path = row_get(n, citation, n.path);
    if (!truthy(path.get())) return;
    Ref again = row_item(citation, n.path);
    Ref path_text = check(PyObject_Str(again.get()));
    set_add(cited.get(), path_text.get());
  });
  Ref paths = sorted_list(cited.get());
  Ref file_hashes = call_method(self, n.source_hashes_method, {paths.get()});
  Ref section_map = call.global(n.section_map);
  Ref sections = plan_record::call(section_map.get(), {body, citations, file_hashes.get()});
  Ref cache = new_dict();
  dict_set(cache.get(), n.sections_key, sections.get());
  dict_set(cache.get(), n.file_hashes, file_hashes.get());
  return cache;
}

// `merged.update(value)` as `{**value}` does it: a mapping or a type error.
void merge_mapping(PyObject* merged, PyObject* value) {
  if (PyDict_Update(merged, value) == 0) return;
  if (PyErr_ExceptionMatches(PyExc_AttributeError)) {
    PyErr_Clear();
    raise_format(PyExc_TypeError, "'%.200s' object is not a mapping", Py_TYPE(value)->tp_name);
  }
  raise();
}

Ref page_changes(const Call& call) {
  PyObject* self = call.arg(0);
  PyObject* plan = call.arg(1);
  PyObject* row = call.arg(2);
  const Names& n = call.state().names;

  if (!truthy(row)) return new_dict();
  Ref content_hash = row_get(n, row, n.content_hash);
  if (!truthy(content_hash.get())) return new_dict();
  Ref cache = row_get(n, row, n.build_cache);
  if (!truthy(cache.get())) cache = new_dict();

  Ref recorded = new_dict();
  Ref hashes = row_get(n, row, n.source_hashes);
  if (!truthy(hashes.get())) hashes = new_dict();
  merge_mapping(recorded.get(), hashes.get());
  Ref cached = row_get(n, cache.get(), n.file_hashes);
  if (!truthy(cached.get())) cached = new_dict();
  merge_mapping(recorded.get(), cached.get());

  // What was recorded, less the steering digest and the stale mark; both names
  // are looked up for each entry, as `path not in (STEERING_SENTINEL, _STALE_SENTINEL)` does.
  Ref stored = new_dict();
  walk_dict(recorded.get(), [&](PyObject* path, PyObject* digest) {
    Ref steering = call.global(n.STEERING_SENTINEL);
    Ref stale = call.global(n.STALE_SENTINEL);
    if (check(PyObject_RichCompareBool(steering.get(), path, Py_EQ))) return;
    if (check(PyObject_RichCompareBool(stale.get(), path, Py_EQ))) return;
    dict_set(stored.get(), path, digest);
  });

  Ref normalised = new_set();
  Ref plan_files = getattr(plan, n.source_files);
  for_each(plan_files.get(), [&](PyObject* path) {
    Ref norm = call.global(n.norm);
    Ref normal = plan_record::call(norm.get(), {path});
    set_add(normalised.get(), normal.get());
  });
  Ref stored_paths = check(PySet_New(stored.get()));
  Ref planned = check(PyNumber_Or(normalised.get(), stored_paths.get()));
  Ref planned_sorted = sorted_list(planned.get());
  Ref current = call_method(self, n.source_hashes_method, {planned_sorted.get()});

  Ref changed_files = call.global(n.changed_files);
  Ref changes = plan_record::call(changed_files.get(), {stored.get(), current.get(), planned.get()});
  Ref removed = getitem(changes.get(), n.removed);
  Ref removed_set = check(PySet_New(removed.get()));
  Ref modified = getitem(changes.get(), n.modified);
  Ref modified_set = check(PySet_New(modified.get()));
  Ref touched = check(PyNumber_Or(removed_set.get(), modified_set.get()));

  Ref stale_sections = call.global(n.stale_sections);
  Ref sections = row_get(n, cache.get(), n.sections_key);
  if (!truthy(sections.get())) sections = new_list();
  Ref stale = plan_record::call(stale_sections.get(), {sections.get(), touched.get()});

  Ref report = new_dict();
  dict_set(report.get(), n.changed_files_key, changes.get());
  dict_set(report.get(), n.stale_sections_key, stale.get());
  return report;
}

const FunctionSpec method_specs[] = {
    {texts::mixin_persist_plan_skeleton, persist_plan_skeleton},
    {texts::mixin_select_stale, select_stale},
    {texts::mixin_mark_synthesis_stale, mark_synthesis_stale},
    {texts::mixin_section_cache, section_cache},
    {texts::mixin_page_changes, page_changes},
};

// The class body, statement by statement, run in the namespace that the
// metaclass's `__prepare__` made.
void run_mixin_body(PyObject* module, PyObject* ns) {
  const Names& n = state_of(module).names;
  Ref module_name = check(PyModule_GetNameObject(module));
  setitem(ns, n.dunder_module, module_name.get());
  Ref qualname = interned("PlanRecordMixin");
  setitem(ns, n.dunder_qualname, qualname.get());
  if (!contains(ns, n.dunder_annotations)) {
    Ref annotations = new_dict();
    setitem(ns, n.dunder_annotations, annotations.get());
  }
  Ref doc = text(texts::mixin_doc);
  setitem(ns, n.dunder_doc, doc.get());
  for (const auto& [attribute, declared] : texts::mixin_declarations) {
    Ref key = interned(attribute);
    Ref value = text(declared);
    Ref target = getitem(ns, n.dunder_annotations);
    setitem(target.get(), key.get(), value.get());
  }
  for (const FunctionSpec& spec : method_specs) {
    Ref method = make_function(module, spec);
    Ref method_name = interned(spec.name);
    setitem(ns, method_name.get(), method.get());
  }
}

PyObject* mixin_body(PyObject* module, PyObject* ns) noexcept {
  return boundary([&] {
    run_mixin_body(module, ns);
    return none();
  });
}

PyMethodDef mixin_body_def = {"PlanRecordMixin", mixin_body, METH_O, nullptr};

}  // namespace

// `types.new_class("PlanRecordMixin", bases, None, body)`: the interpreter's
// own class creation picks the metaclass, calls its `__prepare__`, runs the
// body and makes the class.
Ref make_mixin_class(PyObject* module, PyObject* bases) {
  const Names& n = state_of(module).names;
  Ref types = check(PyImport_Import(n.types));
  Ref new_class = getattr(types.get(), n.new_class);
  Ref name = interned("PlanRecordMixin");
  Ref body = check(PyCFunction_New(&mixin_body_def, module));
  return call(new_class.get(), {name.get(), bases, Py_None, body.get()});
}

}  // namespace plan_record
