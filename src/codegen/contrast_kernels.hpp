#pragma once
// Spectral contrast of magnitude rows: per band b of bins bt[b] up to
// bt[b + 1], the mean of the bq[b] largest magnitudes less the mean of the
// bq[b] smallest, linear or in decibels (10 log10 of each mean, floored at
// amin). Two selections: a bitonic sort of the band in shared memory
// ("ondrel_contrast"), and for bands too wide for it a selection by 256-bin
// histograms in 2112 bytes whatever the band ("ondrel_contrastg"): a radix
// selection over the bits of each value, four counting passes, exact in
// single precision. Each has its adjoint, and the fused STFT kernel sorts
// every band of a frame in its epilogue. Blocks are 256 threads; grid x is
// the row, grid y the band. `compute` and `storage` are the codes of the
// arithmetic and of the rows in global memory.
#include <cstdint>
#include <string>

#include "codegen/backend.hpp"
#include "codegen/kernel_sig.hpp"
#include "codegen/kernel_writer.hpp"
#include "codegen/stft_kernels.hpp"

namespace ondrel::codegen {

constexpr int kContrastThreads = 256;

// Shared bytes: the sort's row of maxpad values (the adjoint adds an index
// a value); the histogram's fixed area, whatever the band.
uint64_t contrast_sort_bytes(int compute, int64_t maxpad);
uint64_t contrast_sort_adjoint_bytes(int compute, int64_t maxpad);
constexpr uint64_t kContrastHistogramBytes = 2112;

// The smallest power of two not below `width`, 1 for widths 0 and 1: the
// sort's row of one band.
int64_t band_pad(int64_t width);

//   ondrel_contrast / ondrel_contrastg(M, out, bt, bq, n, nbands, amin, linear)
//   ondrel_contrast_adj / ondrel_contrastg_adj(M, gy, gM, bt, bq, n, nbands, amin, linear)
// M and out in storage; the adjoints all in compute.
KernelParams contrast_params(const Backend& backend, int compute, int storage);
KernelParams contrast_adjoint_params(const Backend& backend, int compute);

// out[row * nbands + band]. The histogram kernels select and sum in single
// precision for every `compute`.
std::string contrast_kernel(int compute, int storage, const Backend& backend);
std::string contrast_histogram_kernel(int compute, int storage, const Backend& backend);

// They add into gM, which the caller clears. The sort breaks ties by
// position: the earliest elements form the valley, the latest the peak. The
// histogram shares the slots taken from the elements equal to a threshold
// equally among them, so a constant band's gradient spreads over all of it.
std::string contrast_adjoint_kernel(int compute, const Backend& backend);
std::string contrast_histogram_adjoint_kernel(int compute, const Backend& backend);

// The fused epilogue of plan.feature 4 (plan.feature_extra = maxpad): every
// band of every frame sorted in the frame's work area, into
// out[(batch * NFRAMES + frame) * nbands + band]. The kernel's scalar roll
// carries `linear` and amin carries amin.
FeatureHook contrast_epilogue(int32_t nbands);

}  // namespace ondrel::codegen
