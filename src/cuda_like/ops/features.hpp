#pragma once
// The small frame features between device addresses, one kernel a
// direction: the RMS of signal frames, the onset strength of a spectrogram
// and the tonal centroids (tonnetz) of a chroma sequence, with their
// adjoints. Forward data may be half (arithmetic in single); the adjoints
// refuse half data. Every argument is checked before any device work.
#include <cstdint>
#include <vector>

#include "cuda_like/launch/launch_record.hpp"
#include "math/precision.hpp"
#include "rocm/hip_api.hpp"

namespace ondrel {

// Where and how one call runs.
struct FeatureCall {
  Precision prec;
  int32_t device = 0;
  hip_dl::hipStream_t stream = nullptr;
};

// Signals of `length` samples in rows of `batch`; `frames` frames of
// `frame_length` samples every `hop`, centred (pad frame_length / 2) or not.
// Indices past either end reflect without repeating the end samples, as
// often as a frame longer than the signal needs; a one-sample signal
// reflects onto itself, so its frames repeat that sample.
struct RmsShape {
  int64_t batch = 0, length = 0, frames = 0;
  int32_t frame_length = 0, hop = 0;
  bool center = false;
};

// The frames of a signal of `length` samples: with `center`,
// (length - (frame_length & 1)) / hop + 1, else (length - frame_length) /
// hop + 1, where a signal shorter than a frame is refused with "input of
// <length> samples is shorter than n_fft with center=False".
int64_t rms_frame_count(int64_t length, int32_t frame_length, int32_t hop, bool center);

// The checks of the forward calls, which the calls make themselves; a
// staged call makes them first, before any device work.
void check_rms(const RmsShape& shape);
void check_onset_strength(int64_t batch, int64_t frames, int64_t bins);

// x (batch, length) to out (batch, frames): the root mean square of each
// rectangular frame.
void rms(const void* x, void* out, const RmsShape& shape, const FeatureCall& call);
// gx (batch, length) from the signal x, the forward's result y and its
// gradient gy (batch, frames). Frames of RMS 0 pass no gradient.
void rms_adjoint(const void* x, const void* y, const void* gy, void* gx, const RmsShape& shape,
                 const FeatureCall& call);

// m (batch, frames, bins), bins fastest, to out (batch, frames): the mean
// over bins of max(0, m[t] - m[t - 1]), 0 for the first frame of a signal.
void onset_strength(const void* m, void* out, int64_t batch, int64_t frames, int64_t bins, const FeatureCall& call);
// gm (batch, frames, bins) from m and gy (batch, frames).
void onset_strength_adjoint(const void* m, const void* gy, void* gm, int64_t batch, int64_t frames, int64_t bins,
                            const FeatureCall& call);

// c (rows, 12) to out (rows, 6): the chroma's projections on the six
// tonnetz axes over its sum, zeros where the sum is not positive.
void tonnetz(const void* c, void* out, int64_t rows, const FeatureCall& call);
// gc (rows, 12) from c and gy (rows, 6); zeros where the sum is not positive.
void tonnetz_adjoint(const void* c, const void* gy, void* gc, int64_t rows, const FeatureCall& call);

// Every kernel of the family that data of precision `prec` compiles, as the
// operations compile them: the three forwards, and the adjoints unless the
// data are half.
std::vector<KernelPlan> feature_kernels(const Precision& prec);

}  // namespace ondrel
