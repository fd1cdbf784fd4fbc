#pragma once
// The mel spectrogram between device addresses: the STFT's frames and FFT,
// each frame's power row kept in shared memory and summed band by band over
// the compacted filterbank, in one kernel where the plan fits and staged
// (frames, library FFT, split, band sums) where it does not.
#include <cstdint>
#include <vector>

#include "cuda_like/launch/launch_record.hpp"
#include "cuda_like/ops/stft.hpp"
#include "cuda_like/tables/mel_table.hpp"

namespace ondrel {

struct MelRequest {
  // y, batch, length, n_fft, hop, center, window, prec, device, stream,
  // knobs as for the STFT; `out` receives [batch][frame][band]; `mode` is
  // the form of each band's sum: 1 its square root, 3 decibels
  // (10 log10(sum + eps)), else the sum.
  StftRequest stft;
  const FilterBank* fb = nullptr;  // (n_mels, n_fft / 2 + 1)
  // Truncated: 1 sums magnitudes, any larger value squared magnitudes.
  double power = 2.0;
};

// The frame count, after every check that needs no device, in the order
// the errors are reported.
int64_t mel_frames(const MelRequest& r);

// Enqueues the spectrogram on the request's stream.
void mel(const MelRequest& r);

// The STFT plan made a mel plan: bands, power, fewer frames a block until
// the power rows fit, and the four-step core (staged) where even one frame
// does not.
void fit_mel_plan(StftPlan& p, int32_t n_mels, int32_t power, uint64_t shared_limit);

// The plan of a request without knobs, and every kernel it compiles for its
// own steps (the library FFT of the staged path lists its own).
StftPlan mel_plan_of(const MelRequest& r, int64_t frames, uint64_t shared_limit);
std::vector<KernelPlan> mel_kernels(const MelRequest& r, uint64_t shared_limit);

}  // namespace ondrel
