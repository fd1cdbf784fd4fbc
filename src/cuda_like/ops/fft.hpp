#pragma once
// The complex FFT between device addresses: route, kernel, table, launch.
// One template over the real type T inside (float also serves half data);
// the request's precision picks the instantiation.
#include <cstdint>

#include "cuda_like/launch/launch_record.hpp"
#include "cuda_like/ops/fft_route.hpp"

namespace ondrel {

// `rows` transforms of length n from x to out, enqueued on options.stream of
// options.device. Lengths of the Bluestein and four-step routes run through
// several kernels and scratch of their own.
void fft(const void* x, void* out, int64_t rows, int32_t n, const FftOptions& options);

// The kernel of a one-kernel route, as the operation compiles it.
KernelPlan fft_plan(const FftRoute& route, bool inverse);

}  // namespace ondrel
