#include "compiler/kernel_text.h"

#include <algorithm>

namespace kevra_cpu {

namespace {

bool waits(const Token& token) {
  return token.text == "__syncthreads" || token.text == "__shfl_xor";
}

}  // namespace

KernelText::KernelText(std::string_view text) : text_(text), tokens_(tokenize(text)) {
  // A macro may bring a wait into any kernel.
  macro_waits_ = std::any_of(tokens_.begin(), tokens_.end(),
                             [](const Token& token) { return token.in_directive && waits(token); });
}

bool KernelText::kernel_at(size_t at, KernelPlace& place) const {
  place.first = at;
  if (at >= 2 && is(at - 2, "extern") && tokens_[at - 1].kind == TokenKind::string)
    place.first = at - 2;
  size_t name = at + 1;
  place.bound = "0";
  while (name + 1 < tokens_.size() &&
         !(is_word(name) && is(name + 1, "(") && !is(name, "__launch_bounds__"))) {
    if (is(name, "__launch_bounds__") && is(name + 1, "(")) {
      const size_t close = closing(name + 1);
      place.bound = first_argument(name + 2, close);
      name = close;
    }
    ++name;
  }
  place.name = name;
  place.open = name + 1;
  if (place.open >= tokens_.size()) return false;  // the compiler says what is missing
  place.close = closing(place.open);
  place.body = place.end = place.close + 1;
  if (place.body >= tokens_.size()) return false;
  if (is(place.body, "{")) place.end = closing(place.body);
  const auto begin = tokens_.begin();
  place.waits = macro_waits_ || std::any_of(begin + std::ptrdiff_t(place.body),
                                            begin + std::ptrdiff_t(place.end), waits);
  return true;
}

size_t KernelText::closing(size_t open) const {
  const std::string_view opening = tokens_[open].text;
  const std::string_view close = opening == "{" ? "}" : opening == "[" ? "]" : ")";
  std::vector<int> at_condition;
  int depth = 0;
  for (size_t i = open; i < tokens_.size(); ++i) {
    const Token& token = tokens_[i];
    if (token.in_directive) {
      if (!is(i, "#") || i + 1 >= tokens_.size()) continue;
      const std::string_view word = tokens_[i + 1].text;
      if (word == "if" || word == "ifdef" || word == "ifndef") at_condition.push_back(depth);
      if ((word == "else" || word == "elif") && !at_condition.empty()) depth = at_condition.back();
      if (word == "endif" && !at_condition.empty()) at_condition.pop_back();
    } else if (token.kind == TokenKind::mark) {
      if (is(i, opening)) ++depth;
      if (is(i, close) && --depth == 0) return i;
    }
  }
  return tokens_.size() - 1;
}

std::string KernelText::words(size_t begin, size_t end) const {
  std::string text;
  for (size_t i = begin; i < end; ++i) {
    if (is(i, "__align__") || is(i, "alignas"))
      i = closing(i + 1);
    else
      text.append(tokens_[i].text).append(" ");
  }
  return text;
}

std::string KernelText::first_argument(size_t begin, size_t close) const {
  int depth = 0;
  size_t end = begin;
  for (; end < close && (depth != 0 || !is(end, ",")); ++end) depth += is(end, "(") - is(end, ")");
  return words(begin, end);
}

void KernelText::replace(size_t first, size_t last, std::string text) {
  const size_t begin = tokens_[first].offset, end = end_of(last);
  const auto span = text_.substr(begin, end - begin);
  text.append(static_cast<size_t>(std::count(span.begin(), span.end(), '\n')), '\n');
  edits_.push_back({begin, end, std::move(text)});
}

void KernelText::insert_before(size_t token, std::string text) {
  const size_t offset = tokens_[token].offset;
  edits_.push_back({offset, offset, std::move(text)});
}

void KernelText::insert_behind(size_t token, std::string text) {
  edits_.push_back({end_of(token), end_of(token), std::move(text)});
}

std::string KernelText::apply() {
  // What is put behind a token comes before what replaces the token that adjoins it.
  std::stable_sort(edits_.begin(), edits_.end(), [](const Edit& a, const Edit& b) {
    return a.begin != b.begin ? a.begin < b.begin : a.end == a.begin && b.end != b.begin;
  });
  std::string result;
  size_t at = 0;
  for (const Edit& edit : edits_) {
    if (edit.begin < at) continue;
    result.append(text_.substr(at, edit.begin - at)).append(edit.text);
    at = edit.end;
  }
  return result.append(text_.substr(at));
}

}  // namespace kevra_cpu
