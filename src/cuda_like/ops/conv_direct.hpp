#pragma once
// Row-wise linear convolution summed directly in the time domain: the
// window [start, start + outlen) of each row's full convolution, zeros
// outside it. Rows go in chunks of at most 65535 on the grid's y axis.
#include <cstdint>

#include "cuda_like/launch/launch_record.hpp"
#include "cuda_like/ops/conv.hpp"
#include "math/precision.hpp"

namespace ondrel {

// std::invalid_argument "conv_direct: kernel rows must be 1 or match the
// signal rows", then the sizes' own text. `nf` is not read.
void check_conv_direct(const ConvCall& call);

// Enqueued on `stream`; `prec`: half data (storage 0) or full width.
void conv_direct(const void* a, const void* b, void* y, const ConvCall& call, const Precision& prec,
                 int32_t device, void* stream);

// The kernel, keyed "convdir_<compute>_<storage>".
KernelPlan convdir_plan(int compute, int storage);

}  // namespace ondrel
