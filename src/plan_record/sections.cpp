// Section analysis: a page body cut into its `##` sections outside code
// fences, and what the stored citations of each section cite.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "records.hpp"
#include "texts.hpp"
#include "units.hpp"

namespace plan_record {

namespace {

// A text's characters, read through its storage kind.
struct Chars {
  int kind;
  const void* data;
  Py_UCS4 at(Py_ssize_t i) const noexcept { return PyUnicode_READ(kind, data, i); }
};

Chars chars_of(PyObject* text) noexcept {
  return {static_cast<int>(PyUnicode_KIND(text)), PyUnicode_DATA(text)};
}

// The end of the line that starts at `from`: the next line feed, or `end`;
// `text.find("\n", start, end)`, through memchr for a one-byte text.
Py_ssize_t line_end(const Chars& s, Py_ssize_t from, Py_ssize_t end) noexcept {
  if (s.kind == PyUnicode_1BYTE_KIND) {
    const auto* base = static_cast<const Py_UCS1*>(s.data);
    const void* hit = std::memchr(base + from, '\n', static_cast<std::size_t>(end - from));
    return hit ? static_cast<const Py_UCS1*>(hit) - base : end;
  }
  while (from < end && s.at(from) != '\n') ++from;
  return from;
}

// Whether the line [begin, end) opens or closes a code fence: after its
// leading white space (as `str.lstrip` strips it) come three backticks or
// three tildes. `line.lstrip().startswith(("```", "~~~"))`
bool fence_line(const Chars& s, Py_ssize_t begin, Py_ssize_t end) noexcept {
  while (begin < end && Py_UNICODE_ISSPACE(s.at(begin))) ++begin;
  if (end - begin < 3) return false;
  const Py_UCS4 mark = s.at(begin);
  return (mark == '`' || mark == '~') && s.at(begin + 1) == mark && s.at(begin + 2) == mark;
}

bool blank_or_tab(Py_UCS4 c) noexcept { return c == ' ' || c == '\t'; }

// `_SECTION_RE.match(subject)` for the pattern compiled at initialisation,
// `^##[ \t]+(\S.*?)[ \t#]*$`, on the subject [begin, end): on a match, the
// bounds of group 1. `$` holds at the end or just before a line feed that
// ends the subject, and neither `.` nor `[ \t#]` crosses a line feed, so the
// heading text is what lies between the blanks after "##" and that point,
// less a trailing run of spaces, tabs and number signs, but never less than
// its first (non-space) character.
bool heading_match(const Chars& s, Py_ssize_t begin, Py_ssize_t end, Py_ssize_t* text_begin,
                   Py_ssize_t* text_end) noexcept {
  if (end - begin < 3 || s.at(begin) != '#' || s.at(begin + 1) != '#' || !blank_or_tab(s.at(begin + 2))) {
    return false;
  }
  Py_ssize_t i = begin + 3;
  while (i < end && blank_or_tab(s.at(i))) ++i;
  if (i == end || Py_UNICODE_ISSPACE(s.at(i))) return false;
  const Py_ssize_t first = i;
  const Py_ssize_t stop = line_end(s, first, end);
  if (stop != end && stop != end - 1) return false;
  Py_ssize_t last = stop;
  while (last > first + 1) {
    const Py_UCS4 c = s.at(last - 1);
    if (!blank_or_tab(c) && c != '#') break;
    --last;
  }
  *text_begin = first;
  *text_end = last;
  return true;
}

// The heading test of one line: the native matcher while the module still
// holds the pattern compiled at initialisation, else the pattern's `match`
// and `group(1)`.
class HeadingTest {
 public:
  explicit HeadingTest(const Call& call) : call_(call), st_(call.state()) {}

  // The line [begin, end) of an exact text body; the line is made into an
  // object only when a replaced pattern has to see it. Matching through
  // Python may rebind the name, so it is read per line until it holds the
  // original pattern; from then on no Python code runs that could rebind it.
  Ref in_text(PyObject* body, Py_ssize_t begin, Py_ssize_t end) {
    if (!original_) {
      Ref pattern = call_.global(st_.names.SECTION_RE);
      if (!pattern.is(st_.section_re)) {
        Ref line = check(PyUnicode_Substring(body, begin, end));
        return through(pattern.get(), line.get());
      }
      original_ = true;
    }
    return native(body, begin, end);
  }

