#pragma once
// The real-input four-step FFT of even length n: the real row read as
// nh = n / 2 complex values, a complex transform of nh, and the split of
// that spectrum into the n / 2 + 1 bins of the real row (and its reverse
// for the inverse).
#include <cstdint>
#include <string>

#include "codegen/backend.hpp"
#include "codegen/kernel_sig.hpp"

namespace ondrel::codegen {

struct RealSplitPass {
  int32_t n = 0;         // real length
  int32_t n1 = 0, n2 = 0;  // split of n / 2
  int32_t columns = 1;   // column pairs a block takes
  int32_t threads = 128;
  int compute_prec = 1;
  int data_prec = 1;  // 0 half pairs, else compute_prec
};

// The head of the split kernels (rfft2, rsplit): "(x, out, tw, nrows)" from
// `cplx` rows to `iot` bins; of the pack (`pack`): "(x, z, tw, nrows)" from
// `iot` bins to `cplx` rows.
KernelParams real_split_params(bool pack);

// "ondrel_rfft2(x, out, tw, nrows)": the n1-point transforms of pass 2 for
// columns c and their mirrors n2 - c, and the real split of bins k and
// nh - k, which come from those two columns.
std::string real_pass2_kernel(const RealSplitPass& p, const Backend& backend);

// "ondrel_rsplit(x, out, tw, nrows)": bins 0 to nh of real rows from the
// complex spectrum of length nh of their even/odd packing.
std::string real_split_kernel(int32_t n, int compute_prec, int data_prec, const Backend& backend);

// "ondrel_rpack(x, z, tw, nrows)": the reverse of the split, half spectra
// to the complex spectrum whose inverse transform is the packed real row.
std::string real_pack_kernel(int32_t n, int compute_prec, int data_prec, const Backend& backend);

}  // namespace ondrel::codegen
