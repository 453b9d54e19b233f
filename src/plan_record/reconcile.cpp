// Plan reconciliation: stored rows and fresh plans become this build's plans.
#include <array>
#include <optional>
#include <unordered_set>

#include "records.hpp"
#include "texts.hpp"
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

// `_plan_from_row(row, live_paths)` through the module's current binding.
Ref rebuild_from_row(const Call& call, PyObject* row, PyObject* live_paths) {
  Ref fn = call.global(call.state().names.plan_from_row);
  if (Function* own = as_native(call.state(), fn.get(), plan_from_row_spec)) {
    PyObject* args[] = {row, live_paths};
    return plan_from_row(Call(own, args), row, live_paths);
  }
  return plan_record::call(fn.get(), {row, live_paths});
}

Ref amendment(const Call& call, PyObject* action, PyObject* page_id, PyObject* reason) {
  Ref amend = call.global(call.state().names.amend);
  return plan_record::call(amend.get(), {action, page_id, reason});
}

Ref amendment_with_level(const Call& call, PyObject* action, PyObject* page_id, PyObject* reason,
                         PyObject* level) {
  Ref amend = call.global(call.state().names.amend);
  return call_kw(amend.get(), {action, page_id, reason}, {level}, call.state().level_keyword);
}

// ----------------------------------------------------------------------------
// Family demotion

Ref demote_unrecorded_families(const Call& call, PyObject* fresh_plans, PyObject* existing) {
  const ModuleState& st = call.state();
  const Names& n = st.names;

  // Files that stored code pages pin (custom pages and the catch-all never do).
  Ref pinned = new_set();
  Ref pinned_levels;
  std::optional<ModulePattern> catch_all_re;
  for_each_item(n, existing, [&](PyObject* pid, PyObject* row) {
    Ref level = row_level(n, row);
    if (!pinned_levels) pinned_levels = call.global(n.PINNED_LEVELS);
    if (!contains(pinned_levels.get(), level.get())) return;
    if (starts_with(n, pid, n.custom_prefix)) return;
    if (!catch_all_re) catch_all_re.emplace(call, n.CATCH_ALL_RE, st.catch_all_re, native_catch_all_match);
    if (catch_all_re->matches(pid)) return;
    Ref files = row_get(n, row, n.source_files);
    if (truthy(files.get())) set_update(pinned.get(), files.get());
  });
  if (PySet_GET_SIZE(pinned.get()) == 0) return Ref::borrow(fresh_plans);

  Ref by_id = new_dict();
  for_each(fresh_plans, [&](PyObject* plan) {
    Ref pid = getattr(plan, n.page_id);
    dict_set(by_id.get(), pid.get(), plan);
  });

  Ref dropped = new_set();
  for_each(fresh_plans, [&](PyObject* plan) {
    Ref children = getattr(plan, n.children);
    if (!truthy(children.get())) return;
    Ref pid = getattr(plan, n.page_id);
    if (contains(existing, pid.get())) return;
    Ref level = getattr(plan, n.level);
    if (!pinned_levels) pinned_levels = call.global(n.PINNED_LEVELS);
    if (!contains(pinned_levels.get(), level.get())) return;

    Ref parts = new_list();
    for_each(children.get(), [&](PyObject* kid) {
      if (Ref part = dict_find(by_id.get(), kid)) append(parts.get(), part.get());
    });
    bool collides = false;
    for_each(parts.get(), [&](PyObject* part) {
      if (collides) return;
      Ref files = getattr(part, n.source_files);
      Ref disjoint = call_method(pinned.get(), n.isdisjoint, {files.get()});
      collides = !truthy(disjoint.get());
    });
    if (!collides) return;
    set_add(dropped.get(), pid.get());
    Ref section = getattr(plan, n.parent_section);
    for_each(parts.get(), [&](PyObject* part) { setattr(part, n.parent_section, section.get()); });
  });

  Ref kept = new_list();
  for_each(fresh_plans, [&](PyObject* plan) {
    Ref pid = getattr(plan, n.page_id);
    if (!set_has(dropped.get(), pid.get())) append(kept.get(), plan);
  });
  return kept;
}

