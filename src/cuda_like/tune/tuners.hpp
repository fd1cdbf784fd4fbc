#pragma once
// The six tuners: for one operation shape, the refusal where its route has
// no knobs, the candidate list, scratch sized by the operation's own output,
// and the search. Nothing is stored: the caller decides what to hint.
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "cuda_like/ops/cqt.hpp"
#include "cuda_like/ops/istft.hpp"
#include "cuda_like/ops/mel.hpp"
#include "cuda_like/ops/stft.hpp"
#include "cuda_like/tune/search.hpp"

namespace ondrel {

// A tuner's precision code (as resident calls take it: 2 double, 1
// single, 0 half, 3 half arithmetic) and its sample counts.
struct TuneRun {
  int32_t prec = 1;
  int32_t iters = 50;
  int32_t warmup = 10;
  ProgressFn progress;
};

// Empty where the shape is refused (its route reads no knobs); nothing is
// launched or compiled then. The request's out, stream and knobs are ignored.
std::optional<BestCandidate> stft_autotune(const StftRequest& r, const TuneRun& run);
std::optional<BestCandidate> istft_autotune(const IstftRequest& r, const TuneRun& run);
std::optional<BestCandidate> mel_autotune(const MelRequest& r, const TuneRun& run);

struct FftTuning {
  BestCandidate forward, inverse;
};
// Forward, then inverse on the forward's default spectrum; `x` is only read.
std::optional<FftTuning> fft_autotune(const void* x, int64_t batch, int32_t n, int32_t device, const TuneRun& run);
std::optional<FftTuning> rfft_autotune(const void* x, int64_t batch, int32_t n, int32_t device, const TuneRun& run);

struct CqtTuning {
  BestCandidate best;  // core 0 fused, 1 staged
  std::vector<std::pair<int32_t, int32_t>> octaves;  // (n_fft, hop) of each octave, in list order
};
// The call's x is read; its out and stream are ignored.
CqtTuning cqt_autotune(const CqtForward& f, const TuneRun& run);

}  // namespace ondrel