  // A line of any kind, the name read for each line.
  Ref in_line(PyObject* line) {
    Ref pattern = call_.global(st_.names.SECTION_RE);
    if (pattern.is(st_.section_re) && PyUnicode_CheckExact(line)) {
      return native(line, 0, PyUnicode_GET_LENGTH(line));
    }
    return through(pattern.get(), line);
  }

 private:
  // The heading text, or an empty Ref when the line is no heading.
  // Fast path: `m = _SECTION_RE.match(line); m and m.group(1)` for the
  // original pattern, without the pattern engine.
  static Ref native(PyObject* text, Py_ssize_t begin, Py_ssize_t end) {
    Py_ssize_t text_begin = 0;
    Py_ssize_t text_end = 0;
    if (!heading_match(chars_of(text), begin, end, &text_begin, &text_end)) return Ref();
    return check(PyUnicode_Substring(text, text_begin, text_end));
  }

  Ref through(PyObject* pattern, PyObject* line) const {
    Ref found = call_method(pattern, st_.names.match, {line});
    if (!truthy(found.get())) return Ref();
    Ref group = integer(1);
    return call_method(found.get(), st_.names.group, {group.get()});
  }

  const Call& call_;
  const ModuleState& st_;
  bool original_ = false;
};

// Fast path: `_sections(body)` of an exact text body. Its sections are runs
// of whole lines, so each section's text is one slice of the body
// (`"\n".join(lines)` of those lines) and no line is ever made into an
// object unless a replaced pattern has to see it.
Ref sections_of_text(const Call& call, PyObject* body) {
  struct Section {
    Ref heading;
    Py_ssize_t begin = -1;  // -1: no lines yet
    Py_ssize_t end = 0;
  };
  const Names& n = call.state().names;
  std::vector<Section> sections(1);
  sections[0].heading = Ref::borrow(n.empty);
  HeadingTest heading_of(call);
  bool in_fence = false;

  const Py_ssize_t size = PyUnicode_GET_LENGTH(body);
  Py_ssize_t begin = 0;
  while (true) {
    const Chars s = chars_of(body);
    const Py_ssize_t end = line_end(s, begin, size);
    if (fence_line(s, begin, end)) in_fence = !in_fence;
    if (!in_fence) {
      if (Ref heading = heading_of.in_text(body, begin, end)) sections.push_back({std::move(heading), -1, 0});
    }
    Section& last = sections.back();
    if (last.begin < 0) last.begin = begin;
    last.end = end;
    if (end == size) break;
    begin = end + 1;
  }

  std::vector<Ref> pairs;
  pairs.reserve(sections.size());
  for (const Section& section : sections) {
    Ref text = section.begin < 0 ? Ref::borrow(n.empty)
                                 : check(PyUnicode_Substring(body, section.begin, section.end));
    pairs.push_back(tuple_of({section.heading, std::move(text)}));
  }
  return list_of(pairs);
}

// Any other body: whatever its `split("\n")` gives, line by line. The
// sections are held natively, out of reach of the Python code that a line's
// own methods or a replaced pattern may run.
Ref sections_of_lines(const Call& call, PyObject* body) {
  struct Section {
    Ref heading;
    Ref lines;  // list of the section's lines
  };
  const Names& n = call.state().names;
  Ref lines = call_method(body, n.split, {n.line_feed});
  Ref fences = tuple_of({Ref::borrow(n.fence_backticks), Ref::borrow(n.fence_tildes)});
  std::vector<Section> sections;
  sections.push_back({Ref::borrow(n.empty), new_list()});
  HeadingTest heading_of(call);
  bool in_fence = false;

  for_each(lines.get(), [&](PyObject* line) {
    bool fence;
    if (PyUnicode_CheckExact(line)) {
      fence = fence_line(chars_of(line), 0, PyUnicode_GET_LENGTH(line));
    } else {
      Ref stripped = call_method(line, n.lstrip, {});
      Ref starts = call_method(stripped.get(), n.startswith, {fences.get()});
      fence = truthy(starts.get());
    }
    if (fence) in_fence = !in_fence;
    if (!in_fence) {
      if (Ref heading = heading_of.in_line(line)) sections.push_back({std::move(heading), new_list()});
    }
    append(sections.back().lines.get(), line);
  });

  std::vector<Ref> pairs;
  pairs.reserve(sections.size());
  for (const Section& section : sections) {
    Ref text = check(PyUnicode_Join(n.line_feed, section.lines.get()));
    pairs.push_back(tuple_of({section.heading, std::move(text)}));
  }
  return list_of(pairs);
}

// `_sections(body)`
Ref sections_of(const Call& call, PyObject* body) {
  return PyUnicode_CheckExact(body) ? sections_of_text(call, body) : sections_of_lines(call, body);
}

Ref sections_entry(const Call& call) { return sections_of(call, call.arg(0)); }

// `str(value)`: an exact text is its own.
Ref as_text(PyObject* value) {
  if (PyUnicode_CheckExact(value)) return Ref::borrow(value);
  return check(PyObject_Str(value));
}

// Whether two exact texts are equal: one content has one storage kind.
bool same_text(PyObject* a, PyObject* b) noexcept {
  if (a == b) return true;
  const Py_ssize_t n = PyUnicode_GET_LENGTH(a);
  const int kind = static_cast<int>(PyUnicode_KIND(a));
  return n == PyUnicode_GET_LENGTH(b) && PyUnicode_KIND(b) == static_cast<unsigned>(kind) &&
         std::memcmp(PyUnicode_DATA(a), PyUnicode_DATA(b), static_cast<std::size_t>(n * kind)) == 0;
}

// The 64-bit finaliser of MurmurHash3: every input bit reaches every output
// bit, so keys that differ only in their high bits still spread over the
// table's low bits.
constexpr std::uint64_t mix_multiplier_a = 0xFF51AFD7ED558CCDULL;
constexpr std::uint64_t mix_multiplier_b = 0xC4CEB9FE1A85EC53ULL;

constexpr std::uint64_t mix64(std::uint64_t x) noexcept {
  x ^= x >> 33;
  x *= mix_multiplier_a;
  x ^= x >> 33;
  x *= mix_multiplier_b;
  x ^= x >> 33;
  return x;
}

// A key of an exact text and two exact integers of machine size. Its hash
// starts from the text's own hash, which the interpreter seeds per process.
struct PlainKey {
  PyObject* path;
  long long first;
  long long last;
  std::uint64_t hash;
};

bool machine_integer(PyObject* o, long long* value) {
  if (!PyLong_CheckExact(o)) return false;
  auto* number = reinterpret_cast<PyLongObject*>(o);
  if (PyUnstable_Long_IsCompact(number)) {
    *value = PyUnstable_Long_CompactValue(number);
    return true;
  }
  int overflow = 0;
  *value = PyLong_AsLongLongAndOverflow(o, &overflow);
  if (*value == -1 && PyErr_Occurred()) raise();
  return overflow == 0;
}

bool plain_key(PyObject* path, PyObject* first, PyObject* last, PlainKey* key) {
  if (!PyUnicode_CheckExact(path) || !machine_integer(first, &key->first) ||
      !machine_integer(last, &key->last)) {
    return false;
  }
  key->path = path;
  const Py_hash_t text_hash = PyObject_Hash(path);
  if (text_hash == -1) raise();
  const std::uint64_t h =
      mix64(static_cast<std::uint64_t>(text_hash) ^ static_cast<std::uint64_t>(key->first));
  key->hash = mix64(h ^ static_cast<std::uint64_t>(key->last));
  return true;
}

// The stored citations by key, `stored[(str(path), int(start), int(end))] = c`
// for each citation, the later of two with one key winning; `find` answers
// `stored[key] if key in stored`.
//
// Fast path: while every key is an exact text and two integers of machine
// size, the index is an open-addressing table of its own. Such keys hash and
// compare without running Python code, so one probe stands for the membership
// test and the subscript, and the answers are the dict's. Any other key,
// stored or looked up, and any probe run longer than `max_probe_run`, moves
// the index into a dict of the same keys in the same order, which hashes and
// compares them as Python does (twice for a key that is present).
class StoredIndex {
 public:
  void add(Ref path, Ref first, Ref last, PyObject* record) {
    if (!dict_) {
      PlainKey key;
      if (plain_key(path.get(), first.get(), last.get(), &key)) {
        const std::size_t at = probe(key);
        if (at != no_slot) {
          std::int32_t& slot = slots_[at];
          if (slot >= 0) {
            records_[static_cast<std::size_t>(slot)] = Ref::borrow(record);
            return;
          }
          slot = static_cast<std::int32_t>(keys_.size());
          keys_.push_back(key);
          records_.push_back(Ref::borrow(record));
          owned_.push_back({std::move(path), std::move(first), std::move(last)});
          if (keys_.size() * max_load_inverse > slots_.size()) rehash(slots_.size() * 2);
          return;
        }
      }
      make_dict();
    }
    Ref key = tuple_of({std::move(path), std::move(first), std::move(last)});
    dict_set(dict_.get(), key.get(), record);
  }

