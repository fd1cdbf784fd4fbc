#pragma once
// The short-time Fourier transform between device addresses: checks, frame
// count, tables, the fused kernel where the frame's FFT fits one block and
// the staged path (frames, library FFT, split) where it does not. One
// template over the real type T inside; the request's precision picks it.
#include <cstdint>
#include <vector>

#include "cuda_like/launch/launch_record.hpp"
#include "cuda_like/ops/stft_plan.hpp"
#include "cuda_like/tables/windows.hpp"
#include "math/precision.hpp"

namespace ondrel {

struct StftRequest {
  const void* y = nullptr;  // batch signals of `length` samples
  void* out = nullptr;      // [batch][frame][bin]: bins n_fft / 2 + 1, complex or real by `mode`
  int64_t batch = 0;
  int64_t length = 0;
  int32_t n_fft = 0;
  int32_t hop = 0;
  bool center = true;
  int mode = 0;  // 0 complex, 1 magnitude, 2 power, 3 decibels (10 log10(power + eps))
  double eps = 1e-10;
  const WindowSpec* window = nullptr;
  Precision prec;  // packed: half arithmetic where n_fft is a power of two
  int32_t device = 0;
  void* stream = nullptr;
  // Inner callers (Griffin-Lim, the CQT, the tuner) pass their knobs here;
  // such a call neither reads nor keeps a launch record.
  const TuneEntry* knobs = nullptr;
};

// The frame count of a request, after every check of its arguments that
// needs no device, in the order the errors are reported.
int64_t stft_frames(const StftRequest& r);

// Enqueues the transform on r.stream.
void stft(const StftRequest& r);

// The plan a request without knobs takes under `shared_limit`.
StftPlan stft_plan_of(const StftRequest& r, int64_t frames, uint64_t shared_limit);

// Every kernel a request compiles for its own steps: the fused kernel, or
// the frame, split and output kernels of the staged path (whose FFT is the
// library's, listed by the FFT).
std::vector<KernelPlan> stft_kernels(const StftRequest& r, uint64_t shared_limit);

}  // namespace ondrel
