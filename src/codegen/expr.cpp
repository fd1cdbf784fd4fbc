#include "codegen/expr.hpp"

#include <limits>
#include <stdexcept>

namespace ondrel::codegen {

namespace {

int level(Expr::Kind kind) {
  switch (kind) {
    case Expr::Add:
    case Expr::Sub: return 1;
    case Expr::Mul:
    case Expr::Div:
    case Expr::Mod: return 2;
    case Expr::Neg: return 3;
    default: return 4;
  }
}

const char* infix(Expr::Kind kind) {
  switch (kind) {
    case Expr::Add: return " + ";
    case Expr::Sub: return " - ";
    case Expr::Mul: return " * ";
    case Expr::Div: return " / ";
    default: return " % ";
  }
}

// Folding follows 64-bit two's-complement arithmetic, as the device would.
int64_t fold(Expr::Kind kind, int64_t a, int64_t b) {
  const auto ua = static_cast<uint64_t>(a), ub = static_cast<uint64_t>(b);
  switch (kind) {
    case Expr::Add: return static_cast<int64_t>(ua + ub);
    case Expr::Sub: return static_cast<int64_t>(ua - ub);
    case Expr::Mul: return static_cast<int64_t>(ua * ub);
    default: break;
  }
  if (b == 0) throw std::logic_error("codegen expr: division by the literal zero");
  if (a == std::numeric_limits<int64_t>::min() && b == -1) return kind == Expr::Div ? a : 0;
  return kind == Expr::Div ? a / b : a % b;
}

}  // namespace

Expr Expr::literal(int64_t v) { return make(Literal, v, {}, {}); }

Expr::Expr(std::string name)
    : node_(std::make_shared<const Node>(Node{Name, 0, std::move(name), {}})) {}

Expr Expr::make(Kind kind, int64_t value, std::string text, std::vector<Expr> kids) {
  return Expr(std::make_shared<const Node>(Node{kind, value, std::move(text), std::move(kids)}));
}

Expr Expr::binary(Kind kind, const Expr& a, const Expr& b) {
  if (a.is_literal() && b.is_literal()) return literal(fold(kind, a.node_->value, b.node_->value));
  return make(kind, 0, {}, {a, b});
}

Expr Expr::neg(const Expr& operand) { return make(Neg, 0, {}, {operand}); }
Expr Expr::index(const Expr& base, const Expr& at) { return make(Index, 0, {}, {base, at}); }
Expr Expr::member(const Expr& base, std::string field) {
  return make(Member, 0, std::move(field), {base});
}

std::string Expr::text() const {
  std::string out;
  print(out);
  return out;
}

void Expr::print_child(std::string& out, const Expr& child, bool right) const {
  if (child.empty()) return;
  const Kind parent = node_->kind, kid = child.node_->kind;
  bool parens;
  if (parent == Index || parent == Member)
    parens = level(kid) < 4;
  else
    parens = level(kid) < level(parent) ||
             (level(kid) == level(parent) && (right || kid != parent));
  if (parens) out += '(';
  child.print(out);
  if (parens) out += ')';
}

void Expr::print(std::string& out) const {
  if (!node_) return;
  const Node& n = *node_;
  switch (n.kind) {
    case Literal: out += std::to_string(n.value); return;
    case Name: out += n.text; return;
    case Neg:
      out += '-';
      print_child(out, n.kids[0], true);
      return;
    case Index:
      print_child(out, n.kids[0], false);
      out += '[';
      n.kids[1].print(out);
      out += ']';
      return;
    case Member:
      print_child(out, n.kids[0], false);
      out += '.';
      out += n.text;
      return;
    default:
      print_child(out, n.kids[0], false);
      out += infix(n.kind);
      print_child(out, n.kids[1], true);
      return;
  }
}

}  // namespace ondrel::codegen
