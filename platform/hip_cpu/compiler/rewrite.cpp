#include "compiler/rewrite.h"

#include <algorithm>
#include <vector>

#include "compiler/tokens.h"

namespace kevra_cpu {

namespace {

struct Edit {
  size_t begin, end;
  std::string text;
};

bool is(const Token& token, std::string_view text) {
  return token.text == text;
}

bool waits(const Token& token) {
  return is(token, "__syncthreads") || is(token, "__shfl_xor");
}

class Rewriter {
 public:
  explicit Rewriter(std::string_view text) : text_(text), tokens_(tokenize(text)) {
    // A macro may bring a wait into any kernel.
    macro_waits_ = std::any_of(tokens_.begin(), tokens_.end(), [](const Token& token) {
      return token.in_directive && waits(token);
    });
  }

  std::string rewrite() {
    for (size_t i = 0; i < tokens_.size(); ++i)
      if (is(tokens_[i], "__global__") && !tokens_[i].in_directive) i = kernel(i);
    return apply();
  }

 private:
  // From the `__global__` at `at`; gives the last token that belongs to the kernel.
  size_t kernel(size_t at) {
    size_t first = at;
    if (at >= 2 && is(tokens_[at - 2], "extern") && tokens_[at - 1].kind == TokenKind::string)
      first = at - 2;
    size_t name = at + 1;
    std::string bound = "0";
    while (name + 1 < tokens_.size() &&
           !(tokens_[name].kind == TokenKind::word && is(tokens_[name + 1], "(") &&
             !is(tokens_[name], "__launch_bounds__"))) {
      if (is(tokens_[name], "__launch_bounds__") && is(tokens_[name + 1], "(")) {
        const size_t close = closing(name + 1);
        bound = first_argument(name + 2, close);
        name = close;
      }
      ++name;
    }
    const size_t open = name + 1;
    if (open >= tokens_.size()) return open;  // the compiler says what is missing
    const size_t close = closing(open);
    const size_t body = close + 1;
    if (body >= tokens_.size()) return body;

    const bool has_body = is(tokens_[body], "{");
    const size_t end = has_body ? closing(body) : body;
    const bool suspends =
        macro_waits_ || std::any_of(tokens_.begin() + body, tokens_.begin() + end, waits);
    head(first, name, suspends, close == open + 1);
    if (has_body) {
      rewrite_body(body, end, suspends);
      insert_behind(end,
                    " KEVRA_CPU_KERNEL(" + std::string(tokens_[name].text) + ", (" + bound + "));");
    }
    return end;
  }

  void head(size_t first, size_t name, bool suspends, bool no_parameters) {
    std::string text = suspends ? "KEVRA_CPU_KERNEL_FUNCTION ::kevra_cpu_device::Task "
                                : "KEVRA_CPU_KERNEL_FUNCTION void ";
    text += tokens_[name].text;
    text += "(::kevra_cpu_device::Thread kevra_thread";
    if (!no_parameters) text += ", ";
    replace(first, name + 1, std::move(text));
  }

  void rewrite_body(size_t body, size_t end, bool suspends) {
    std::string statics_end = "0";  // bytes of static shared memory that are taken
    for (size_t i = body; i < end; ++i) {
      if (tokens_[i].in_directive) continue;
      if (suspends && is(tokens_[i], "return")) replace(i, i, "co_return");
      if (is(tokens_[i], "extern") && is(tokens_[i + 1], "__shared__"))
        i = shared_declaration(i, i + 2, end, nullptr);
      else if (is(tokens_[i], "__shared__"))
        i = shared_declaration(i, i + 1, end, &statics_end);
    }
  }

