#pragma once
// IEEE binary16 on the host, for tables that half kernels read.
#include <cstdint>

namespace ondrel {

// The nearest half (ties to even) of x, as its bits; overflow gives
// infinity, and NaN stays NaN.
uint16_t half_bits(double x);

// One half in memory, made from a double with a single rounding.
struct Half {
  uint16_t bits = 0;
  Half() = default;
  Half(double x) : bits(half_bits(x)) {}
};

}  // namespace ondrel
