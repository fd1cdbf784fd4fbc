// The kernel text as NVRTC compiles it: HIP-dialect source behind a short
// header that supplies what HIP spells differently from CUDA.
#pragma once
#include <string>

namespace ondrel_cuda {

// `source` behind the compatibility header; a #line directive keeps NVRTC's
// messages at the lines of `source` under the program's `name`.
std::string program_text(const std::string& source, const std::string& name);

}  // namespace ondrel_cuda
