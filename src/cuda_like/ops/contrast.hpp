#pragma once
// Spectral contrast between device addresses: per frame and band, the mean
// of the q largest magnitudes of the band less the mean of the q smallest,
// linear or in decibels, from a magnitude array or fused into the STFT
// kernel, and the adjoint of the row form. Bands are given by the caller as
// edges bt (n_bands + 1) and counts bq (n_bands); they travel to the device
// as a table found by its exact content. Data may be half (arithmetic in
// single) except in the adjoint. Every argument is checked before any
// device work.
#include <cstdint>
#include <optional>
#include <vector>

#include "cuda_like/launch/launch_record.hpp"
#include "cuda_like/ops/features.hpp"
#include "cuda_like/ops/spectral_fused.hpp"

namespace ondrel {

struct Bands {
  std::vector<int32_t> edges;   // bt: band b covers bins edges[b] up to edges[b + 1]
  std::vector<int32_t> counts;  // bq: q elements taken at each end of band b
};

// The band table against rows of n bins, in this order: n_bands + 1 edges
// for n_bands counts, at least one band and at most 65535, edges rising
// within [0, n], and every q from 1 to its band's width.
void check_bands(const Bands& bands, int64_t n);

// The widest band's sort row, at least 2.
int64_t bands_maxpad(const Bands& bands);

// Which selection a row kernel takes: the sort wherever its shared row fits
// the device's limit a block, the histogram elsewhere. The limit decides,
// not the data, so a device with more shared memory sorts wider bands. Both
// select exactly; the histogram selects and sums in single precision.
enum class Selection { sort, histogram };
Selection contrast_selection(int compute, int64_t maxpad, bool adjoint, uint64_t shared_limit);

// m (rows, n) to out (rows, n_bands).
void contrast_reduce(const void* m, void* out, int64_t rows, int64_t n, const Bands& bands, double amin, bool linear,
                     const FeatureCall& call);

// gm (rows, n) from m and gy (rows, n_bands); gm is cleared first, bins
// outside every band get 0.
void contrast_adjoint(const void* m, const void* gy, void* gm, int64_t rows, int64_t n, const Bands& bands,
                      double amin, bool linear, const FeatureCall& call);

// The fused kernel on sig.x into sig.out (batch, frames, n_bands): true
// when it ran, false with nothing enqueued where the route declines. The
// fused kernel always sorts.
bool contrast_signal(const FeatureSignal& sig, const Bands& bands, double amin, bool linear);

// The fused kernel, or where it declines the magnitude STFT into a pool
// block and the row form.
void contrast_of_signal(const FeatureSignal& sig, const Bands& bands, double amin, bool linear);

// The row kernels that data of `prec` compile: both selections, and their
// adjoints unless the data are half.
std::vector<KernelPlan> contrast_row_kernels(const Precision& prec);
// The fused kernel of a signal request on device 0 under `shared_limit`,
// or nothing where the route declines.
std::optional<KernelPlan> contrast_fused_kernel(const FeatureSignal& sig, const Bands& bands, uint64_t shared_limit);

}  // namespace ondrel
