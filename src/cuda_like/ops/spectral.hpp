#pragma once
// Spectral statistics between device addresses: centroid (stat 0),
// bandwidth (1), flatness (2) and rolloff (3) of magnitude rows, from a
// magnitude array or fused into the STFT kernel, and the adjoint of the row
// reduction for stats 0 to 2. Data may be half (arithmetic in single) except
// in the adjoint. Every argument is checked before any device work.
#include <cstdint>
#include <optional>
#include <vector>

#include "cuda_like/launch/launch_record.hpp"
#include "cuda_like/ops/features.hpp"
#include "cuda_like/ops/spectral_fused.hpp"

namespace ondrel {

// Bin k lies at fstep * k in the caller's frequency unit. p is the norm of
// the bandwidth, amin the floor of the powers in flatness, roll the
// fraction of the total that rolloff finds.
struct SpectralScalars {
  double fstep = 1;
  double p = 2;
  double amin = 1e-10;
  double roll = 0.85;
};

// The statistic and the scalars it reads: stat 0 to 3, p above 0 for the
// bandwidth, amin above 0 for flatness.
void check_spectral(int stat, const SpectralScalars& s);

// m (rows, n) to out (rows). rows below 1 launch nothing.
void spectral_reduce(const void* m, void* out, int64_t rows, int64_t n, int stat, const SpectralScalars& s,
                     const FeatureCall& call);

// gm (rows, n) from m and gy (rows). Rolloff, a step function of the
// magnitudes, has no gradient and is refused, as are half data.
void spectral_adjoint(const void* m, const void* gy, void* gm, int64_t rows, int64_t n, int stat,
                      const SpectralScalars& s, const FeatureCall& call);

// The fused kernel on sig.x into sig.out (batch, frames): true when it ran,
// false with nothing enqueued where the route declines.
bool spectral_signal(const FeatureSignal& sig, int stat, const SpectralScalars& s);

// The fused kernel, or where it declines the magnitude STFT into a pool
// block and the row reduction.
void spectral_of_signal(const FeatureSignal& sig, int stat, const SpectralScalars& s);

// The row kernels that data of `prec` compile for `stat`: the reduction,
// and its adjoint where one exists.
std::vector<KernelPlan> spectral_row_kernels(int stat, const Precision& prec);
// The fused kernel of a signal request on device 0 under `shared_limit`,
// or nothing where the route declines.
std::optional<KernelPlan> spectral_fused_kernel(const FeatureSignal& sig, int stat, uint64_t shared_limit);

}  // namespace ondrel
