#pragma once
// A complex FFT on the CPU: rows of `n` complex values, real and imaginary
// parts interleaved, rows packed. Plans live for the process; rows may
// spread over the host FFT's thread pool.
#include <cstdint>

#include "host_fft/host_factors.hpp"

namespace ondrel::host {

// Transforms `rows` rows from `in` to `out` (which may be the same array).
// The inverse is scaled by 1 / n, the forward direction is not. Throws
// std::invalid_argument for `n` below 1.
template <class T>
void host_fft(const T* in, T* out, int64_t rows, int32_t n, bool inverse);

}  // namespace ondrel::host
