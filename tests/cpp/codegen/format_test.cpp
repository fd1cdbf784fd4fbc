#include <gtest/gtest.h>

#include <stdexcept>

#include "codegen/format.hpp"

using ondrel::codegen::format;

namespace {

std::string error_of(std::string_view tmpl, const std::vector<ondrel::codegen::FormatArg>& args) {
  try {
    format(tmpl, args);
  } catch (const std::logic_error& e) {
    return e.what();
  }
  return "no error";
}

TEST(Format, FillsLeftToRightWithIntegersInDecimal) {
  EXPECT_EQ(format("", {}), "");
  EXPECT_EQ(format("I64 $ = $ * $;", {"i", 256, -3}), "I64 i = 256 * -3;");
  EXPECT_EQ(format("$$", {"a", "b"}), "ab");
  EXPECT_EQ(format("x", {}), "x");
  EXPECT_EQ(format("$", {int64_t{1} << 40}), "1099511627776");
}

TEST(Format, ArgumentTextIsNotScannedAgain) {
  EXPECT_EQ(format("$", {"$"}), "$");
  EXPECT_EQ(format("$-$", {"$", "b"}), "$-b");
}

TEST(Format, CountMismatchNamesTheTemplate) {
  EXPECT_EQ(error_of("a$b", {}), "codegen format: too few args: a$b");
  EXPECT_EQ(error_of("$ $", {"x"}), "codegen format: too few args: $ $");
  EXPECT_EQ(error_of("ab", {"x"}), "codegen format: too many args: ab");
}

}  // namespace
