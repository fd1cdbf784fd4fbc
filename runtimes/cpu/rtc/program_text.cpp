#include "rtc/program_text.hpp"

#include <algorithm>
#include <cctype>

#include "common/device_header.hpp"

namespace ondrel_cpu {
namespace {

bool ident_char(char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; }

size_t skip_space(std::string_view s, size_t i) {
  while (i < s.size() && std::isspace(static_cast<unsigned char>(s[i]))) ++i;
  return i;
}

// Position of the next whole-word `word` at or after `from`, or npos.
size_t find_word(std::string_view s, std::string_view word, size_t from) {
  for (size_t i = s.find(word, from); i != std::string_view::npos; i = s.find(word, i + 1)) {
    const bool left = i == 0 || !ident_char(s[i - 1]);
    const bool right = i + word.size() >= s.size() || !ident_char(s[i + word.size()]);
    if (left && right) return i;
  }
  return std::string_view::npos;
}

size_t skip_ident(std::string_view s, size_t i) {
  while (i < s.size() && ident_char(s[i])) ++i;
  return i;
}

// Index just past the parenthesis that closes the one at `open`.
size_t skip_parens(std::string_view s, size_t open) {
  int depth = 0;
  for (size_t i = open; i < s.size(); ++i) {
    if (s[i] == '(') ++depth;
    if (s[i] == ')' && --depth == 0) return i + 1;
  }
  return s.size();
}

}  // namespace

std::vector<std::string> kernel_names(std::string_view text) {
  std::vector<std::string> names;
  for (size_t at = find_word(text, "__global__", 0); at != std::string_view::npos;
       at = find_word(text, "__global__", at + 1)) {
    size_t i = skip_space(text, at + 10);
    if (text.substr(i, 4) != "void") continue;
    i = skip_space(text, i + 4);
    if (text.substr(i, 17) == "__launch_bounds__") {
      i = skip_space(text, i + 17);
      if (i < text.size() && text[i] == '(') i = skip_space(text, skip_parens(text, i));
    }
    const size_t end = skip_ident(text, i);
    if (end == i || skip_space(text, end) >= text.size() || text[skip_space(text, end)] != '(') continue;
    std::string name(text.substr(i, end - i));
    if (std::find(names.begin(), names.end(), name) == names.end()) names.push_back(std::move(name));
  }
  return names;
}

std::string rewrite_dynamic_shared(std::string_view text) {
  std::string out;
  size_t done = 0;
  for (size_t at = find_word(text, "extern", 0); at != std::string_view::npos;
       at = find_word(text, "extern", at + 1)) {
    const size_t q = skip_space(text, at + 6);
    if (text.substr(q, 10) != "__shared__" || (q + 10 < text.size() && ident_char(text[q + 10]))) continue;
    const size_t semi = text.find(';', q);
    const size_t bracket = text.find('[', q);
    if (semi == std::string_view::npos || bracket == std::string_view::npos || bracket > semi) continue;
    size_t name_end = bracket;
    while (name_end > q && std::isspace(static_cast<unsigned char>(text[name_end - 1]))) --name_end;
    size_t name_begin = name_end;
    while (name_begin > q && ident_char(text[name_begin - 1])) --name_begin;
    const std::string_view type = text.substr(q + 10, name_begin - q - 10);
    const std::string_view name = text.substr(name_begin, name_end - name_begin);
    out.append(text.substr(done, at - done));
    std::string decl = std::string(type) + "* " + std::string(name) + " = static_cast<" + std::string(type) +
                       "*>(::ondrel_cpu_device::ctx.shared);";
    // Keep the line count of the original declaration.
    decl.append(static_cast<size_t>(std::count(text.begin() + at, text.begin() + semi, '\n')), '\n');
    out += decl;
    done = semi + 1;
    at = semi;
  }
  out.append(text.substr(done));
  return out;
}

std::string program_unit(std::string_view text, const std::string& file_name) {
  std::string unit(device_header());
  unit += "\n#line 1 \"" + file_name + "\"\n";
  unit += rewrite_dynamic_shared(text);
  unit += "\n#line 1 \"ondrel_cpu_entries\"\n";
  for (const std::string& k : kernel_names(text)) {
    unit += "ONDREL_CPU_EXPORT void ondrel_cpu_entry_" + k + "(void** a) { ::ondrel_cpu_device::invoke(" + k +
            ", a); }\n";
    unit += "ONDREL_CPU_EXPORT const ::ondrel_cpu::ParamLayout ondrel_cpu_params_" + k +
            " = ::ondrel_cpu_device::layout_of(" + k + ");\n";
  }
  return unit;
}

}  // namespace ondrel_cpu
