#pragma once
// Spectral statistics of magnitude rows, chosen by `stat`: 0 centroid, 1
// bandwidth, 2 flatness, 3 rolloff. "ondrel_spectral" reduces rows already
// on the device, one 256-thread block a row; "ondrel_spectral_adj" is its
// adjoint for stats 0 to 2; and the epilogue below takes the place of the
// fused STFT kernel's store, so that a signal becomes statistics while its
// spectrum stays in shared memory. `compute` and `storage` are the codes of
// the arithmetic (1 single, 2 double) and of the rows in global memory (0
// half, 1 single, 2 double).
#include <cstdint>
#include <string>

#include "codegen/backend.hpp"
#include "codegen/kernel_sig.hpp"
#include "codegen/kernel_writer.hpp"
#include "codegen/stft_kernels.hpp"

namespace ondrel::codegen {

enum SpectralStat : int { kCentroid = 0, kBandwidth = 1, kFlatness = 2, kRolloff = 3 };

constexpr int kSpectralThreads = 256;

// Dynamic shared bytes of both row kernels: two compute values a thread.
uint64_t spectral_shared_bytes(int compute);

//   ondrel_spectral(M, out, n, fstep, pp, amin, roll): M and out in storage.
//   ondrel_spectral_adj(M, gy, gM, n, fstep, pp, amin): all in compute.
KernelParams spectral_params(const Backend& backend, int compute, int storage);
KernelParams spectral_adjoint_params(const Backend& backend, int compute);

// One block a row of n magnitudes, out[row] the statistic. The magnitude
// sum is raised to 1e-10 where the centroid divides by it; flatness raises
// every power to `amin`; rolloff is the first bin where the running sum
// reaches roll times the total, the last bin when it never does.
std::string spectral_kernel(int stat, int compute, int storage, const Backend& backend);

// gM (rows, n) from M and gy (rows) for stats 0 to 2. Where the statistic
// has no derivative the gradient is 0: flatness bins below sqrt(amin), and
// the bandwidth of a frame whose spread is 0 for p above 1 (a silent frame).
std::string spectral_adjoint_kernel(int stat, int compute, const Backend& backend);

// The work area of one frame of a fused feature, past the FFT's shared
// area: `words` reals a frame, declared as "work"; then "mag" = work, the
// frame's NB magnitudes, written by every frame slot and closed by a
// barrier. Contrast lays its sort row behind the magnitudes.
void fused_magnitudes(KernelWriter& w, const StftPlan& plan, const std::string& buffer, const std::string& words);

// The fused epilogue of plan.feature 0 to 3 (a FeatureHook): the statistic
// of each frame into out[batch * NFRAMES + frame], reduced over the frame's
// TPF threads. The kernel's scalars are fstep, pp, amin and roll.
void spectral_epilogue(KernelWriter& w, const StftPlan& plan, const std::string& buffer);

}  // namespace ondrel::codegen
