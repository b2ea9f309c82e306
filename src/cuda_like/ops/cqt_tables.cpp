#include "cuda_like/ops/cqt_tables.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "cuda_like/tables.h"

namespace kevra::ops {
namespace {

// What the tables of a key were made of, in either precision and on any device: rows and columns,
// or entries and the bound of their values. Guarded by runtime_mutex.
using Extents = std::pair<int64_t, int64_t>;
std::map<std::string, Extents>& all_extents() {
  static auto* store = new std::map<std::string, Extents>;
  return *store;
}

std::optional<Extents> known_extents(const std::string& name) {
  std::lock_guard lock(runtime_mutex);
  const auto it = all_extents().find(name);
  return it == all_extents().end() ? std::nullopt : std::optional(it->second);
}

void keep_extents(const std::string& name, const Extents& extents) {
  std::lock_guard lock(runtime_mutex);
  const auto [it, added] = all_extents().emplace(name, extents);
  it->second.second = std::max(it->second.second, extents.second);
}

template <class T>
const char* twin_suffix() {
  return sizeof(T) == 8 ? "_8" : "_4";
}
template <class T>
std::string table_prefix(const CqtDesign& design) {
  return std::string(design.plan_key) + twin_suffix<T>();
}

template <class T>
std::vector<T> converted(const std::vector<double>& values) {
  return {values.begin(), values.end()};
}

// A basis in the type of the arithmetic, read at the first table that is missing.
template <class T>
class Basis {
 public:
  explicit Basis(const CqtRecord& record) : record_(record) {}

  const std::vector<T>& re() { return read().re; }
  const std::vector<T>& im() { return read().im; }

  // First and last non-zero column of every row; rows and columns change places with `of_columns`.
  // No comparison finds a NaN, which counts as zero.
  std::vector<int32_t> ends(bool of_columns, bool last) {
    const int64_t rows = record_.br.rows;
    const int64_t cols = record_.br.cols;
    const int64_t lines = of_columns ? cols : rows;
    const int64_t length = of_columns ? rows : cols;
    std::vector<int32_t> ends(lines, last ? -1 : static_cast<int32_t>(length));
    for (int64_t row = 0; row < rows; ++row) {
      for (int64_t col = 0; col < cols; ++col) {
        if (!is_set(row * cols + col)) continue;
        int32_t& end = ends[of_columns ? col : row];
        const auto place = static_cast<int32_t>(of_columns ? row : col);
        end = last ? std::max(end, place) : std::min(end, place);
      }
    }
    return ends;
  }

 private:
  struct Values {
    std::vector<T> re, im;
  };

  const Values& read() {
    if (!values_) values_ = {converted<T>(record_.br.read()), converted<T>(record_.bi.read())};
    return *values_;
  }

  bool is_set(int64_t i) {
    const auto differs = [](T v) { return v > 0 || v < 0; };
    return differs(re()[i]) || differs(im()[i]);
  }

