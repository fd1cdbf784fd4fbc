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
// undoes the forward transform. Routes whose core this build lacks raise
// std::runtime_error naming the route; nothing is launched then.
template <class T>
void rfft(const void* x, void* out, int64_t rows, int32_t n, const FftOptions& options);

// "rfft: the <route> route for n = <n> is not available in this build" for a
// route without a kernel here; empty for the tiny and shared forms.
std::string missing_real_route_text(const FftRoute& route);

// The kernel text of a tiny or shared real route, as the operation compiles it.
std::string real_route_text(const FftRoute& route, bool inverse);

}  // namespace ondrel
