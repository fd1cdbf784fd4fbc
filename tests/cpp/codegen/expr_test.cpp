#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

#include "codegen/expr.hpp"

using ondrel::codegen::Expr;

namespace {

TEST(Expr, LiteralsFoldWithTruncatingDivision) {
  const Expr p = Expr(6) * Expr(7);
  ASSERT_TRUE(p.is_literal());
  EXPECT_EQ(p.node().value, 42);
  EXPECT_EQ((Expr(7) / Expr(2)).text(), "3");
  EXPECT_EQ((Expr(-7) / Expr(2)).text(), "-3");
  EXPECT_EQ((Expr(-7) % Expr(2)).text(), "-1");
  EXPECT_EQ((Expr(3) - Expr(5)).text(), "-2");
  EXPECT_EQ((Expr(int64_t{1} << 40) + Expr(1)).text(), "1099511627777");
}

TEST(Expr, FoldingWrapsLikeTheDevice) {
  const int64_t lo = std::numeric_limits<int64_t>::min();
  EXPECT_EQ((Expr(std::numeric_limits<int64_t>::max()) + Expr(1)).node().value, lo);
  EXPECT_EQ((Expr(lo) / Expr(-1)).node().value, lo);
  EXPECT_EQ((Expr(lo) % Expr(-1)).node().value, 0);
  EXPECT_THROW(Expr(1) / Expr(0), std::logic_error);
}

TEST(Expr, NoSimplificationBeyondFolding) {
  EXPECT_EQ((Expr("a") + Expr(0)).text(), "a + 0");
  EXPECT_EQ((Expr("x") * Expr(1)).text(), "x * 1");
  // Only adjacent literal operands fold; a + 1 + 2 keeps both literals.
  EXPECT_EQ((Expr("a") + Expr(1) + Expr(2)).text(), "a + 1 + 2");
  EXPECT_EQ((Expr("a") + (Expr(1) + Expr(2))).text(), "a + 3");
}

struct PrintCase {
  Expr e;
  const char* text;
};

void PrintTo(const PrintCase& c, std::ostream* os) { *os << c.text; }

class ExprPrint : public testing::TestWithParam<PrintCase> {};

TEST_P(ExprPrint, ParenthesesOnlyWhereGroupingNeedsThem) {
  EXPECT_EQ(GetParam().e.text(), GetParam().text);
}

const Expr a("a"), b("b"), c("c");

INSTANTIATE_TEST_SUITE_P(
    Cases, ExprPrint,
    testing::Values(PrintCase{(a + Expr(1)) * b, "(a + 1) * b"},
                    PrintCase{a + (b + Expr(1)), "a + (b + 1)"},
                    PrintCase{(a + b) + Expr(1), "a + b + 1"},
                    PrintCase{(a + b) - c, "(a + b) - c"},
                    PrintCase{(a - b) + c, "(a - b) + c"},
                    PrintCase{a - (b - c), "a - (b - c)"},
                    PrintCase{a * (b * c), "a * (b * c)"},
                    PrintCase{a * b * c, "a * b * c"},
                    PrintCase{(a * b) / c, "(a * b) / c"},
                    PrintCase{a / b % c, "(a / b) % c"},
                    PrintCase{a + b * c, "a + b * c"},
                    PrintCase{a * b + c, "a * b + c"},
                    PrintCase{a - b * c, "a - b * c"},
                    PrintCase{Expr::neg(a), "-a"},
                    PrintCase{Expr::neg(a + b), "-(a + b)"},
                    PrintCase{Expr::neg(a * b), "-(a * b)"},
                    PrintCase{Expr::neg(Expr::neg(a)), "-(-a)"},
                    PrintCase{Expr::neg(a) * b, "-a * b"},
                    PrintCase{Expr::index(a, b + Expr(1)), "a[b + 1]"},
                    PrintCase{Expr::index(a + b, c), "(a + b)[c]"},
                    PrintCase{Expr::member(Expr::index(a, b), "x"), "a[b].x"},
                    PrintCase{Expr::member(Expr::neg(a), "y"), "(-a).y"},
                    PrintCase{Expr(-1) * a, "-1 * a"}));

TEST(Expr, SubtreesAreSharedNotCopied) {
  const Expr base = a * Expr(16);
  const Expr left = base + Expr(1), right = base + Expr(2);
  EXPECT_EQ(&left.node().kids[0].node(), &right.node().kids[0].node());
  EXPECT_EQ(left.text(), "a * 16 + 1");
}

}  // namespace
