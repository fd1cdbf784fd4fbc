#pragma once
// Runs a list of passes from an input to an output through two work arrays.
#include <cstdint>
#include <vector>

#include "host_fft/host_factors.hpp"
#include "host_fft/host_plan.hpp"

namespace ondrel::host {

// `V` is Cs<T> or Lanes<T>; arrays hold `n` elements of V as reals. The
// first pass reads `in`, the last writes `out` (a work array when `out` is
// null) with `scale`; the result's address is returned. `in` may equal `out`.
template <class V, class T>
const T* execute(const std::vector<HostPass>& passes, const StageTw<T>* stages, int64_t n, const T* in, T* out,
                 T* w0, T* w1, T scale);

}  // namespace ondrel::host
