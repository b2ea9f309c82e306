#include "compiler/lane_cells.h"

#include <algorithm>

namespace kevra_cpu {

LaneCells::LaneCells(const KernelText& text, size_t begin, size_t end)
    : text_(text), begin_(begin), end_(end) {
  for (size_t i = begin; i < end; ++i)
    if (text_.is_word(i) && !text_.is(i - 1, ".")) words_[text_.token(i).text].push_back(i);
  find_barriers();
}

// Barriers in loops, behind conditions, or in branches of the preprocessor are left alone: what
// lives across them stays in the frame.
void LaneCells::find_barriers() {
  int conditions = 0;
  std::vector<bool> plain;  // of the open braces, whether they only bound a scope
  for (size_t i = begin_; i < end_; ++i) {
    const bool statement = text_.is(i - 1, ";") || text_.is(i - 1, "{") || text_.is(i - 1, "}") ||
                           text_.token(i - 1).in_directive;
    if (text_.token(i).in_directive) {
      if (!text_.is(i, "#")) continue;
      conditions += text_.token(i + 1).text.starts_with("if");
      conditions -= text_.is(i + 1, "endif");
    } else if (text_.is(i, "{")) {
      plain.push_back(statement);
      if (under_if(i) && runs_through(i)) conditional_.emplace_back(i, text_.closing(i));
    } else if (text_.is(i, "}") && !plain.empty()) {
      plain.pop_back();
    } else if (text_.is(i, "__syncthreads") && statement && conditions == 0 &&
               text_.is(i + 3, ";") &&
               std::find(plain.begin(), plain.end(), false) == plain.end()) {
      barriers_.push_back(i);
    }
  }
}

bool LaneCells::under_if(size_t brace) const {
  size_t i = brace - 1;
  int depth = 0;
  do depth += text_.is(i, ")") - text_.is(i, "(");
  while (depth > 0 && --i > begin_);
  return i != brace - 1 && text_.is(i - 1, "if");
}

bool LaneCells::runs_through(size_t brace) const {
  for (size_t i = brace, end = text_.closing(brace); i < end; ++i)
    for (const char* leaves : {"break", "continue", "goto", "return"})
      if (text_.is(i, leaves)) return false;
  return true;
}

// In the variable's scope; none where another one of that name is declared there.
std::vector<size_t> LaneCells::uses_of(size_t name) const {
  size_t scope_end = name;
  for (int depth = 0; scope_end < end_ && depth >= 0; ++scope_end)
    depth += text_.is(scope_end, "{") - text_.is(scope_end, "}");
  std::vector<size_t> uses;
  for (const size_t i : words_.at(text_.token(name).text)) {
    if (i < name || i >= scope_end) continue;
    if (i != name && declared_.count(i) != 0) return {};
    if (i != name || declared_.at(name)) uses.push_back(i);
  }
  return uses;
}

std::vector<LaneCells::Value> LaneCells::values(bool wide) const {
  std::vector<Value> all;
  for (const auto& [name, set] : declared_) {
    const std::string word(text_.token(name).text);
    std::map<std::string, std::vector<size_t>> members;
    const std::vector<size_t> uses = uses_of(name);
    for (const size_t i : uses)
      if (text_.is(i + 1, ".")) members.emplace(text_.token(i + 2).text, std::vector<size_t>());
    if (members.empty()) all.push_back({word, uses, wide ? 4U : 2U, 0, 0});
    for (auto& [member, own] : members) {
      for (const size_t i : uses)
        if (!text_.is(i + 1, ".") || text_.is(i + 2, member)) own.push_back(i);
      all.push_back({word + "." + member, own, wide ? 2U : 1U, 0, 0});
    }
  }
  std::erase_if(all, [&](Value& value) { return !crosses(value); });
  std::sort(all.begin(), all.end(),
            [](const Value& a, const Value& b) { return a.first < b.first; });
  return all;
}

bool LaneCells::crosses(Value& value) const {
  if (value.uses.empty()) return false;
  const auto behind = [&](size_t token) {
    return size_t(std::upper_bound(barriers_.begin(), barriers_.end(), token) - barriers_.begin());
  };
  value.first = behind(value.uses.front());
  const size_t end = behind(value.uses.back());
  value.last = end - 1;
  return value.first < end;
}

// Where the `stage`th stretch between barriers begins and ends for a value: at the barriers, or
// within the condition that all its uses there stand under, so that threads which have no part in
// it do not touch their cells.
LaneCells::Stretch LaneCells::stretch(const Value& value, size_t stage) const {
  const size_t begin = stage == 0 ? begin_ : barriers_[stage - 1];
  const size_t end = stage == barriers_.size() ? end_ : barriers_[stage];
  const auto first = std::upper_bound(value.uses.begin(), value.uses.end(), begin);
  const auto behind = std::lower_bound(first, value.uses.end(), end);
  if (first == behind) return {0, 0, false};
  for (const auto& [open, close] : conditional_)
    if (open > begin && open < *first && close > *(behind - 1) && close < end)
      return {open, close, true};
  // Behind the barrier's parentheses and semicolon.
  return {stage == 0 ? begin : begin + 3, end, true};
}

unsigned LaneCells::place(KernelText& text, bool wide) const {
  std::vector<size_t> taken;  // of each cell: behind the last barrier that its value lives across
  for (const Value& value : values(wide)) {
    size_t cell = 0;
    for (size_t i = 0; i < cell + value.cells; ++i) {
      if (i == taken.size()) taken.push_back(0);
      if (taken[i] > value.first) cell = i + 1;
    }
    std::fill_n(taken.begin() + std::ptrdiff_t(cell), value.cells, value.last + 1);
    const std::string arguments =
        "(" + std::to_string(cell) + ", " + std::to_string(value.cells) + ", " + value.name + ");";
    for (size_t stage = value.first; stage <= value.last + 1; ++stage) {
      const Stretch used = stretch(value, stage);
      if (!used.any) continue;
      if (stage > value.first) text.insert_behind(used.begin, "KEVRA_CPU_BRING" + arguments);
      if (stage <= value.last) text.insert_before(used.end, "KEVRA_CPU_KEEP" + arguments);
    }
  }
  return unsigned(taken.size());
}

}  // namespace kevra_cpu
