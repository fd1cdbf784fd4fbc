#pragma once
// The complex FFT between device addresses: route, kernel, table, launch.
// One template over the real type T (float also serves half data).
#include <cstdint>
#include <string>

#include "cuda_like/ops/fft_route.hpp"

namespace ondrel {

// `rows` transforms of length n from x to out, enqueued on options.stream of
// options.device. Lengths of the Bluestein and four-step routes run through
// several kernels and scratch of their own.
template <class T>
void fft(const void* x, void* out, int64_t rows, int32_t n, const FftOptions& options);

// Whether one kernel serves the route: the native cores.
bool has_core_text(const FftRoute& route);

// The kernel text of a native-core route, as the operation compiles it.
std::string core_text(const FftRoute& route, bool inverse);

}  // namespace ondrel