  const CqtRecord& record_;
  std::optional<Values> values_;
};

// `name` is the table's, `record` the record's that asks for it.
void check_extents(const std::string& record, std::string_view plan_key, const std::string& name,
                   const Extents& wanted, const char* what) {
  const std::optional<Extents> known = known_extents(name);
  if (!known || *known == wanted) return;
  const auto text = [](const Extents& e) {
    return std::to_string(e.first) + " x " + std::to_string(e.second);
  };
  throw std::invalid_argument(record + ": plan_key '" + std::string(plan_key) + "' has stood for " +
                              what + " of " + text(*known) + " here, not of " + text(wanted) +
                              "; give every design a plan_key of its own");
}

}  // namespace

template <class T>
CqtOctave octave_tables(const char* op, const CqtDesign& design, size_t index) {
  const CqtRecord& r = design.octaves[index];
  const std::string suffix = "_o" + std::to_string(index);
  const std::string known_as = std::string(design.plan_key) + suffix;
  check_extents(octave_name(op, index), design.plan_key, known_as, {r.br.rows, r.br.cols},
                "a basis");

  const std::string prefix = table_prefix<T>(design) + suffix;
  Basis<T> basis(r);
  const auto ends = [&](const char* name, bool of_columns, bool last) {
    return device_vector_table<int32_t>(prefix + name,
                                        [&] { return basis.ends(of_columns, last); });
  };
  const CqtOctave octave{
      .level = static_cast<int>(r.level),
      .hop = static_cast<int>(r.hop),
      .n_fft = static_cast<int>(r.n_fft),
      .row_lo = static_cast<int>(r.row_lo),
      .rows = static_cast<int>(r.br.rows),
      .br = device_vector_table<T>(prefix + "_re", [&] { return basis.re(); }),
      .bi = device_vector_table<T>(prefix + "_im", [&] { return basis.im(); }),
      .blo = ends("_blo", false, false),
      .bhi = ends("_bhi", false, true),
      .klo = ends("_klo", true, false),
      .khi = ends("_khi", true, true),
  };
  keep_extents(known_as, {r.br.rows, r.br.cols});
  return octave;
}

template CqtOctave octave_tables<float>(const char*, const CqtDesign&, size_t);
template CqtOctave octave_tables<double>(const char*, const CqtDesign&, size_t);

template <class T>
devptr_t dual_table(const char* op, std::string_view plan_key, const DualRecord& record,
                    size_t index) {
  const std::string known_as = std::string(plan_key) + "_icd" + std::to_string(record.shift);
  const Extents extents{record.rows, record.half()};
  check_extents(octave_name(op, index), plan_key, known_as, extents, "dual filters");
  devptr_t table = device_vector_table<T>(known_as + twin_suffix<T>(),
                                          [&] { return converted<T>(record.filters.read()); });
  keep_extents(known_as, extents);
  return table;
}

template devptr_t dual_table<float>(const char*, std::string_view, const DualRecord&, size_t);
template devptr_t dual_table<double>(const char*, std::string_view, const DualRecord&, size_t);

template <class T>
devptr_t taps_table(const CqtDesign& design) {
  return device_vector_table<T>(table_prefix<T>(design) + "_taps",
                                [&] { return converted<T>(design.taps.read()); });
}

template devptr_t taps_table<float>(const CqtDesign&);
template devptr_t taps_table<double>(const CqtDesign&);

template <class T>
devptr_t classes_table(const char* op, const CqtDesign& design, const LazyClasses& classes,
                       int64_t n_chroma) {
  const std::string name = op;
  if (classes.count != design.n_bins) {
    throw std::invalid_argument(
        name + ": classes has " + std::to_string(classes.count) +
        " entries, must have one a bin, n_bins = " + std::to_string(design.n_bins));
  }
  const std::vector<int64_t> values = classes.read();
  for (size_t i = 0; i < values.size(); ++i) {
    if (values[i] < 0 || values[i] >= n_chroma) {
      throw std::invalid_argument(
          name + ": classes[" + std::to_string(i) + "] is " + std::to_string(values[i]) +
          ", must be at least 0 and below n_chroma = " + std::to_string(n_chroma));
    }
  }

  // The table may be an earlier call's: its entries have to be within this call's bounds too.
  const std::string known_as = std::string(design.plan_key) + "_cls";
  const std::optional<Extents> known = known_extents(known_as);
  if (known && (known->first != classes.count || known->second > n_chroma)) {
    throw std::invalid_argument(name + ": plan_key '" + std::string(design.plan_key) +
                                "' has stood for " + std::to_string(known->first) +
                                " classes below " + std::to_string(known->second) +
                                "; give every design a plan_key of its own");
  }
  devptr_t table = device_vector_table<int32_t>(table_prefix<T>(design) + "_cls", [&] {
    return std::vector<int32_t>(values.begin(), values.end());
  });
  const int64_t largest = values.empty() ? 0 : *std::max_element(values.begin(), values.end());
  keep_extents(known_as, {classes.count, largest + 1});
  return table;
}

template devptr_t classes_table<float>(const char*, const CqtDesign&, const LazyClasses&, int64_t);
template devptr_t classes_table<double>(const char*, const CqtDesign&, const LazyClasses&, int64_t);

}  // namespace kevra::ops
