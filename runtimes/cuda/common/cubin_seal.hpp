// A code object of this runtime is a cubin followed by a seal: a marker, the
// cubin's size and a hash of its bytes. The driver takes a cubin without its
// size and trusts the offsets inside it, so a truncated or altered file (a
// damaged cache entry, another runtime's code object) is refused here
// before the driver reads past its end.
#pragma once
#include <cstddef>
#include <string>

namespace ondrel_cuda {

// Appends the seal; false when the bytes are not a 64-bit CUDA ELF whose
// headers account for its whole size.
bool append_seal(std::string& cubin);

// The size of the sealed cubin at `image`, or 0 when the image is not one.
size_t sealed_cubin_size(const unsigned char* image);

}  // namespace ondrel_cuda
