#pragma once
// Every kernel one FFT of a length compiles, by the routes' own choice
// without tuned words: the one kernel of a short route, or the kernels of
// the Bluestein and four-step routes. Operations built on the FFT use it to
// refuse a length no route serves before any device work, and to list their
// kernel texts.
#include <cstdint>
#include <vector>

#include "cuda_like/launch/launch_record.hpp"
#include "math/precision.hpp"

namespace ondrel {

// `real` picks rfft (forward: real rows to half spectra) over the complex
// FFT. Throws the routes' std::invalid_argument where no kernel fits
// `shared_limit`.
std::vector<KernelPlan> transform_kernels(int32_t n, bool real, const Precision& prec, bool inverse,
                                          uint64_t shared_limit);

}  // namespace ondrel
