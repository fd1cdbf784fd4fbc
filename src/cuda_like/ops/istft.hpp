#pragma once
// The inverse STFT between device addresses: windowed overlap-add of the
// inverse transforms of spectrum rows, divided by the squared-window
// envelope and cropped. Fused where a frame's FFT fits one block, staged
// through the library's inverse FFT otherwise; both routes give the same
// answer. Frames add atomically, or, under set_deterministic(1), in rows of
// their own summed in ascending order. One template over the real type T
// inside; the request's precision picks it (half data compute in float).
#include <cstdint>
#include <vector>

#include "codegen/istft_kernels.hpp"
#include "cuda_like/launch/launch_record.hpp"
#include "cuda_like/tables/windows.hpp"
#include "cuda_like/tune/tuned_table.hpp"
#include "math/precision.hpp"

namespace ondrel {

struct IstftRequest {
  const void* z = nullptr;  // spectra, read through the strides (complex elements)
  void* y = nullptr;        // batch rows of `istft_length` samples
  int64_t batch = 0;
  int64_t bins = 0;
  int64_t frames = 0;
  int64_t stride_batch = 0, stride_bin = 0, stride_frame = 0;
  int32_t n_fft = 0;
  int32_t hop = 0;
  bool center = true;
  int64_t length = -1;  // below 1: all the samples the frames cover, less the padding
  const WindowSpec* window = nullptr;
  Precision prec;
  int32_t device = 0;
  void* stream = nullptr;
  const TuneEntry* knobs = nullptr;  // inner callers' explicit knobs
};

// Samples per output row: L of the request, after every check that needs no
// device (bins, the window, the hop and the window/hop overlap), in the order
// their errors are reported.
int64_t istft_length(const IstftRequest& r);

// Enqueues the inverse on r.stream; a request of no samples launches nothing.
void istft(const IstftRequest& r);

// Whether a frame of n samples runs fused under `shared_limit`: its FFT row
// fits one block and needs no long butterfly.
bool istft_fused(int32_t n, bool is_double, uint64_t shared_limit);

// Every kernel a request compiles for its own steps (the staged route's FFT
// is the library's, listed by the FFT).
std::vector<KernelPlan> istft_kernels(const IstftRequest& r, uint64_t shared_limit);

}  // namespace ondrel
