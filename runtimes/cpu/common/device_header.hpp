// The device header that every program is compiled behind, built into the
// libraries, and the architecture word derived from it.
#pragma once
#include <string>
#include <string_view>

namespace ondrel_cpu {

std::string_view device_header();

// "cpu_<machine>_<8 hex digits of the header's hash>": code objects built
// behind another header, or for another machine, never match the name.
std::string arch_word();

}  // namespace ondrel_cpu
