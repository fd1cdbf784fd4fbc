#include "codegen/format.hpp"

#include <stdexcept>

namespace ondrel::codegen {

std::string format(std::string_view tmpl, const std::vector<FormatArg>& args) {
  std::string out;
  out.reserve(tmpl.size() + 16 * args.size());
  size_t next = 0;
  for (char ch : tmpl) {
    if (ch != '$') {
      out += ch;
      continue;
    }
    if (next == args.size())
      throw std::logic_error("codegen format: too few args: " + std::string(tmpl));
    out += args[next++].text;
  }
  if (next != args.size())
    throw std::logic_error("codegen format: too many args: " + std::string(tmpl));
  return out;
}

}  // namespace ondrel::codegen
