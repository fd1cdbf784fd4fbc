#pragma once
// The mel spectrogram's reverse mode: the gradient on the bands goes back
// through the output form and the filterbank onto the bins, through the
// magnitude or power onto the recomputed spectrum, and from there as in the
// STFT's mode adjoint onto the signal. The transposed filterbank is read as
// two (band, weight) entries a bin, or, for banks where some bin lies under
// three bands or more, as a compressed list per bin.
#include <cstdint>
#include <string>

#include "codegen/adjoint_kernels.hpp"

namespace ondrel::codegen {

struct MelAdjointPlan {
  AdjointPlan frame;  // its mode: 1 the root of the band sum, 3 decibels, else the sum
  int32_t n_mels = 0;
  int32_t power = 2;  // 1 magnitudes, else squared magnitudes
  bool wide = false;  // the compressed transpose
};

// The FFT row, the spectrum and one coefficient a band.
uint64_t mel_adjoint_shared_bytes(const MelAdjointPlan& plan);

// "mel_adjoint(gM, y, graw, win, fb_lo, fb_off, fb_w, <transpose>, twg, NF,
// SIG_LEN, out_len, sb, sk, st)", the transpose being bin_b0, bin_b1,
// bin_w0, bin_w1, or bin_off, bin_band, bin_w when wide.
KernelParams mel_adjoint_params(const MelAdjointPlan& plan, const Backend& backend);
std::string mel_adjoint_kernel(const MelAdjointPlan& plan, const Backend& backend);

// Staged: "ondrel_meladjcoef(gM, X, fb_lo, fb_off, fb_w, coef, NF, sb, sk,
// st, row0)", the coefficient of every band of every row, and
// "ondrel_meladjpack(X, coef, <transpose>, bufA, row0)", the rows the FFT
// transposes.
KernelParams meladjcoef_params(const MelAdjointPlan& plan, const Backend& backend);
std::string meladjcoef_kernel(const MelAdjointPlan& plan, const Backend& backend);
KernelParams meladjpack_params(const MelAdjointPlan& plan, const Backend& backend);
std::string meladjpack_kernel(const MelAdjointPlan& plan, const Backend& backend);

}  // namespace ondrel::codegen
