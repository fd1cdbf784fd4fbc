#pragma once
// The real-input FFT between device addresses, both directions: route,
// kernel, table, launch. One template over the real type T (float also
// serves half data).
#include <cstdint>
#include <string>

#include "cuda_like/ops/fft_route.hpp"

namespace ondrel {

// Forward (options.inverse false): `rows` real rows of n samples from x to
// rows of n / 2 + 1 bins in out. Inverse: bins to samples, scaled so that it
// undoes the forward transform. Lengths of the Bluestein and four-step
// routes run through several kernels and scratch of their own.
template <class T>
void rfft(const void* x, void* out, int64_t rows, int32_t n, const FftOptions& options);

// Whether one kernel serves the route: the tiny, shared and register forms.
bool has_real_kernel(const FftRoute& route);

// The kernel text of a one-kernel real route, as the operation compiles it.
std::string real_route_text(const FftRoute& route, bool inverse);

}  // namespace ondrel
