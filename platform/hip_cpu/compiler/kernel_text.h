// A kernel text in tokens, with the edits that are to be made to it: what both rewritings share.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "compiler/tokens.h"

namespace kevra_cpu {

// Numbers of a kernel's tokens: its first one, name, opening and closing parenthesis, and the body
// from its opening brace to its closing one (`end` == `body` where there is none).
struct KernelPlace {
  size_t first, name, open, close, body, end;
  std::string bound;  // of __launch_bounds__, "0" without
  bool waits;         // at barriers or shuffles
  bool has_body() const { return end > body; }
};

class KernelText {
 public:
  explicit KernelText(std::string_view text);

  size_t size() const { return tokens_.size(); }
  const Token& token(size_t i) const { return tokens_[i]; }
  bool is(size_t i, std::string_view text) const {
    return i < tokens_.size() && tokens_[i].text == text;
  }
  bool is_word(size_t i) const { return i < tokens_.size() && tokens_[i].kind == TokenKind::word; }
  // Whether token `i` follows the one before it with nothing between.
  bool adjoins(size_t i) const { return i > 0 && tokens_[i].offset == end_of(i - 1); }

  // The kernel at the __global__ `at`; false when the text breaks off first.
  bool kernel_at(size_t at, KernelPlace& place) const;

  // The mark that closes the one at `open`. The branches of an #if open and close the same, so
  // only its last one counts.
  size_t closing(size_t open) const;

  // The tokens from `begin` up to `end`, without alignments: shared memory suits all types.
  std::string words(size_t begin, size_t end) const;

  // Tokens `first` to `last`, both included. Line breaks among them are kept.
  void replace(size_t first, size_t last, std::string text);
  void insert_before(size_t token, std::string text);
  void insert_behind(size_t token, std::string text);

  // The text with all edits made. Of those at one place the one that was asked for first stands
  // first; one that begins within another is left out.
  std::string apply();

 private:
  struct Edit {
    size_t begin, end;
    std::string text;
  };

  size_t end_of(size_t token) const { return tokens_[token].offset + tokens_[token].text.size(); }
  std::string first_argument(size_t begin, size_t close) const;

  std::string_view text_;
  std::vector<Token> tokens_;
  std::vector<Edit> edits_;
  bool macro_waits_ = false;
};

}  // namespace kevra_cpu
