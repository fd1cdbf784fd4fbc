#pragma once
// `$` templates: each "$" takes the next argument, left to right. There is no
// escape, and argument text is never scanned again, so an argument may hold "$".
#include <concepts>
#include <string>
#include <string_view>
#include <vector>

namespace ondrel::codegen {

// One template argument: text as it stands, integers in decimal.
struct FormatArg {
  std::string text;
  FormatArg(std::string s) : text(std::move(s)) {}
  FormatArg(const char* s) : text(s) {}
  FormatArg(std::string_view s) : text(s) {}
  template <std::integral I>
    requires(!std::same_as<I, char> && !std::same_as<I, bool>)
  FormatArg(I v) : text(std::to_string(v)) {}
};

// Throws std::logic_error when the counts of "$" and arguments differ: a
// wrong template is a fault of its generator, never of user input.
std::string format(std::string_view tmpl, const std::vector<FormatArg>& args);

}  // namespace ondrel::codegen
