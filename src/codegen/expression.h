// Integer expressions composed while a kernel is written: literals fold, parentheses stand only
// where they are needed.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kevra::codegen {

struct Node;

// A value that shares its immutable node; copies are cheap. Converts from what index arithmetic
// is made of, so that `4 * tid_expr + "lane"` reads as the text that it prints.
struct Expr {
  Expr(int value) : Expr(static_cast<int64_t>(value)) {}
  Expr(int64_t value);
  Expr(std::string name);
  Expr(const char* name) : Expr(std::string(name)) {}
  explicit Expr(std::shared_ptr<const Node> of) : node(std::move(of)) {}

  std::string to_text() const;

  std::shared_ptr<const Node> node;
};

struct Node {
  enum Kind {
    kLiteral = 0,
    kName = 1,
    kAdd = 2,
    kSubtract = 3,
    kMultiply = 4,
    kDivide = 5,
    kRemainder = 6,
    kNegate = 7,
    kIndex = 8,
    kMember = 9,
  };
  Kind kind;
  int64_t value = 0;             // of a literal
  std::string text{};            // identifier of a name, field of a member
  std::vector<Expr> children{};  // operands; base and subscript of an index
};

// Two literals fold, on 64-bit integers truncating toward zero; anything else stays as written.
// A literal zero as a divisor is a generator's fault and not caught.
Expr binary(Node::Kind kind, const Expr& a, const Expr& b);
Expr operator+(const Expr& a, const Expr& b);
Expr operator-(const Expr& a, const Expr& b);
Expr operator*(const Expr& a, const Expr& b);
Expr operator/(const Expr& a, const Expr& b);
Expr operator%(const Expr& a, const Expr& b);

Expr negate(const Expr& a);
Expr index(const Expr& base, const Expr& subscript);
Expr member(const Expr& a, const std::string& field);

}  // namespace kevra::codegen
