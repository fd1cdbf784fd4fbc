// A code object is the shared object's bytes followed by a seal: a marker,
// the object's size and a hash of its bytes. The loader checks the seal
// before the dynamic loader ever sees the bytes, because a damaged object
// can crash the dynamic loader instead of failing to open.
#pragma once
#include <cstddef>
#include <string>

namespace ondrel_cpu {

void append_seal(std::string& object);

// The size of the sealed object at `image`, or 0 when the image is not one
// (another format, truncated, or altered).
size_t sealed_object_size(const unsigned char* image);

}  // namespace ondrel_cpu
