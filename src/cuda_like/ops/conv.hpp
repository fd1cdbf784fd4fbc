#pragma once
// Row-wise linear convolution through FFTs of a caller's length nf: real
// rows through the real FFT (with a half form: half data, single
// arithmetic), complex rows through the complex FFT. The result is the
// window [start, start + outlen) of each row's full convolution, whose
// indices run from 0 to n + m - 2; an nf below n + m - 1 gives the circular
// convolution of length nf instead.
#include <cstdint>
#include <vector>

#include "cuda_like/launch/launch_record.hpp"
#include "math/precision.hpp"

namespace ondrel {

// One request: `rows` rows of n samples in a, `rows_b` (1 or rows) rows of
// m in b, rows of outlen in y.
struct ConvCall {
  int64_t rows = 0, rows_b = 1, n = 0, m = 0, nf = 0, start = 0, outlen = 0;
};

// The refusals of both FFT forms, in order: std::invalid_argument
// "conv: b rows must be 1 or match a", then the window texts (nf in the
// 32-bit range and at least n and m, the window inside [0, nf)); then
// std::runtime_error "ondrel_convpad: batch exceeds grid.y limit" above
// 65535 rows.
void check_conv(const ConvCall& call);
// The FFT routes of length nf on `device`: the routes' own error where none
// serves it. Makes the device current.
void check_conv_transforms(int64_t nf, bool complex, bool is_double, int32_t device);

// Enqueued on `stream`. `prec`: half data (storage 0) or full width.
void conv_fft(const void* a, const void* b, void* y, const ConvCall& call, const Precision& prec, int32_t device,
              void* stream);
// Complex rows of pairs of float or double.
void conv_cplx(const void* a, const void* b, void* y, const ConvCall& call, bool is_double, int32_t device,
               void* stream);

// The element-wise kernels, keyed "conv_pad_", "conv_mul_", "conv_slice_".
KernelPlan convpad_plan(int compute, int storage);
KernelPlan convmul_plan(int prec);
KernelPlan convslice_plan(int compute, int storage);
// Every kernel one call compiles: the three above and the transforms of nf.
std::vector<KernelPlan> conv_kernels(int32_t nf, bool complex, const Precision& prec, uint64_t shared_limit);

// Shared with the adjoint. `z` (rows of nb complex values) times `w` (row
// r, or row 0 unless `bstride`).
void conv_multiply(const LaunchRecord& rec, const void* w, void* z, int64_t nb, int64_t rows, bool bstride,
                   void* stream);
// y[r][j] = x[r][start + j] for j below outlen, converted to the storage of
// the record's kernel.
void conv_slice(const LaunchRecord& rec, const void* x, void* y, int64_t rows, int64_t nf, int64_t start,
                int64_t outlen, void* stream);
// The same for complex rows of `elem` bytes, as one two-dimensional copy.
void conv_slice_complex(const void* x, void* y, int64_t rows, int64_t nf, int64_t start, int64_t outlen, size_t elem,
                        void* stream);
// Blocks of 256 threads over `count` elements.
unsigned conv_blocks(int64_t count);

}  // namespace ondrel
