#include "codegen/expression.h"

namespace kevra::codegen {
namespace {

constexpr int kPrimaryLevel = 4;

// How tightly a node binds.
int level(const Node& n) {
  switch (n.kind) {
    case Node::kAdd:
    case Node::kSubtract:
      return 1;
    case Node::kMultiply:
    case Node::kDivide:
    case Node::kRemainder:
      return 2;
    case Node::kNegate:
      return 3;
    default:
      return kPrimaryLevel;
  }
}

const char* operator_text(Node::Kind kind) {
  switch (kind) {
    case Node::kAdd:
      return " + ";
    case Node::kSubtract:
      return " - ";
    case Node::kMultiply:
      return " * ";
    case Node::kDivide:
      return " / ";
    default:
      return " % ";
  }
}

int64_t fold(Node::Kind kind, int64_t a, int64_t b) {
  switch (kind) {
    case Node::kAdd:
      return a + b;
    case Node::kSubtract:
      return a - b;
    case Node::kMultiply:
      return a * b;
    case Node::kDivide:
      return a / b;
    default:
      return a % b;
  }
}

Expr make(Node node) {
  return Expr(std::make_shared<const Node>(std::move(node)));
}

// A child on the left of a mix such as a * b / c is wrapped too: the text then shows the order of
// integer divisions.
std::string child_text(const Node& parent, const Expr& child, bool right) {
  const int own = level(*child.node);
  const int outer = level(parent);
  bool wrap = own < outer;
  if (own == outer && own < kPrimaryLevel) wrap = right || child.node->kind != parent.kind;
  // Two minus signs in a row would read as a decrement.
  if (parent.kind == Node::kNegate && child.node->kind == Node::kLiteral) {
    wrap = child.node->value < 0;
  }
  return wrap ? "(" + child.to_text() + ")" : child.to_text();
}

}  // namespace

Expr::Expr(int64_t value)
    : node(std::make_shared<const Node>(Node{.kind = Node::kLiteral, .value = value})) {}
Expr::Expr(std::string name)
    : node(std::make_shared<const Node>(Node{.kind = Node::kName, .text = std::move(name)})) {}

std::string Expr::to_text() const {
  const Node& n = *node;
  switch (n.kind) {
    case Node::kLiteral:
      return std::to_string(n.value);
    case Node::kName:
      return n.text;
    case Node::kNegate:
      return "-" + child_text(n, n.children[0], true);
    case Node::kIndex:
      return child_text(n, n.children[0], false) + "[" + n.children[1].to_text() + "]";
    case Node::kMember:
      return child_text(n, n.children[0], false) + "." + n.text;
    default:
      return child_text(n, n.children[0], false) + operator_text(n.kind) +
             child_text(n, n.children[1], true);
  }
}

Expr binary(Node::Kind kind, const Expr& a, const Expr& b) {
  if (a.node->kind == Node::kLiteral && b.node->kind == Node::kLiteral) {
    return {fold(kind, a.node->value, b.node->value)};
  }
  return make({.kind = kind, .children = {a, b}});
}
Expr operator+(const Expr& a, const Expr& b) {
  return binary(Node::kAdd, a, b);
}
Expr operator-(const Expr& a, const Expr& b) {
  return binary(Node::kSubtract, a, b);
}
Expr operator*(const Expr& a, const Expr& b) {
  return binary(Node::kMultiply, a, b);
}
Expr operator/(const Expr& a, const Expr& b) {
  return binary(Node::kDivide, a, b);
}
Expr operator%(const Expr& a, const Expr& b) {
  return binary(Node::kRemainder, a, b);
}

Expr negate(const Expr& a) {
  return make({.kind = Node::kNegate, .children = {a}});
}
Expr index(const Expr& base, const Expr& subscript) {
  return make({.kind = Node::kIndex, .children = {base, subscript}});
}
Expr member(const Expr& a, const std::string& field) {
  return make({.kind = Node::kMember, .text = field, .children = {a}});
}

}  // namespace kevra::codegen