  // <type> <name> <dimensions> ; from `type` on becomes a typedef for the array and a place in
  // shared memory: static arrays lie one behind the other, a dynamic one is all there is.
  size_t shared_declaration(size_t at, size_t type, size_t end, std::string* statics_end) {
    size_t last = type;
    while (last < end && !is(tokens_[last], ";")) ++last;
    size_t bracket = type;
    while (bracket < last && !is(tokens_[bracket], "[")) ++bracket;
    if (last == end || bracket < type + 2) return at;  // the compiler says what is wrong
    const std::string name(tokens_[bracket - 1].text);
    std::string text = "typedef " + words(type, bracket - 1) + "kevra_type_" + name + " " +
                       words(bracket, last) + "; ";
    if (statics_end == nullptr) {
      text += "KEVRA_CPU_DYNAMIC_SHARED(" + name + ")";
    } else {
      text += "KEVRA_CPU_STATIC_SHARED(" + name + ", " + *statics_end + ")";
      *statics_end = "kevra_end_" + name;
    }
    replace(at, last - 1, std::move(text));
    return last;
  }

  // The tokens from `begin` up to `end`, without alignments: shared memory suits all types.
  std::string words(size_t begin, size_t end) const {
    std::string text;
    for (size_t i = begin; i < end; ++i) {
      if (is(tokens_[i], "__align__") || is(tokens_[i], "alignas"))
        i = closing(i + 1);
      else
        text.append(tokens_[i].text).append(" ");
    }
    return text;
  }

  // The mark that closes the one at `open`. The branches of an #if open and close the same, so
  // only its last one counts.
  size_t closing(size_t open) const {
    const std::string_view opening = tokens_[open].text;
    const std::string_view close = opening == "{" ? "}" : ")";
    std::vector<int> at_condition;
    int depth = 0;
    for (size_t i = open; i < tokens_.size(); ++i) {
      const Token& token = tokens_[i];
      if (token.in_directive) {
        if (!is(token, "#") || i + 1 >= tokens_.size()) continue;
        const std::string_view word = tokens_[i + 1].text;
        if (word == "if" || word == "ifdef" || word == "ifndef") at_condition.push_back(depth);
        if ((word == "else" || word == "elif") && !at_condition.empty())
          depth = at_condition.back();
        if (word == "endif" && !at_condition.empty()) at_condition.pop_back();
      } else if (token.kind == TokenKind::mark) {
        if (is(token, opening)) ++depth;
        if (is(token, close) && --depth == 0) return i;
      }
    }
    return tokens_.size() - 1;
  }

  std::string first_argument(size_t begin, size_t close) const {
    int depth = 0;
    size_t end = begin;
    for (; end < close && (depth != 0 || !is(tokens_[end], ",")); ++end)
      depth += is(tokens_[end], "(") - is(tokens_[end], ")");
    return words(begin, end);
  }

  size_t end_of(size_t token) const { return tokens_[token].offset + tokens_[token].text.size(); }

  // Tokens `first` to `last`, both included. Line breaks among them are kept.
  void replace(size_t first, size_t last, std::string text) {
    const size_t begin = tokens_[first].offset, end = end_of(last);
    const auto span = text_.substr(begin, end - begin);
    text.append(static_cast<size_t>(std::count(span.begin(), span.end(), '\n')), '\n');
    edits_.push_back({begin, end, std::move(text)});
  }

  void insert_behind(size_t token, std::string text) {
    edits_.push_back({end_of(token), end_of(token), std::move(text)});
  }

  // Edits come in the order of the text and do not overlap.
  std::string apply() const {
    std::string result;
    size_t at = 0;
    for (const Edit& edit : edits_) {
      result.append(text_.substr(at, edit.begin - at)).append(edit.text);
      at = edit.end;
    }
    return result.append(text_.substr(at));
  }

  std::string_view text_;
  std::vector<Token> tokens_;
  std::vector<Edit> edits_;
  bool macro_waits_ = false;
};

}  // namespace

std::string rewrite_kernels(std::string_view text) {
  return Rewriter(text).rewrite();
}

}  // namespace kevra_cpu
