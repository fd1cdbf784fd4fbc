#pragma once
// The register forms of the real-input FFT (routes crfftregs_ and
// cirfftregs_): the register core on M complex points with the real packing
// around it.
//
// Even n: one row, M = n / 2, samples 2j and 2j + 1 as the two parts of
// element j, and an even/odd split on the circle of n. Odd n (`pair`): two
// rows at once, M = n, one row in each part, split by symmetry alone.
//
// The exchange is component-wise through a shared row of reals; the forward
// form reuses that row as M complex values for the unpack, so its shared row
// holds max((ept + 1) * (M / ept) + 32, 2 M) reals, rounded up to even.
#include <cstdint>
#include <string>
#include <vector>

#include "codegen/backend.hpp"
#include "codegen/register_core.hpp"

namespace ondrel::codegen {

// Reals of one row of the shared exchange of these kernels on `shape` (M
// points, component-wise exchange): even, so that the complex view of the
// next row stays aligned.
int64_t real_register_row_reals(const RegisterShape& shape, bool inverse);

// "ondrel_rfft(x, out, tw, nrows)": real rows of n samples to n / 2 + 1 bins.
// `stages` factor m, each dividing `ept`. Half data (`io_prec` 0) compute in
// single precision; double kernels read the twiddle table of the real length.
std::string real_register_kernel(int32_t m, const std::vector<int32_t>& stages, int compute_prec,
                                 const Backend& backend, int32_t fpb, int32_t ept, int io_prec, bool pair);

// "ondrel_irfft(X, out, tw, nrows)": n / 2 + 1 bins to n real samples, the
// true inverse of the forward form. The imaginary part of bin 0, and for even
// n that of bin M, is taken as zero.
std::string inverse_real_register_kernel(int32_t m, const std::vector<int32_t>& stages, int compute_prec,
                                         const Backend& backend, int32_t fpb, int32_t ept, int io_prec, bool pair);

}  // namespace ondrel::codegen