Ref demote_entry(const Call& call) { return demote_unrecorded_families(call, call.arg(0), call.arg(1)); }

// ----------------------------------------------------------------------------
// Build order

Ref by_importance(const Call& call, PyObject* plans) {
  const Names& n = call.state().names;
  Ref pinned_levels = call.global(n.PINNED_LEVELS);
  Ref items = check(PySequence_List(plans));
  const Py_ssize_t count = PyList_GET_SIZE(items.get());

  // One key per plan, in order: (is a code page, -importance_score or 0.0).
  Ref keys = new_list(count);
  Ref zero = check(PyFloat_FromDouble(0.0));
  for (Py_ssize_t i = 0; i < count; ++i) {
    PyObject* plan = PyList_GET_ITEM(items.get(), i);
    Ref level = getattr(plan, n.level);
    const bool code = contains(pinned_levels.get(), level.get());
    Ref rank = zero;
    if (code) {
      Ref score = getattr(plan, n.importance_score);
      rank = check(PyNumber_Negative(score.get()));
    }
    PyList_SET_ITEM(keys.get(), i, check(PyTuple_Pack(2, code ? Py_True : Py_False, rank.get())).release());
  }

  // The positions, ordered by their keys with the list's own stable sort.
  Ref order = new_list(count);
  for (Py_ssize_t i = 0; i < count; ++i) PyList_SET_ITEM(order.get(), i, check(PyLong_FromSsize_t(i)).release());
  Ref key_of = getattr(keys.get(), Ref(interned("__getitem__")).get());
  Ref key_name = check(PyTuple_Pack(1, n.key));  // n.key is interned
  call_kw(Ref(getattr(order.get(), n.sort)).get(), {}, {key_of.get()}, key_name.get());

  Ref result = new_list(count);
  for (Py_ssize_t i = 0; i < count; ++i) {
    const Py_ssize_t at = PyLong_AsSsize_t(PyList_GET_ITEM(order.get(), i));
    PyList_SET_ITEM(result.get(), i, Py_NewRef(PyList_GET_ITEM(items.get(), at)));
  }
  return result;
}

Ref by_importance_entry(const Call& call) { return by_importance(call, call.arg(0)); }

// ----------------------------------------------------------------------------
// Plan pinning

class PinPlan {
 public:
  PinPlan(const Call& call, PyObject* fresh_plans, PyObject* existing, PyObject* live_paths, PyObject* replan)
      : call_(call),
        st_(call.state()),
        n_(st_.names),
        fresh_plans_(Ref::borrow(fresh_plans)),
        existing_(existing),
        live_paths_(live_paths),
        replan_(replan) {}

  Ref run() {
    amendments_ = new_list();
    Ref remap_type = call_.global(n_.ReplanRemap);
    remap_ = plan_record::call(remap_type.get(), {});
    if (!truthy(replan_)) fresh_plans_ = demote();

    find_stored_families();
    find_fresh_families();
    decide_pinnable();
    partition_fresh_plans();
    record_pass_through();

    if (truthy(replan_) || PyDict_GET_SIZE(pinned_existing_.get()) == 0) return fresh_path();
    return pinned_assembly();
  }

 private:
  bool pinned_level(PyObject* level) {
    if (!pinned_levels_) pinned_levels_ = call_.global(n_.PINNED_LEVELS);
    return contains(pinned_levels_.get(), level);
  }
  bool custom(PyObject* page_id) { return starts_with(n_, page_id, n_.custom_prefix); }
  void record(Ref amendment) { append(amendments_.get(), amendment.get()); }

  Ref demote() {
    Ref fn = call_.global(n_.demote_unrecorded_families);
    if (Function* own = as_native(st_, fn.get(), demote_unrecorded_families_spec)) {
      PyObject* args[] = {fresh_plans_.get(), existing_};
      return demote_unrecorded_families(Call(own, args), fresh_plans_.get(), existing_);
    }
    return plan_record::call(fn.get(), {fresh_plans_.get(), existing_});
  }

