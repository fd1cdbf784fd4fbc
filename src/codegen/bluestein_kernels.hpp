#pragma once
// Kernels of Bluestein's algorithm: a length-n transform as a circular
// convolution of the smooth length m with the chirp filter. The fused form
// keeps both length-m transforms of a row in shared memory; the staged form
// is four four-step passes with the chirp and filter steps folded into their
// loads and stores (codegen/four_step_kernels.hpp).
#include <cstdint>
#include <string>
#include <vector>

#include "codegen/backend.hpp"
#include "codegen/kernel_sig.hpp"

namespace ondrel::codegen {

// Elements of one row of the one-kernel forms in shared memory: m padded by
// SHP, with the Rader scratch of m.
int64_t bluestein_row_elements(int32_t m, int prec);


// "ondrel_fft(x, out, tw, bch, filt, scale, nrows)", one row a block of
// `tpf` threads. The inverse convolution pass runs conjugated stages whose
// gain is the product of the prime radices of `schedule`; `scale` undoes it.
// The direction lives in the chirp tables and `scale`, not in the text.
std::string bluestein_fused_kernel(int32_t n, int32_t m, const std::vector<int32_t>& schedule, int prec,
                                   int32_t tpf, const Backend& backend);

// Two real rows as one complex row, float only: "ondrel_rfft(x, out, tw,
// bch, filt, scale, nrows)" takes real rows to half spectra, "ondrel_irfft"
// half spectra to real rows. A block takes rows 2b and 2b + 1; an odd last
// row pairs with itself and its partner's result is dropped.
std::string bluestein_pair_kernel(int32_t n, int32_t m, const std::vector<int32_t>& schedule, int32_t tpf,
                                  bool inverse, const Backend& backend);

// Modes of the staged form: complex rows, real rows to half spectra, half
// spectra to real rows.
enum class BluesteinMode : int { complex = 0, real_forward = 1, real_inverse = 2 };

// Heads of the one-kernel forms "(x, out, tw, bch, filt, scale, nrows)" with
// rows of `in` and `out` and a `real` scale.
KernelParams bluestein_row_params(const std::string& in, const std::string& out, const std::string& real);

}  // namespace ondrel::codegen
