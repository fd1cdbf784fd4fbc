#pragma once
// The real-input four-step FFT of even length n. Forward: B rows of n reals
// to B rows of n / 2 + 1 bins; inverse: the reverse, scaled by 1 / n. A
// real row is read as n / 2 complex values, so half data (`word` 0) are
// pairs of __half on both sides.
#include <cstdint>
#include <string>
#include <vector>

#include "cuda_like/launch/launch_record.hpp"
#include "rocm/hip_api.hpp"

namespace ondrel {

template <class T>
void four_step_real(const void* x, void* out, int64_t rows, int32_t n, bool inverse, int device,
                    hip_dl::hipStream_t stream, int32_t word);

// Every kernel that four_step_real compiles for this shape, the passes of
// its inner complex transform included. Throws as the operation does.
std::vector<KernelPlan> four_step_real_kernels(int32_t n, bool is_double, int32_t word, bool inverse,
                                               uint64_t shared_limit);

}  // namespace ondrel
