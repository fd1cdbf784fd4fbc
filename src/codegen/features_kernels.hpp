#pragma once
// Kernels of the small frame features, one a direction: the RMS of signal
// frames read straight from the signal with reflected ends, the onset
// strength of a spectrogram and the tonal centroids of a chroma sequence.
// `prec` is the code of the data: 0 half (arithmetic in single), 1 single,
// 2 double; the adjoints exist in 1 and 2 only. Blocks are 256 threads.
#include <cstdint>
#include <string>

#include "codegen/backend.hpp"
#include "codegen/kernel_sig.hpp"

namespace ondrel::codegen {

constexpr int kFeatureThreads = 256;

// Dynamic shared bytes of the kernels that reduce over a block (RMS and
// onset strength forward): one compute value a thread.
uint64_t feature_reduction_bytes(int prec);

// Heads. Forward kernels read and write data of `prec`; adjoints are all of
// the compute type.
//   ondrel_rms(x, out, length, frames, frame_length, hop, pad)
//   ondrel_rms_adj(x, rms, gy, gx, length, frames, frame_length, hop, pad)
//   ondrel_onset(m, out, frames, bins)
//   ondrel_onset_adj(m, gy, gm, frames, bins)
//   ondrel_tonnetz(c, out, rows)
//   ondrel_tonnetz_adj(c, gy, gc, rows)
KernelParams rms_params(const Backend& backend, int prec);
KernelParams rms_adjoint_params(const Backend& backend, int prec);
KernelParams onset_params(const Backend& backend, int prec);
KernelParams onset_adjoint_params(const Backend& backend, int prec);
KernelParams tonnetz_params(const Backend& backend, int prec);
KernelParams tonnetz_adjoint_params(const Backend& backend, int prec);

// One block a frame (rows of `frames` frames a signal, signals one after
// another). A sample index outside the signal reflects without repeating the
// end samples, as often as it takes; a one-sample signal reflects onto
// itself. The window is rectangular.
std::string rms_kernel(int prec, const Backend& backend);
// One thread a sample, grid.y the signal: the sum over every frame position
// at which the sample appears, every reflection folded, so no atomics.
std::string rms_adjoint_kernel(int prec, const Backend& backend);
// One block a frame: the mean over bins of the rise since the previous
// frame; the first frame of each signal is 0.
std::string onset_kernel(int prec, const Backend& backend);
// One block a frame, each bin written once; a difference of exactly 0
// passes no gradient.
std::string onset_adjoint_kernel(int prec, const Backend& backend);
// One thread a row of 12 pitch classes: the six tonnetz projections over
// the row's sum, 0 where the sum is not positive.
std::string tonnetz_kernel(int prec, const Backend& backend);
std::string tonnetz_adjoint_kernel(int prec, const Backend& backend);

// The device function ondrel_tonnetz_basis(d, p) of the compute type of
// `prec`: the 72 table values of the six axes (fifths, minor thirds, major
// thirds, sine and cosine each), exact where the sine is a simple value.
std::string tonnetz_basis_text(int prec, const Backend& backend);

}  // namespace ondrel::codegen
