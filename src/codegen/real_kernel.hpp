#pragma once
// Real-input FFT kernels around a complex core: the packing of real rows
// into complex values before the transform and the unpacking after it.
// An even row of n samples packs into one complex row of M = n / 2; odd rows
// go two at a time into the real and imaginary parts of one n-point row.
#include <cstdint>
#include <string>
#include <vector>

#include "codegen/backend.hpp"
#include "codegen/kernel_sig.hpp"

namespace ondrel::codegen {

// The head of the real kernels: forward "(x, out[, tw], nrows)" from reals of
// `real_io` to `iot` bins, inverse "(X, out[, tw], nrows)" the reverse.
KernelParams real_params(bool inverse, const std::string& real_io, bool with_table);

// Closed forms for n of 1, 2 and 3, one thread a row, no transform:
// "ondrel_rfft_tiny(x, out, nrows)".
std::string real_tiny_kernel(int32_t n, int compute_prec, const Backend& backend, bool inverse, int io_prec);

// The shared-memory forms "ondrel_rfft(x, out, tw, nrows)" and
// "ondrel_irfft(X, out, tw, nrows)". `schedule` factors M (n when `pair`,
// else n / 2); `fpb` counts transforms a block (row pairs when `pair`).
std::string real_kernel(int32_t n, const std::vector<int32_t>& schedule, int compute_prec, int32_t tpf,
                        const Backend& backend, int32_t fpb, int io_prec, bool pair, bool pad);
std::string inverse_real_kernel(int32_t n, const std::vector<int32_t>& schedule, int compute_prec, int32_t tpf,
                                const Backend& backend, int32_t fpb, int io_prec, bool pair, bool pad);

}  // namespace ondrel::codegen
