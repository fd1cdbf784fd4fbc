// A code object of this runtime is the shared object the host compiler
// wrote, behind the seal of the bundled runtimes (seal/code_seal.hpp). The
// loader opens nothing the seal does not vouch for, because a damaged object
// can crash the dynamic loader instead of failing to open.
#pragma once
#include <string>

#include "seal/code_seal.hpp"

namespace ondrel_cpu {

std::string sealed_object(const std::string& shared_object);

// The shared object of the code object at `image`; none unless the seal
// holds and the object is a 64-bit ELF whose header tables lie inside it,
// its section headers last, as the linker writes them.
ondrel_seal::Unsealed shared_object(const void* image);

}  // namespace ondrel_cpu