  Ref find(PyObject* key) {
    if (!dict_) {
      PlainKey plain;
      if (PyTuple_CheckExact(key) && PyTuple_GET_SIZE(key) == 3 &&
          plain_key(PyTuple_GET_ITEM(key, 0), PyTuple_GET_ITEM(key, 1), PyTuple_GET_ITEM(key, 2), &plain)) {
        const std::size_t at = probe(plain);
        if (at != no_slot) {
          const std::int32_t index = slots_[at];
          return index < 0 ? Ref() : records_[static_cast<std::size_t>(index)];
        }
      }
      make_dict();
    }
    if (!check(PyDict_Contains(dict_.get(), key))) return Ref();
    return getitem(dict_.get(), key);
  }

 private:
  struct Owned {
    Ref path;
    Ref first;
    Ref last;
  };

  static constexpr std::size_t initial_slots = 16;    // a power of two
  static constexpr std::size_t max_load_inverse = 2;  // at most half the slots hold keys
  static constexpr std::size_t max_probe_run = 64;    // longer runs mean hostile keys
  static constexpr std::size_t no_slot = SIZE_MAX;

  // The slot of `key`, or the empty slot where it would go; `no_slot` when
  // the run of slots to search is longer than `max_probe_run`.
  std::size_t probe(const PlainKey& key) const noexcept {
    const std::size_t mask = slots_.size() - 1;
    std::size_t at = static_cast<std::size_t>(key.hash) & mask;
    for (std::size_t run = 0; run < max_probe_run; ++run, at = (at + 1) & mask) {
      const std::int32_t index = slots_[at];
      if (index < 0) return at;
      const PlainKey& held = keys_[static_cast<std::size_t>(index)];
      if (held.hash == key.hash && held.first == key.first && held.last == key.last &&
          same_text(held.path, key.path)) {
        return at;
      }
    }
    return no_slot;
  }

