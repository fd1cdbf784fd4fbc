#pragma once
// Cepstral coefficients between device addresses: the mel spectrogram in
// decibels (power 2), optionally floored top_db below each signal's peak,
// then the liftered orthonormal DCT-II of every frame. Small jobs without a
// floor run in one kernel, the mel kernel with the DCT behind its band step;
// the rest write the bands out and multiply. Float or double; there is no
// half form.
#include <cstdint>
#include <optional>
#include <vector>

#include "cuda_like/launch/launch_record.hpp"
#include "cuda_like/ops/stft.hpp"
#include "cuda_like/tables/mel_table.hpp"

namespace ondrel {

struct CepstraRequest {
  // y, batch, length, n_fft, hop, center, eps, window, prec (full width,
  // float or double), device and stream as for the STFT; `out` receives
  // [batch][frame][coefficient]. mode and knobs are not read.
  StftRequest stft;
  const FilterBank* fb = nullptr;  // (n_in, n_fft / 2 + 1)
  int32_t n_out = 0;               // 1 to n_in coefficients
  double lifter = 0;               // above 0: 1 + (lifter / 2) sin(pi (k + 1) / lifter) on coefficient k
  double top_db = -1;              // 0 or more: bands are floored at their signal's peak less top_db

  bool clamp() const { return top_db >= 0; }
};

// The frame count, after every check that needs no device, in the order
// the errors are reported; the framing's messages speak of "mel".
int64_t cepstra_frames(const CepstraRequest& r);

// Enqueues the coefficients on the request's stream.
void cepstra(const CepstraRequest& r);

// The fused route: the plan of "ondrel_mel" with the DCT, or nothing where
// the route declines (a floor, n_fft not a power of two, more frames in all
// than 24 a multiprocessor, a batch past the grid, or a plan that does not
// fit one block with its band rows). `multiprocessors` 0 means unknown.
std::optional<StftPlan> cepstra_fused_plan(const CepstraRequest& r, int64_t frames, int multiprocessors,
                                           uint64_t shared_limit);

// Every kernel a request compiles for its own steps: the fused kernel, or
// the mel spectrogram's and the DCT's (the library FFT lists its own).
std::vector<KernelPlan> cepstra_kernels(const CepstraRequest& r, int multiprocessors, uint64_t shared_limit);

}  // namespace ondrel
