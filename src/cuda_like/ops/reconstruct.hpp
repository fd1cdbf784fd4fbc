#pragma once
// Griffin-Lim phase recovery between device addresses: from magnitudes S
// and starting phases, `n_iter` rounds of inverse STFT, STFT and a
// momentum step on the phases (alpha = momentum / (momentum + 1); 0 is the
// plain iteration), all on one stream without a host round trip, then the
// inverse of S with the last phases.
#include <cstdint>
#include <vector>

#include "cuda_like/launch/launch_record.hpp"
#include "cuda_like/tables/windows.hpp"

namespace ondrel {

struct GriffinLimRequest {
  const void* s = nullptr;  // magnitudes, (batch, frames, bins) reals
  void* ang = nullptr;      // unit phases, (batch, frames, bins) complex: read, then overwritten with the last
  void* y = nullptr;        // batch rows of griffinlim_length samples
  int64_t batch = 0;
  int64_t frames = 0;
  int64_t bins = 0;
  int32_t n_fft = 0;
  int32_t hop = 0;
  bool center = true;
  int32_t n_iter = 0;  // at most 0: one inverse of the starting phases
  double momentum = 0.99;
  int64_t length = -1;  // of the result; below 1, all the frames cover less the padding
  const WindowSpec* window = nullptr;
  bool is_double = false;
  int32_t device = 0;
  void* stream = nullptr;
};

// Samples per output row, after every check that needs no device (the
// planes' shape, the hop, the frame count's round trip, then those of the
// inverse STFT: window and overlap), in the order the errors are reported.
int64_t griffinlim_length(const GriffinLimRequest& r);

void griffinlim(const GriffinLimRequest& r);

// The two kernels of its own (the transforms list theirs).
std::vector<KernelPlan> griffinlim_kernels(bool is_double);

}  // namespace ondrel
