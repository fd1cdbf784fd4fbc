#pragma once
// The road of a spectral feature from a signal: the fused STFT kernel with
// the feature's epilogue in place of its store, wherever the frame's FFT and
// the feature's work area fit one block, so that the spectrogram never
// reaches global memory; otherwise the caller's staged road, the magnitude
// spectrogram and a row kernel. Shared by the statistics and the contrast.
//
// Tuned STFT knobs do not reach these plans: a tuned record measured the
// spectrogram alone, without the epilogue's work area and its reductions,
// which also need a power-of-two TPF. A feature plan depends on the request
// and the device alone, so its kernel key holds every word of its text.
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "codegen/stft_kernels.hpp"
#include "cuda_like/launch/launch_record.hpp"
#include "cuda_like/ops/stft.hpp"
#include "cuda_like/tables/windows.hpp"
#include "math/precision.hpp"
#include "rocm/hip_api.hpp"

namespace ondrel {

// Where a feature of a signal comes from and where it goes.
struct FeatureSignal {
  const void* x = nullptr;  // batch signals of `length` samples
  void* out = nullptr;      // the feature, [batch][frame][...]
  int64_t batch = 0;
  int64_t length = 0;
  int32_t n_fft = 0;
  int32_t hop = 0;
  bool center = true;
  const WindowSpec* window = nullptr;
  Precision prec;
  int32_t device = 0;
  hip_dl::hipStream_t stream = nullptr;
};

// The magnitude STFT of the signal into `out` ([batch][frame][bin]).
StftRequest magnitude_request(const FeatureSignal& s, void* out);

// The frame count after every check of the STFT, in its order; no device work.
int64_t feature_frames(const FeatureSignal& s);

// What a feature puts into the STFT kernel.
struct FusedFeature {
  int feature = 0;         // 0 to 3 a statistic, 4 contrast
  int32_t extra = 0;       // the plan's feature_extra
  std::string key_prefix;  // "spectral_stft_", "contrast_stft_"
  std::string key_fields;  // the feature's words of the kernel key, between the hop and the precision
  uint64_t record_word = 0;  // the same words in the launch record's key
  codegen::FeatureHook hook;
};

// The kernel's scalars, and for contrast the setter of the band tables,
// called only when the kernel is about to run on its device.
struct FeatureArgs {
  double fstep = 0, pp = 0, amin = 0, roll = 0;
  std::function<void(KernelArgs&)> bands;
};

// The fused plan under `shared_limit`, or nothing where the route declines:
// half data, an n_fft that is no power of two, a plan that leaves the fused
// kernel, or a work area that does not fit one frame a block. Frame checks
// raise first, except after the two first refusals.
std::optional<StftPlan> fused_feature_plan(const FeatureSignal& s, const FusedFeature& f, uint64_t shared_limit);

KernelPlan fused_feature_kernel(const StftPlan& plan, const FusedFeature& f, int device);

// Enqueues the fused kernel on s.stream and returns true; returns false with
// nothing enqueued where the route declines.
bool run_fused_feature(const FeatureSignal& s, const FusedFeature& f, const FeatureArgs& a);

}  // namespace ondrel
