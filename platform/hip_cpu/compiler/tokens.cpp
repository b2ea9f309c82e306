#include "compiler/tokens.h"

namespace kevra_cpu {

namespace {

bool is_word_character(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

class Scanner {
 public:
  explicit Scanner(std::string_view text) : text_(text) {}

  std::vector<Token> scan() {
    while (at_ < text_.size()) step();
    return std::move(tokens_);
  }

 private:
  char peek(size_t ahead = 0) const {
    return at_ + ahead < text_.size() ? text_[at_ + ahead] : '\0';
  }

  void step() {
    const char c = peek();
    if (c == '\n') {
      line_start_ = true;
      directive_ = false;
      ++at_;
    } else if (c == '\\' && peek(1) == '\n') {
      at_ += 2;  // a continued line stays what it is
    } else if (c == ' ' || c == '\t' || c == '\r' || c == '\f' || c == '\v') {
      ++at_;
    } else if (c == '/' && peek(1) == '/') {
      at_ = end_of("\n", at_, 0);
    } else if (c == '/' && peek(1) == '*') {
      at_ = end_of("*/", at_ + 2, 2);
    } else {
      if (line_start_ && c == '#') directive_ = true;
      line_start_ = false;
      token(c);
    }
  }

  size_t end_of(std::string_view what, size_t from, size_t beyond) const {
    const size_t found = text_.find(what, from);
    return found == std::string_view::npos ? text_.size() : found + beyond;
  }

  void token(char c) {
    size_t end = at_ + 1;
    TokenKind kind = TokenKind::mark;
    if (is_word_character(c)) {
      const bool number = c >= '0' && c <= '9';
      kind = number ? TokenKind::number : TokenKind::word;
      while (end < text_.size() && (is_word_character(text_[end]) || (number && text_[end] == '.')))
        ++end;
    } else if (c == '"' || c == '\'') {
      kind = TokenKind::string;
      while (end < text_.size() && text_[end] != c && text_[end] != '\n')
        end += text_[end] == '\\' ? 2 : 1;
      end = end < text_.size() ? end + 1 : text_.size();
    }
    tokens_.push_back({kind, text_.substr(at_, end - at_), at_, directive_});
    at_ = end;
  }

  std::string_view text_;
  std::vector<Token> tokens_;
  size_t at_ = 0;
  bool line_start_ = true, directive_ = false;
};

}  // namespace

std::vector<Token> tokenize(std::string_view text) {
  return Scanner(text).scan();
}

}  // namespace kevra_cpu