  void rehash(std::size_t size) {
    slots_.assign(size, -1);
    for (std::size_t i = 0; i < keys_.size(); ++i) {
      const std::size_t at = probe(keys_[i]);
      if (at == no_slot) {
        make_dict();
        return;
      }
      slots_[at] = static_cast<std::int32_t>(i);
    }
  }

  // The same index as a dict: the keys in their first order, each with its
  // latest record, as inserting them one by one leaves a dict.
  void make_dict() {
    dict_ = new_dict();
    for (std::size_t i = 0; i < owned_.size(); ++i) {
      const Owned& parts = owned_[i];
      Ref key = tuple_of({parts.path, parts.first, parts.last});
      dict_set(dict_.get(), key.get(), records_[i].get());
    }
  }

  std::vector<PlainKey> keys_;  // borrowing their texts from `owned_`
  std::vector<Ref> records_;
  std::vector<Owned> owned_;
  std::vector<std::int32_t> slots_ = std::vector<std::int32_t>(initial_slots, -1);
  Ref dict_;  // once made, the one index
};

StoredIndex index_citations(const Names& n, PyObject* citations) {
  StoredIndex stored;
  Ref zero = integer(0);
  for_each(citations, [&](PyObject* c) {
    Ref path = row_get(n, c, n.citation_path, n.empty);
    Ref path_text = as_text(path.get());
    Ref start_value = row_get(n, c, n.line_start, zero.get());
    Ref start = check(PyNumber_Long(start_value.get()));
    Ref end_value = row_get(n, c, n.line_end, zero.get());
    Ref end = check(PyNumber_Long(end_value.get()));
    stored.add(std::move(path_text), std::move(start), std::move(end), c);
  });
  return stored;
}

// An exact text read for sorting: its code units and their width, and for a
// one-byte text its first eight code units as one number, most significant
// first and zero past the end, which orders most pairs in one comparison.
struct SortKey {
  std::uint64_t head;
  const void* data;
  Py_ssize_t length;
  int kind;
  PyObject* text;
};

constexpr Py_ssize_t head_units = 8;

SortKey sort_key(PyObject* text) noexcept {
  SortKey key{0, PyUnicode_DATA(text), PyUnicode_GET_LENGTH(text), static_cast<int>(PyUnicode_KIND(text)),
              text};
  if (key.kind == PyUnicode_1BYTE_KIND) {
    const auto* units = static_cast<const unsigned char*>(key.data);
    for (Py_ssize_t i = 0; i < head_units; ++i) key.head = key.head << 8 | (i < key.length ? units[i] : 0U);
  }
  return key;
}

// Code-point order of two exact texts, `a < b`.
inline bool text_less(const SortKey& a, const SortKey& b) noexcept {
  const Py_ssize_t n = std::min(a.length, b.length);
  if (a.kind == PyUnicode_1BYTE_KIND && b.kind == PyUnicode_1BYTE_KIND) {
    if (a.head != b.head) return a.head < b.head;
    if (n > head_units) {
      const int order = std::memcmp(static_cast<const unsigned char*>(a.data) + head_units,
                                    static_cast<const unsigned char*>(b.data) + head_units,
                                    static_cast<std::size_t>(n - head_units));
      if (order != 0) return order < 0;
    }
    return a.length < b.length;
  }
  for (Py_ssize_t i = 0; i < n; ++i) {
    const Py_UCS4 ca = PyUnicode_READ(a.kind, a.data, i);
    const Py_UCS4 cb = PyUnicode_READ(b.kind, b.data, i);
    if (ca != cb) return ca < cb;
  }
  return a.length < b.length;
}

// `sorted({str(v) for v in values})`, the values added in iteration order.
// While every text is an exact str, the texts are sorted and de-duplicated
// natively: exact texts order by code point and are one set member exactly
// when equal, and neither hashing nor comparing them runs Python code. The
// first text of any other kind moves them all, in order, into a set.
class DistinctTexts {
 public:
  void add(PyObject* value) {
    Ref shown = as_text(value);
    if (!set_ && !PyUnicode_CheckExact(shown.get())) {
      set_ = new_set();
      for (const Ref& text : texts_) set_add(set_.get(), text.get());
      texts_.clear();
    }
    if (set_) {
      set_add(set_.get(), shown.get());
    } else {
      texts_.push_back(std::move(shown));
    }
  }

