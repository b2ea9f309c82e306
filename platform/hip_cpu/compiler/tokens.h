// Kernel text cut into tokens: just enough of C++ to find kernels, their bodies and a handful
// of words in them, with comments, strings and preprocessor lines told apart.
#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

namespace kevra_cpu {

enum class TokenKind { word, number, string, mark };  // a mark is one punctuation character

struct Token {
  TokenKind kind;
  std::string_view text;
  size_t offset;      // of the first character in the whole text
  bool in_directive;  // part of a preprocessor line, continuations included
};

// Comments and blanks fall away. `text` must outlive the tokens.
std::vector<Token> tokenize(std::string_view text);

}  // namespace kevra_cpu
