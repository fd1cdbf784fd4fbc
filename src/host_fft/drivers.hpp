#pragma once
// The three drivers behind `host_fft` and the plans they keep. Each takes
// `rows` packed rows of `n` interleaved complex values.
#include <cstdint>
#include <vector>

#include "host_fft/host_plan.hpp"

namespace ondrel::host {

// A mixed-driver plan with the per-stage views its passes read.
template <class T>
struct MixedPlan {
  HostPlan<T> plan;
  std::vector<StageTw<T>> views;
};

template <class T>
const MixedPlan<T>& mixed_plan(int32_t n, bool inverse);

// One row through the mixed executor, with the calling thread's work arrays.
template <class T>
void mixed_row(const MixedPlan<T>& plan, const T* in, T* out, T scale);

template <class T>
struct HostBluesteinPlan {
  int32_t n = 0;
  int32_t m = 0;
  bool inverse = false;
  std::vector<T> chirp;   // n complex values
  std::vector<T> filter;  // the transform of the wrapped conjugate chirp, m complex values
  const MixedPlan<T>* forward = nullptr;
  const MixedPlan<T>* backward = nullptr;
};

template <class T>
const HostBluesteinPlan<T>& bluestein_plan(int32_t n, bool inverse);

// The table of exp(-2 pi i k / n), k below n, as (cos, sin) pairs.
template <class T>
const std::vector<T>& twiddle_cache(int32_t n);

template <class T>
void mixed_fft(const T* in, T* out, int64_t rows, int32_t n, bool inverse);
template <class T>
void bluestein_fft(const T* in, T* out, int64_t rows, int32_t n, bool inverse);
template <class T>
void plane_fft(const T* in, T* out, int64_t rows, int32_t n, bool inverse);

}  // namespace ondrel::host
