#pragma once
// Kernels of Bluestein's algorithm: a length-n transform as a circular
// convolution of the smooth length m with the chirp filter. The fused form
// keeps both length-m transforms of a row in shared memory; the staged form
// is three element-wise kernels around two four-step transforms.
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

// Modes of the staged kernels: complex rows, real rows to half spectra, half
// spectra to real rows.
enum class BluesteinMode : int { complex = 0, real_forward = 1, real_inverse = 2 };

// Heads: the one-kernel forms "(x, out, tw, bch, filt, scale, nrows)" with
// rows of `in` and `out` and a `real` scale; the staged kernels "(x, out,
// bch)", "(z, filt)" and "(z, out, bch, scale)" of precision `prec` on data
// `io` (0 half, else full width) in `mode`.
KernelParams bluestein_row_params(const std::string& in, const std::string& out, const std::string& real);
KernelParams bluestein_pre_params(const Backend& backend, int prec, int io, BluesteinMode mode);
KernelParams bluestein_mul_params();
KernelParams bluestein_post_params(const Backend& backend, int prec, int io, BluesteinMode mode);

// "ondrel_bgpre(x, out, bch)": rows of the data times the chirp, zero
// padded to m. `io` 0 means half data, anything else the full width.
std::string bluestein_pre_kernel(int32_t n, int32_t m, int prec, int io, BluesteinMode mode, const Backend& backend);
// "ondrel_bgmul(z, filt)": the spectrum times the filter spectrum.
std::string bluestein_mul_kernel(int32_t m, int prec, const Backend& backend);
// "ondrel_bgpost(z, out, bch, scale)": the convolution times the chirp.
std::string bluestein_post_kernel(int32_t n, int32_t m, int prec, int io, BluesteinMode mode,
                                  const Backend& backend);

}  // namespace ondrel::codegen