  // Stored families: code-unit rows whose related pages name stored pages.
  void find_stored_families() {
    stored_families_ = new_dict();
    for_each_item(n_, existing_, [&](PyObject* pid, PyObject* row) {
      Ref level = row_level(n_, row);
      if (!pinned_level(level.get()) || custom(pid)) return;
      Ref related = row_get(n_, row, n_.related_pages);
      Ref kids = new_list();
      if (truthy(related.get())) {
        for_each(related.get(), [&](PyObject* kid) {
          if (contains(existing_, kid)) append(kids.get(), kid);
        });
      }
      if (PyList_GET_SIZE(kids.get())) dict_set(stored_families_.get(), pid, kids.get());
    });
  }

  // Fresh families, and the stored children they supersede.
  void find_fresh_families() {
    family_ids_ = new_set();
    collapsed_ = new_set();
    superseded_kids_ = new_dict();
    Ref fresh_by_page = new_dict();
    for_each(fresh_plans_.get(), [&](PyObject* plan) {
      Ref pid = getattr(plan, n_.page_id);
      dict_set(fresh_by_page.get(), pid.get(), plan);
    });
    for_each(fresh_plans_.get(), [&](PyObject* plan) {
      Ref level = getattr(plan, n_.level);
      if (!pinned_level(level.get())) return;
      Ref pid = getattr(plan, n_.page_id);
      Ref children = getattr(plan, n_.children);
      if (truthy(children.get())) {
        set_add(family_ids_.get(), pid.get());
        set_update(family_ids_.get(), children.get());
        Ref fresh_kids = new_list();
        for_each(children.get(), [&](PyObject* kid) {
          if (Ref found = dict_find(fresh_by_page.get(), kid)) append(fresh_kids.get(), found.get());
        });
        Ref pair = check(PyTuple_Pack(2, n_.re_chunked, fresh_kids.get()));
        if (Ref stored = dict_find(stored_families_.get(), pid.get())) {
          for_each(stored.get(), [&](PyObject* kid) {
            if (!contains(children.get(), kid)) dict_set(superseded_kids_.get(), kid, pair.get());
          });
        }
      } else if (Ref stored = dict_find(stored_families_.get(), pid.get())) {
        set_add(collapsed_.get(), pid.get());
        for_each(stored.get(), [&](PyObject* kid) {
          Ref family = new_list(1);
          PyList_SET_ITEM(family.get(), 0, Py_NewRef(plan));
          Ref pair = check(PyTuple_Pack(2, n_.collapsed_reason, family.get()));
          dict_set(superseded_kids_.get(), kid, pair.get());
        });
      }
    });
  }

  bool pinnable(PyObject* pid, PyObject* row) {
    Ref level = row_level(n_, row);
    if (!pinned_level(level.get())) return false;
    if (Ref pair = dict_find(superseded_kids_.get(), pid)) {
      PyObject* reason = PyTuple_GET_ITEM(pair.get(), 0);
      PyObject* family = PyTuple_GET_ITEM(pair.get(), 1);
      Ref carry = call_.global(n_.carry_superseded);
      record(plan_record::call(carry.get(), {remap_.get(), pid, row, family, live_paths_, reason}));
      return false;
    }
    if (set_has(family_ids_.get(), pid)) return false;
    if (custom(pid)) return false;
    if (set_has(collapsed_.get(), pid)) return true;
    if (dict_find(stored_families_.get(), pid)) return false;
    Ref files = row_get(n_, row, n_.source_files);
    if (!truthy(files.get())) {
      record(amendment(call_, n_.retire, pid, n_.empty_parent));
      return false;
    }
    return true;
  }

  void decide_pinnable() {
    pinned_existing_ = new_dict();
    for_each_item(n_, existing_, [&](PyObject* pid, PyObject* row) {
      if (pinnable(pid, row)) dict_set(pinned_existing_.get(), pid, row);
    });
  }

