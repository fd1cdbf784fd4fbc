#pragma once
// The complex FFT between device addresses: route, kernel, table, launch.
// One template over the real type T (float also serves half data).
#include <cstdint>
#include <string>

#include "cuda_like/ops/fft_route.hpp"

namespace ondrel {

// `rows` transforms of length n from x to out, enqueued on options.stream of
// options.device. Routes whose core this build lacks raise
// std::runtime_error naming the route; nothing is launched then.
template <class T>
void fft(const void* x, void* out, int64_t rows, int32_t n, const FftOptions& options);

// Whether this file writes the kernel of a route: the native cores.
bool has_core_text(const FftRoute& route);

// The kernel text of a native-core route, as the operation compiles it.
std::string core_text(const FftRoute& route, bool inverse);

// "fft: the <route> route for n = <n> is not available in this build" for a
// route without a kernel here; empty for the native cores.
std::string missing_route_text(const FftRoute& route);

}  // namespace ondrel
