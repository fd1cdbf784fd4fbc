#pragma once
// The adjoint of the FFT convolutions: one correlation by FFT that serves
// the gradient of the signal and that of the kernel. gy (rows of len_g) is
// placed at `off` in rows of nf zeros, w (rows_w of len_w, 1 or rows)
// reversed in time (and conjugated when complex) at 0; their circular
// convolution of length nf is cut at [sl_start, sl_start + sl_len), per row
// or, with sum_rows, summed over the rows.
#include <cstdint>
#include <vector>

#include "codegen/conv_adjoint_kernels.hpp"
#include "cuda_like/launch/launch_record.hpp"
#include "math/precision.hpp"

namespace ondrel {

struct ConvAdjointCall {
  int64_t rows = 0, rows_w = 1, len_g = 0, len_w = 0, nf = 0, off = 0, sl_start = 0, sl_len = 0;
  bool sum_rows = false;
  bool complex = false;
};

// The refusals, in order, as std::invalid_argument: w rows, the lengths,
// nf, the placement of gy and w inside nf, the slice inside nf; then
// std::runtime_error "ondrel_convstage: batch exceeds grid.y limit" above
// 65535 rows.
void check_conv_adjoint(const ConvAdjointCall& call);

// Enqueued on `stream`. Real rows: half data (storage 0) or full width;
// complex rows are full width.
void conv_adjoint(const void* gy, const void* w, void* out, const ConvAdjointCall& call, const Precision& prec,
                  int32_t device, void* stream);

// Every kernel one call compiles: the placing, product, slice and row-sum
// kernels and the transforms of nf.
std::vector<KernelPlan> conv_adjoint_kernels(const ConvAdjointCall& call, const Precision& prec,
                                             uint64_t shared_limit);

}  // namespace ondrel
