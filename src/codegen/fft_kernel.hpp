#pragma once
// The stand-alone complex FFT of the shared-memory core (kernel family
// cfft_): rows of n elements, `fpb` rows a block, TPF threads a row. The
// inverse is the forward transform between conjugations, scaled by 1/n.
#include <cstdint>
#include <string>
#include <vector>

#include "codegen/backend.hpp"
#include "codegen/kernel_sig.hpp"

namespace ondrel::codegen {

// The head of every one-kernel complex FFT (the shared, tiled, cube and
// register cores): "ondrel_fft(x, out, tw, nrows)", rows of `iot`.
KernelParams fft_params();

// Elements of one row in shared memory: the row, with bank padding room when
// `pad`, and the scratch of its Rader stage.
int64_t fft_row_elements(int32_t n, bool pad);

// The entry function is "ondrel_fft(x, out, tw, nrows)". `io_prec` is the
// precision of global data (0 half, 1 single, 2 double), `compute_prec` that
// of the arithmetic; double kernels read their twiddles from `tw`.
std::string fft_kernel(int32_t n, const std::vector<int32_t>& schedule, int compute_prec, int32_t tpf,
                       const Backend& backend, bool inverse, int32_t fpb, int io_prec, bool pad);

}  // namespace ondrel::codegen
