#include <sys/utsname.h>

#include <cstdint>
#include <cstdio>

#include "common/device_header.hpp"

namespace ondrel_cpu {

std::string arch_word() {
  uint64_t h = 0xcbf29ce484222325ull;
  for (unsigned char c : device_header()) h = (h ^ c) * 0x100000001b3ull;
  utsname u{};
  const char* machine = uname(&u) == 0 ? u.machine : "unknown";
  char hex[9];
  std::snprintf(hex, sizeof hex, "%08x", static_cast<unsigned>(h ^ (h >> 32)));
  return std::string("cpu_") + machine + "_" + hex;
}

}  // namespace ondrel_cpu
