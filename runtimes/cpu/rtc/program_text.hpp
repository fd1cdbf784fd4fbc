// Turns kernel text in the HIP dialect into a C++ translation unit for the
// host compiler.
#pragma once
#include <string>
#include <string_view>
#include <vector>

namespace ondrel_cpu {

// Names of the functions declared `__global__` in `text`, in order, each once.
std::vector<std::string> kernel_names(std::string_view text);

// `text` with every `extern __shared__ T name[];` replaced, on the same line,
// by a pointer to the launch's dynamic shared memory.
std::string rewrite_dynamic_shared(std::string_view text);

// The whole unit: the device header, the rewritten kernel text under its own
// file name (so diagnostics carry the kernel's line numbers), and for each
// kernel an exported entry taking HIP's argument array plus its parameter
// layout.
std::string program_unit(std::string_view text, const std::string& file_name);

}  // namespace ondrel_cpu
