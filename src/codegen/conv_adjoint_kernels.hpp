#pragma once
// The element-wise kernels of the convolution adjoint, a correlation by
// FFT: placing a row into a cleared FFT buffer (at an offset, optionally
// reversed in time and conjugated), and the sum of the result's rows. 256
// threads a block. Digits: 0 half, 1 single, 2 double; complex data is
// never half.
#include <string>

#include "codegen/backend.hpp"
#include "codegen/kernel_sig.hpp"

namespace ondrel::codegen {

// How one row is placed.
struct ConvStage {
  int compute = 1;
  int storage = 1;  // 0: half real data
  bool complex = false;
  bool conjugate = false;  // complex only
  bool reverse = false;
};

// "(const S* x, O* out, I64 len, I64 nf, I64 off)": O is cplx for complex
// data, else T; S the same, or __half for half data.
KernelParams convstage_params(const ConvStage& stage);
// "(const O* x, S* y, I64 rows, I64 len)"
KernelParams convrowsum_params(const ConvStage& stage);

// The key stem "convstage_<compute>_<storage>" then "_x" for complex, "_c"
// for conjugation, "_r" for reversal.
std::string convstage_key(const ConvStage& stage);
// "convrowsum_" and the stem above without conjugation and reversal.
std::string convrowsum_key(const ConvStage& stage);

// "ondrel_convstage": out[row][off + j] = x[row][j] (or x[row][len - 1 - j]
// reversed, conjugated for complex data) for j below len, the row from the
// grid's y axis.
std::string convstage_kernel(const ConvStage& stage, const Backend& backend);
// "ondrel_convrowsum": y[j] = the sum over r below rows of x[r][j], in
// row order, one thread a column.
std::string convrowsum_kernel(const ConvStage& stage, const Backend& backend);

}  // namespace ondrel::codegen
