#pragma once
// The stand-alone complex FFT of the shared-memory core (kernel family
// cfft_): rows of n elements, `fpb` rows a block, TPF threads a row. The
// inverse is the forward transform between conjugations, scaled by 1/n.
#include <cstdint>
#include <string>
#include <vector>

#include "codegen/backend.hpp"

namespace ondrel::codegen {

// The entry function is "ondrel_fft(x, out, tw, nrows)". `io_prec` is the
// precision of global data (0 half, 1 single, 2 double), `compute_prec` that
// of the arithmetic; double kernels read their twiddles from `tw`.
std::string fft_kernel(int32_t n, const std::vector<int32_t>& schedule, int compute_prec, int32_t tpf,
                       const Backend& backend, bool inverse, int32_t fpb, int io_prec, bool pad);

}  // namespace ondrel::codegen
