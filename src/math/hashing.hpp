#pragma once
// The two hash steps that every cache key of the runtime is built from.
#include <cstddef>
#include <cstdint>

namespace ondrel {

// The start value of this system's FNV-1a hashes. Deliberately not the
// standard offset basis, so that our keys never coincide with those of other
// caches that hash the same bytes.
constexpr uint64_t kFnvStart = 0x14650fb0739d0383ULL;
constexpr uint64_t kFnvPrime = 0x100000001b3ULL;

constexpr uint64_t combine(uint64_t h, uint64_t v) {
  return h ^ (v + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2));
}

inline uint64_t fnv1a(const void* data, size_t bytes, uint64_t h = kFnvStart) {
  const auto* p = static_cast<const unsigned char*>(data);
  for (size_t i = 0; i < bytes; ++i) h = (h ^ p[i]) * kFnvPrime;
  return h;
}

// Signed 32-bit arguments enter keys widened with their sign.
constexpr uint64_t widen(int32_t v) { return static_cast<uint64_t>(static_cast<int64_t>(v)); }

}  // namespace ondrel
