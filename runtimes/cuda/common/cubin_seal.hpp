// A code object of this runtime is a cubin behind the seal of the bundled
// runtimes (seal/code_seal.hpp). The driver takes a cubin without its size
// and trusts the offsets inside it, so a truncated or altered file (a damaged
// cache entry, another runtime's code object) is refused here before the
// driver reads it.
#pragma once
#include <optional>
#include <string>

#include "seal/code_seal.hpp"

namespace ondrel_cuda {

// The sealed code object; none when the bytes are not a 64-bit CUDA ELF
// whose headers account for its whole size.
std::optional<std::string> sealed_cubin(const std::string& cubin);

// The cubin of the code object at `image`; none unless the seal holds and
// the cubin is such an ELF.
ondrel_seal::Unsealed cubin_of(const void* image);

}  // namespace ondrel_cuda
