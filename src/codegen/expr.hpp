#pragma once
// Integer index expressions for kernel text. Literal operands fold on the
// host, so the text carries no constant arithmetic; nothing else is
// simplified ("x * 1" stays). Printing adds only the parentheses that the
// grouping needs. Nodes never change once made, so subtrees are shared.
#include <concepts>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace ondrel::codegen {

class Expr {
 public:
  enum Kind : int32_t { Literal = 0, Name, Add, Sub, Mul, Div, Mod, Neg, Index, Member };

  struct Node {
    Kind kind;
    int64_t value;
    std::string text;
    std::vector<Expr> kids;
  };

  Expr() = default;
  template <std::integral I>
    requires(!std::same_as<I, bool> && !std::same_as<I, char>)
  Expr(I v) : Expr(literal(static_cast<int64_t>(v))) {}
  Expr(std::string name);
  Expr(const char* name) : Expr(std::string(name)) {}

  static Expr neg(const Expr& operand);
  static Expr index(const Expr& base, const Expr& at);
  static Expr member(const Expr& base, std::string field);

  bool empty() const { return !node_; }
  const Node& node() const { return *node_; }
  bool is_literal() const { return node_ && node_->kind == Literal; }
  std::string text() const;

  friend Expr operator+(const Expr& a, const Expr& b) { return binary(Add, a, b); }
  friend Expr operator-(const Expr& a, const Expr& b) { return binary(Sub, a, b); }
  friend Expr operator*(const Expr& a, const Expr& b) { return binary(Mul, a, b); }
  friend Expr operator/(const Expr& a, const Expr& b) { return binary(Div, a, b); }
  friend Expr operator%(const Expr& a, const Expr& b) { return binary(Mod, a, b); }

 private:
  explicit Expr(std::shared_ptr<const Node> n) : node_(std::move(n)) {}
  static Expr literal(int64_t v);
  static Expr make(Kind kind, int64_t value, std::string text, std::vector<Expr> kids);
  static Expr binary(Kind kind, const Expr& a, const Expr& b);
  void print(std::string& out) const;
  void print_child(std::string& out, const Expr& child, bool right) const;

  std::shared_ptr<const Node> node_;
};

}  // namespace ondrel::codegen
