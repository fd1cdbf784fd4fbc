#pragma once
// The real-input FFT between device addresses, both directions: route,
// kernel, table, launch. One template over the real type T inside (float
// also serves half data); the request's precision picks the instantiation.
#include <cstdint>

#include "cuda_like/launch/launch_record.hpp"
#include "cuda_like/ops/fft_route.hpp"

namespace ondrel {

// Forward (options.inverse false): `rows` real rows of n samples from x to
// rows of n / 2 + 1 bins in out. Inverse: bins to samples, scaled so that it
// undoes the forward transform. Lengths of the Bluestein and four-step
// routes run through several kernels and scratch of their own. No real
// kernel packs half pairs: a packed request runs as plain half data.
void rfft(const void* x, void* out, int64_t rows, int32_t n, const FftOptions& options);

// The kernel of a one-kernel route (the tiny, shared and register forms), as
// the operation compiles it.
KernelPlan rfft_plan(const FftRoute& route, bool inverse);

}  // namespace ondrel
