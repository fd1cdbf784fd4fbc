#pragma once
// The direct convolution: one thread an output sample, summing the overlap
// of the kernel with the signal in the time domain. 256 threads a block
// over one row, the row on the grid's y axis.
#include <string>

#include "codegen/backend.hpp"
#include "codegen/kernel_sig.hpp"

namespace ondrel::codegen {

// "(const S* a, const S* b, S* y, I64 n, I64 m, I64 L, I64 start, int bshare)"
KernelParams convdir_params();

// "ondrel_convdir": y[r][i] = sum over j of b[j] a[r][start + i - j], the
// sum bounded by the overlap so that nothing outside a row is read, in the
// arithmetic of `compute` on data of `storage` (0 half, else the same).
std::string convdir_kernel(int compute, int storage, const Backend& backend);

}  // namespace ondrel::codegen