  // Code-unit plans outside fresh families and steering; everything else passes through.
  void partition_fresh_plans() {
    fresh_modules_ = new_list();
    for_each(fresh_plans_.get(), [&](PyObject* plan) {
      Ref level = getattr(plan, n_.level);
      if (!pinned_level(level.get())) return;
      Ref pid = getattr(plan, n_.page_id);
      if (set_has(family_ids_.get(), pid.get())) return;
      Ref again = getattr(plan, n_.page_id);
      if (custom(again.get())) return;
      append(fresh_modules_.get(), plan);
    });
    // Membership by equality; members by identity are settled without it.
    std::unordered_set<PyObject*> members;
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(fresh_modules_.get()); ++i) {
      members.insert(PyList_GET_ITEM(fresh_modules_.get(), i));
    }
    passthrough_ = new_list();
    for_each(fresh_plans_.get(), [&](PyObject* plan) {
      if (members.count(plan)) return;
      if (!contains(fresh_modules_.get(), plan)) append(passthrough_.get(), plan);
    });
  }

  void record_pass_through() {
    fresh_ids_ = new_set();
    for_each(fresh_plans_.get(), [&](PyObject* plan) {
      Ref pid = getattr(plan, n_.page_id);
      set_add(fresh_ids_.get(), pid.get());
    });
    for_each_key(existing_, [&](PyObject* pid) {
      if (custom(pid) && !set_has(fresh_ids_.get(), pid)) {
        record(amendment(call_, n_.retire, pid, n_.removed_from_steering));
      }
    });
    for_each(passthrough_.get(), [&](PyObject* plan) {
      Ref pid = getattr(plan, n_.page_id);
      if (contains(existing_, pid.get())) return;
      Ref pid_again = getattr(plan, n_.page_id);
      Ref level = getattr(plan, n_.level);
      Ref shown = formatted(level.get());
      Ref reason = check(PyUnicode_FromFormat("new %U page", shown.get()));
      Ref level_again = getattr(plan, n_.level);
      record(amendment_with_level(call_, n_.add, pid_again.get(), reason.get(), level_again.get()));
    });
    for_each_item(n_, existing_, [&](PyObject* pid, PyObject* row) {
      Ref level = row_level(n_, row);
      if (pinned_level(level.get())) return;
      Ref note = call_.global(n_.NOTE_LEVEL);
      Ref same = check(PyObject_RichCompare(level.get(), note.get(), Py_EQ));
      if (truthy(same.get())) return;
      if (set_has(fresh_ids_.get(), pid)) return;
      Ref shown = formatted(level.get());
      Ref reason = check(PyUnicode_FromFormat("%U page no longer planned", shown.get()));
      record(amendment_with_level(call_, n_.retire, pid, reason.get(), level.get()));
    });
  }

  Ref result(Ref plans) {
    return check(PyTuple_Pack(3, plans.get(), amendments_.get(), remap_.get()));
  }

  Ref fresh_path() {
    if (truthy(replan_) && PyDict_GET_SIZE(pinned_existing_.get())) {
      Ref successors = new_list();
      for_each(fresh_plans_.get(), [&](PyObject* plan) {
        Ref level = getattr(plan, n_.level);
        if (!pinned_level(level.get())) return;
        Ref files = getattr(plan, n_.source_files);
        if (!truthy(files.get())) return;
        Ref pid = getattr(plan, n_.page_id);
        if (!custom(pid.get())) append(successors.get(), plan);
      });
      Ref inherit = call_.global(n_.inherit_prose);
      plan_record::call(inherit.get(), {remap_.get(), pinned_existing_.get(), successors.get(), live_paths_,
                                        fresh_ids_.get(), amendments_.get()});
    }
    Ref link = call_.global(n_.link_families);
    Ref keep_titles = call_.global(n_.keep_agent_titles);
    Ref titled = plan_record::call(keep_titles.get(), {fresh_plans_.get(), existing_});
    return result(plan_record::call(link.get(), {titled.get()}));
  }

  // -- pinned assembly ------------------------------------------------------

  void keep(PyObject* plan, PyObject* pid) {
    append(plans_.get(), plan);
    set_add(kept_ids_.get(), pid);
    Ref files = getattr(plan, n_.source_files);
    set_update(covered_.get(), files.get());
  }

  void keep_pinned_pages() {
    Ref fresh_by_id = new_dict();
    for_each(fresh_modules_.get(), [&](PyObject* plan) {
      Ref catch_all = getattr(plan, n_.catch_all);
      if (truthy(catch_all.get())) return;
      Ref pid = getattr(plan, n_.page_id);
      dict_set(fresh_by_id.get(), pid.get(), plan);
    });
    walk_dict(pinned_existing_.get(), [&](PyObject* pid, PyObject* row) {
      Ref stored = rebuild_from_row(call_, row, live_paths_);
      Ref catch_all = getattr(stored.get(), n_.catch_all);
      if (truthy(catch_all.get())) {
        catch_all_row_ = Ref::borrow(row);
        return;
      }
      Ref fresh_same = dict_find(fresh_by_id.get(), pid);
      Ref stored_files = getattr(stored.get(), n_.source_files);
      if (!truthy(stored_files.get()) && !fresh_same) {
        record(amendment(call_, n_.retire, pid, n_.files_gone));
        return;
      }
      keep(fresh_same ? fresh_same.get() : stored.get(), pid);
    });
  }

  void rebuild_stored_families() {
    walk_dict(stored_families_.get(), [&](PyObject* parent_id, PyObject* kids) {
      if (set_has(family_ids_.get(), parent_id) || set_has(collapsed_.get(), parent_id)) return;
      Ref row = getitem(existing_, parent_id);
      Ref surviving = new_list();
      for_each(kids, [&](PyObject* kid) {
        if (set_has(kept_ids_.get(), kid)) append(surviving.get(), kid);
      });
      if (PyList_GET_SIZE(surviving.get()) == 0) {
        record(amendment(call_, n_.retire, parent_id, n_.children_retired));
        return;
      }
      Ref title = or_else(row_get(n_, row.get(), n_.title), parent_id);
      Ref page_plan = call_.global(n_.PagePlan);
      Ref level = or_else(row_get(n_, row.get(), n_.level), n_.module);
      Ref importance = or_else(row_get(n_, row.get(), n_.importance), n_.medium);
      Ref description = row_get(n_, row.get(), n_.description);
      if (!truthy(description.get())) {
        Ref shown = formatted(title.get());
        description = check(PyUnicode_FromFormat("The %U page.", shown.get()));
      }
      Ref topic_of = call_.global(n_.unit_topic);
      Ref files = new_list();
      for_each(surviving.get(), [&](PyObject* kid) {
        Ref kid_row = getitem(existing_, kid);
        Ref kid_files = row_get(n_, kid_row.get(), n_.source_files);
        if (truthy(kid_files.get())) {
          for_each(kid_files.get(), [&](PyObject* path) { append(files.get(), path); });
        }
      });
      Ref topic = plan_record::call(topic_of.get(), {title.get(), files.get()});
      Ref no_files = new_list();
      Ref type = or_else(row_get(n_, row.get(), n_.page_type), n_.empty);
      Ref parent = call_kw(page_plan.get(), {},
                           {parent_id, title.get(), level.get(), importance.get(), description.get(), topic.get(),
                            no_files.get(), surviving.get(), surviving.get(), type.get()},
                           st_.parent_plan_fields);
      append(plans_.get(), parent.get());
      set_add(kept_ids_.get(), parent_id);
    });
  }

  void absorb_new_paths() {
    // The first plan of each id, to extend in place.
    Ref first_kept = new_dict();
    for_each(plans_.get(), [&](PyObject* plan) {
      Ref pid = getattr(plan, n_.page_id);
      check(PyDict_SetDefault(first_kept.get(), pid.get(), plan) ? 0 : -1);
    });
    for_each(fresh_modules_.get(), [&](PyObject* plan) {
      Ref own_new = new_list();
      Ref files = getattr(plan, n_.source_files);
      for_each(files.get(), [&](PyObject* path) {
        if (set_has(new_paths_.get(), path)) append(own_new.get(), path);
      });
      check(PyList_Sort(own_new.get()));
      const Py_ssize_t count = PyList_GET_SIZE(own_new.get());
      if (count == 0) return;
      Ref minimum = call_.global(n_.MIN_NEW_PAGE_FILES);
      Ref count_obj = check(PyLong_FromSsize_t(count));
      bool own_page = check(PyObject_RichCompareBool(count_obj.get(), minimum.get(), Py_GE)) != 0;
      if (own_page) {
        Ref catch_all = getattr(plan, n_.catch_all);
        own_page = !truthy(catch_all.get());
      }
      if (own_page) {
        Ref pid = getattr(plan, n_.page_id);
        if (set_has(kept_ids_.get(), pid.get())) {
          Ref pid_again = getattr(plan, n_.page_id);
          if (Ref target = dict_find(first_kept.get(), pid_again.get())) {
            Ref target_files = getattr(target.get(), n_.source_files);
            Ref merged = new_set();
            set_update(merged.get(), target_files.get());
            set_update(merged.get(), own_new.get());
            Ref sorted = sorted_list(merged.get());
            setattr(target.get(), n_.source_files, sorted.get());
          }
          Ref reason = check(PyUnicode_FromFormat("%zd new source file(s) absorbed", count));
          Ref pid_for_record = getattr(plan, n_.page_id);
          record(amendment(call_, n_.extend, pid_for_record.get(), reason.get()));
        } else {
          setattr(plan, n_.source_files, own_new.get());
          append(plans_.get(), plan);
          Ref pid_again = getattr(plan, n_.page_id);
          check(PyDict_SetDefault(first_kept.get(), pid_again.get(), plan) ? 0 : -1);
          Ref pid_kept = getattr(plan, n_.page_id);
          set_add(kept_ids_.get(), pid_kept.get());
          Ref reason = check(PyUnicode_FromFormat("new subsystem (%zd files)", count));
          Ref pid_for_record = getattr(plan, n_.page_id);
          record(amendment(call_, n_.add, pid_for_record.get(), reason.get()));
        }
      } else {
        set_update(catch_all_files_.get(), own_new.get());
      }
      for_each(own_new.get(), [&](PyObject* path) { check(PySet_Discard(new_paths_.get(), path)); });
    });
    set_update(catch_all_files_.get(), new_paths_.get());
  }

  // The base name of a path: after its last "/".
  Ref base_name(PyObject* path) {
    if (PyUnicode_CheckExact(path)) {
      const Py_ssize_t n = PyUnicode_GET_LENGTH(path);
      const Py_ssize_t slash = check_size(PyUnicode_FindChar(path, '/', 0, n, -1) + 1) - 1;
      if (slash < 0) return Ref::borrow(path);
      return check(PyUnicode_Substring(path, slash + 1, n));
    }
    Ref one = integer(1);
    Ref parts = call_method(path, n_.rsplit, {n_.slash, one.get()});
    Ref last = integer(-1);
    return getitem(parts.get(), last.get());
  }

  void make_catch_all_page() {
    if (PySet_GET_SIZE(catch_all_files_.get()) == 0) {
      if (catch_all_row_) {
        Ref pid = row_item(catch_all_row_.get(), n_.page_id);
        record(amendment(call_, n_.retire, pid.get(), n_.catch_all_empty));
      }
      return;
    }
    Ref merged = sorted_list(catch_all_files_.get());
    const Py_ssize_t count = PyList_GET_SIZE(merged.get());
    Ref samples_list = new_list();
    for (Py_ssize_t i = 0; i < count && i < 12; ++i) {
      Ref path = Ref::borrow(PyList_GET_ITEM(merged.get(), i));
      Ref name = base_name(path.get());
      append(samples_list.get(), name.get());
    }
    Ref samples = check(PyUnicode_Join(n_.blank, samples_list.get()));
    Ref base = catch_all_row_ ? catch_all_row_ : new_dict();
    Ref page_plan = call_.global(n_.PagePlan);
    Ref pid = row_get(n_, base.get(), n_.page_id, n_.catch_all_id);
    Ref title = or_else(row_get(n_, base.get(), n_.title), n_.other_code);
    Ref description = check(PyUnicode_FromFormat("Remaining modules and files (%zd files).", count));
    Ref topic = check(PyUnicode_FromFormat("additional modules utilities helpers %U", samples.get()));
    Ref type = call_.global(n_.OTHER_CODE_TYPE);
    Ref page = call_kw(page_plan.get(), {},
                       {pid.get(), title.get(), n_.module, n_.low, description.get(), topic.get(), merged.get(),
                        Py_True, type.get()},
                       st_.row_plan_fields);
    append(plans_.get(), page.get());
  }

  Ref pinned_assembly() {
    plans_ = check(PySequence_List(passthrough_.get()));
    covered_ = new_set();
    for_each(passthrough_.get(), [&](PyObject* plan) {
      Ref files = getattr(plan, n_.source_files);
      set_update(covered_.get(), files.get());
    });
    kept_ids_ = new_set();
    keep_pinned_pages();
    rebuild_stored_families();

    catch_all_files_ = new_set();
    if (catch_all_row_) {
      Ref files = row_get(n_, catch_all_row_.get(), n_.source_files);
      if (truthy(files.get())) {
        for_each(files.get(), [&](PyObject* path) {
          if (contains(live_paths_, path)) set_add(catch_all_files_.get(), path);
        });
      }
      set_update(covered_.get(), catch_all_files_.get());
    }
    new_paths_ = new_set();
    for_each(live_paths_, [&](PyObject* path) {
      if (!set_has(covered_.get(), path)) set_add(new_paths_.get(), path);
    });

    if (PySet_GET_SIZE(new_paths_.get())) absorb_new_paths();
    make_catch_all_page();

    Ref keep_titles = call_.global(n_.keep_agent_titles);
    Ref order = call_.global(n_.by_importance);
    Ref ordered;
    if (Function* own = as_native(st_, order.get(), by_importance_spec)) {
      PyObject* args[] = {plans_.get()};
      ordered = by_importance(Call(own, args), plans_.get());
    } else {
      ordered = plan_record::call(order.get(), {plans_.get()});
    }
    Ref titled = plan_record::call(keep_titles.get(), {ordered.get(), existing_});
    Ref link = call_.global(n_.link_families);
    return result(plan_record::call(link.get(), {titled.get()}));
  }

  const Call& call_;
  const ModuleState& st_;
  const Names& n_;
  Ref fresh_plans_;
  PyObject* existing_;
  PyObject* live_paths_;
  PyObject* replan_;
  Ref pinned_levels_;

  Ref amendments_, remap_;
  Ref stored_families_, family_ids_, collapsed_, superseded_kids_;
  Ref pinned_existing_, fresh_modules_, passthrough_, fresh_ids_;
  Ref plans_, covered_, kept_ids_, catch_all_row_, catch_all_files_, new_paths_;
};

Ref pin_plan_entry(const Call& call) {
  return PinPlan(call, call.arg(0), call.arg(1), call.arg(2), call.arg(3)).run();
}

}  // namespace

const FunctionSpec plan_from_row_spec{texts::plan_from_row, plan_from_row_entry};
const FunctionSpec pin_plan_spec{texts::pin_plan, pin_plan_entry};
const FunctionSpec demote_unrecorded_families_spec{texts::demote_unrecorded_families, demote_entry};
const FunctionSpec by_importance_spec{texts::by_importance, by_importance_entry};

}  // namespace plan_record