  // The sorted distinct texts; the collection starts afresh.
  Ref sorted() {
    Ref list;
    if (set_) {
      list = sorted_list(set_.get());
    } else {
      order_.clear();
      for (const Ref& text : texts_) order_.push_back(sort_key(text.get()));
      std::sort(order_.begin(), order_.end(), text_less);
      std::size_t distinct = 0;
      for (std::size_t i = 0; i < order_.size(); ++i) {
        if (distinct && !text_less(order_[distinct - 1], order_[i])) continue;  // equal to the last kept
        order_[distinct++] = order_[i];
      }
      std::vector<Ref> kept;
      kept.reserve(distinct);
      for (std::size_t i = 0; i < distinct; ++i) kept.push_back(Ref::borrow(order_[i].text));
      list = list_of(kept);
    }
    texts_.clear();
    set_ = Ref();
    return list;
  }

 private:
  std::vector<Ref> texts_;
  std::vector<SortKey> order_;
  Ref set_;
};

// The file-hash listing: one line per file, its path, NUL and the text of its
// content hash (or nothing), joined by line feeds. Lines of exact texts are
// written straight into the listing; their concatenation runs no Python
// code, so doing it late changes nothing.
struct ListingLine {
  Ref path;
  Ref hash;
  Ref whole;  // the line as Python concatenation made it, when not exact
};

// `"\n".join(path + "\0" + str(file_hashes.get(path, "")) for path in files)`
Ref file_listing(const Names& n, PyObject* files, PyObject* file_hashes, PyObject* nul,
                 std::vector<ListingLine>& lines) {
  using Line = ListingLine;
  lines.clear();
  bool exact = true;
  for_each(files, [&](PyObject* path) {
    Line line;
    Ref head;
    if (!PyUnicode_CheckExact(path)) head = check(PyNumber_Add(path, nul));
    Ref hash = row_get(n, file_hashes, path, n.empty);
    Ref hash_text = as_text(hash.get());
    if (head || !PyUnicode_CheckExact(hash_text.get())) {
      if (!head) head = check(PyNumber_Add(path, nul));
      line.whole = check(PyNumber_Add(head.get(), hash_text.get()));
      exact = exact && PyUnicode_CheckExact(line.whole.get());
    } else {
      line.path = Ref::borrow(path);
      line.hash = std::move(hash_text);
    }
    lines.push_back(std::move(line));
  });

  if (!exact) {
    Ref list = new_list();
    for (const Line& line : lines) {
      Ref whole = line.whole;
      if (!whole) {
        Ref head = check(PyUnicode_Concat(line.path.get(), nul));
        whole = check(PyUnicode_Concat(head.get(), line.hash.get()));
      }
      append(list.get(), whole.get());
    }
    return check(PyUnicode_Join(n.line_feed, list.get()));
  }

  Py_ssize_t length = lines.empty() ? 0 : static_cast<Py_ssize_t>(lines.size()) - 1;
  Py_UCS4 widest = 0;
  auto measure = [&](PyObject* piece) {
    length += PyUnicode_GET_LENGTH(piece);
    widest = std::max(widest, PyUnicode_MAX_CHAR_VALUE(piece));
  };
  for (const Line& line : lines) {
    if (line.whole) {
      measure(line.whole.get());
    } else {
      measure(line.path.get());
      measure(line.hash.get());
      ++length;
    }
  }
  Ref listing = check(PyUnicode_New(length, widest));
  Py_ssize_t at = 0;
  const int kind = PyUnicode_KIND(listing.get());
  auto put = [&](PyObject* piece) {
    const Py_ssize_t size = PyUnicode_GET_LENGTH(piece);
    if (PyUnicode_KIND(piece) == static_cast<unsigned>(kind)) {
      std::memcpy(static_cast<char*>(PyUnicode_DATA(listing.get())) + at * kind, PyUnicode_DATA(piece),
                  static_cast<std::size_t>(size * kind));
    } else {
      check_size(PyUnicode_CopyCharacters(listing.get(), at, piece, 0, size));
    }
    at += size;
  };
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (i) PyUnicode_WRITE(kind, PyUnicode_DATA(listing.get()), at++, '\n');
    const Line& line = lines[i];
    if (line.whole) {
      put(line.whole.get());
    } else {
      put(line.path.get());
      PyUnicode_WRITE(kind, PyUnicode_DATA(listing.get()), at++, 0);
      put(line.hash.get());
    }
  }
  return listing;
}

Ref section_map(const Call& call, PyObject* body, PyObject* citations, PyObject* file_hashes) {
  const Names& n = call.state().names;
  Ref nul = check(PyUnicode_FromStringAndSize("\0", 1));
  StoredIndex stored = index_citations(n, citations);

  // Fast path: `_sections(body)` runs its body directly, without binding
  // arguments, while the name still holds this module's own function.
  Ref sections_fn = call.global(n.sections);
  Ref sections = as_native(call.state(), sections_fn.get(), sections_spec)
                     ? sections_of(call, body)
                     : plan_record::call(sections_fn.get(), {body});

  // Buffers that every section reuses.
  std::vector<Ref> keys;
  std::vector<Ref> cites;
  DistinctTexts paths;
  DistinctTexts names;
  std::vector<ListingLine> lines;

  Ref entries = new_list();
  for_each(sections.get(), [&](PyObject* section) {
    auto [heading, text] = unpack_pair(section);
    keys.clear();
    cites.clear();

    Ref prose_citations = call.global(n.prose_citations);
    Ref found = plan_record::call(prose_citations.get(), {text.get()});
    for_each(found.get(), [&](PyObject* c) {
      Ref citation_key = call.global(n.citation_key);
      keys.push_back(plan_record::call(citation_key.get(), {c}));
    });
    for (const Ref& key : keys) {
      if (Ref c = stored.find(key.get())) cites.push_back(std::move(c));
    }
    if (!truthy(heading.get()) && cites.empty()) return;

    for (const Ref& c : cites) {
      Ref path = row_item(c.get(), n.citation_path);
      paths.add(path.get());
    }
    Ref files = paths.sorted();
    for (const Ref& c : cites) {
      Ref symbol = row_get(n, c.get(), n.symbol);
      if (!truthy(symbol.get())) continue;
      symbol = row_item(c.get(), n.symbol);
      names.add(symbol.get());
    }
    Ref symbols = names.sorted();
    Ref listing = file_listing(n, files.get(), file_hashes, nul.get(), lines);
    Ref text_hash = call.global(n.text_hash);
    Ref digest = plan_record::call(text_hash.get(), {listing.get()});

    Ref entry = new_dict();
    dict_set(entry.get(), n.heading, heading.get());
    dict_set(entry.get(), n.files, files.get());
    dict_set(entry.get(), n.symbols, symbols.get());
    dict_set(entry.get(), n.hash, digest.get());
    append(entries.get(), entry.get());
  });
  return entries;
}

Ref section_map_entry(const Call& call) { return section_map(call, call.arg(0), call.arg(1), call.arg(2)); }

}  // namespace

const FunctionSpec sections_spec{texts::sections, sections_entry};
const FunctionSpec section_map_spec{texts::section_map, section_map_entry};

}  // namespace plan_record
