#include "math/half.hpp"

#include <cstring>

namespace ondrel {

uint16_t half_bits(double x) {
  uint64_t b;
  std::memcpy(&b, &x, sizeof b);
  const auto sign = static_cast<uint16_t>((b >> 48) & 0x8000);
  const auto exponent = static_cast<int32_t>((b >> 52) & 0x7ff);
  uint64_t mantissa = b & ((uint64_t{1} << 52) - 1);
  if (exponent == 0x7ff) return sign | 0x7c00 | (mantissa ? 0x200 : 0);
  const int32_t e = exponent - 1023 + 15;
  if (e >= 31) return sign | 0x7c00;
  // Normal halves keep 10 of the 52 bits; subnormal ones fewer, with the
  // implicit bit made explicit. What is cut off decides the rounding.
  int32_t shift = 42;
  uint64_t kept_base = static_cast<uint64_t>(e) << 10;
  if (e <= 0) {
    if (e < -10) return sign;
    mantissa |= uint64_t{1} << 52;
    shift = 43 - e;
    kept_base = 0;
  }
  uint64_t kept = kept_base | (mantissa >> shift);
  const uint64_t cut = mantissa & ((uint64_t{1} << shift) - 1), halfway = uint64_t{1} << (shift - 1);
  if (cut > halfway || (cut == halfway && (kept & 1))) ++kept;  // a carry into the exponent is right
  return static_cast<uint16_t>(sign | kept);
}

}  // namespace ondrel
