#pragma once
// What a tuner tries and how it keeps score: the candidate lists in the
// order they are measured, the count of samples a candidate earns, and the
// best-so-far that only a strictly faster time replaces. Pure functions.
#include <cstdint>
#include <vector>

#include "cuda_like/tune/tuned_table.hpp"

namespace ondrel {

// The inverse STFT always, and the STFT and mel spectrogram whose n_fft is no
// power of two: the default, then threads per transform 64, 128, 256, 512.
std::vector<TuneEntry> tpf_candidates();

// The STFT and mel spectrogram of a power-of-two n_fft: the default, ept 8
// and 16 with 1, 2, 4 (and 8 up to n_fft 512) frames a block, then the two
// SHP shift codes 15 and 3 of the flags word.
std::vector<TuneEntry> pow2_candidates(int32_t n_fft);

// The register kernels' elements per thread worth trying at length n: the
// powers 4 to 32 not above a power of two n; otherwise up to five divisors
// from 4 to 32 that start a register schedule.
std::vector<int32_t> ept_choices(int32_t n);

// The complex and real FFT: the default, the shared core's threads and rows,
// the register core's elements per thread, then the variant bits that apply
// at n (`half` adds the 16-bit exchange).
std::vector<TuneEntry> fft_candidates(int32_t n, bool half);

// Samples of the second batch for a candidate whose first batch took `t0`
// milliseconds: about 25 ms worth, from 1 to `iters`; `iters` when t0 is not
// positive.
int32_t further_reps(double t0, int32_t iters);

// Samples of the first batch: `warmup`, but at least one.
int32_t first_reps(int32_t warmup);

// The fastest candidate so far. Equal times keep the earlier one, so a list
// in which nothing beats the default returns the default.
struct BestCandidate {
  double ms = 1e30;
  TuneEntry entry{};
  // True when `t` replaced the best.
  bool offer(double t, const TuneEntry& candidate);
};

}  // namespace ondrel
