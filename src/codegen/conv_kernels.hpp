#pragma once
// The element-wise kernels of the FFT convolutions: zero padding (with the
// conversion of half data on the way in), the product of two spectra, and
// the cut of the wanted window (with the conversion on the way out). Each
// runs 256 threads a block over one row, the row on the grid's y axis.
// Digits: 0 half, 1 single, 2 double; `compute` is the arithmetic, `storage`
// the data in global memory (the arithmetic's own, or 0 for half).
#include <string>

#include "codegen/backend.hpp"
#include "codegen/kernel_sig.hpp"

namespace ondrel::codegen {

// "(const S* x, T* out, I64 n, I64 plen)"
KernelParams convpad_params();
// "(const cplx* w, cplx* z, I64 nb, int bstride)"
KernelParams convmul_params();
// "(const T* x, S* y, I64 nf, I64 start, I64 outlen)"
KernelParams convslice_params();

// "ondrel_convpad": out[row][j] = j < n ? x[row][j] : 0 for j below plen.
std::string convpad_kernel(int compute, int storage, const Backend& backend);
// "ondrel_convmul": z[row][i] *= w[bstride ? row : 0][i] for i below nb.
std::string convmul_kernel(int prec, const Backend& backend);
// "ondrel_convslice": y[row][j] = x[row][start + j] for j below outlen.
std::string convslice_kernel(int compute, int storage, const Backend& backend);

}  // namespace ondrel::codegen
