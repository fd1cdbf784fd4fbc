// The seal in front of every code object of the bundled runtimes: four
// 64-bit words, a marker naming the runtime, the size of the compiler's
// output behind the seal, a digest of that output, and a check of the three
// words before it.
//
// hipModuleLoadData receives no length, so the seal leads: the loader reads
// the marker byte by byte and stops at the first that differs, reads the
// other words only behind a whole marker, trusts the size only once the
// check vouches for it and it is within bounds, and hands the output on only
// once the digest matches. Given anything, it reads no further than a
// complete seal and the output that seal describes.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace ondrel_seal {

// Eight characters that name the runtime whose code object it is.
using Marker = char[8];

constexpr size_t kSealBytes = 32;
constexpr uint64_t kMaxOutput = uint64_t{1} << 30;

// The compiler's output found behind a valid seal; `size` 0 for none.
struct Unsealed {
  const unsigned char* bytes = nullptr;
  size_t size = 0;
};

// `output` (1 byte to kMaxOutput) behind its seal.
std::string seal(const Marker& marker, std::string_view output);

// The output behind the seal at `image`, or none when the marker, the check,
// the size's bounds or the digest disagree.
Unsealed unseal(const Marker& marker, const void* image);

}  // namespace ondrel_seal
