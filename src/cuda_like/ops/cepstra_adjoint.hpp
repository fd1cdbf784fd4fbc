#pragma once
// The gradient of the cepstra with respect to the signal: the bands are
// recomputed (never by the fused route), the coefficients' gradient goes
// back through the DCT, through the floor (the gradient of every floored
// band goes to the first element at the signal's peak), then through the
// mel spectrogram's decibels. Float or double.
#include <vector>

#include "cuda_like/launch/launch_record.hpp"
#include "cuda_like/ops/cepstra.hpp"
#include "cuda_like/ops/mel_adjoint.hpp"

namespace ondrel {

// gx (batch, length) from gc, the gradient of the coefficients as
// [batch][coefficient][frame], and the forward's signal r.stft.y. r.stft.out
// is not read. Every check runs before any device work.
void cepstra_adjoint(const CepstraRequest& r, const void* gc, void* gx);

// The mel adjoint's request for the gradient gm on the bands,
// [batch][frame][band].
MelAdjointRequest cepstra_band_adjoint(const CepstraRequest& r, int64_t frames, const void* gm, void* gx);

// The kernels of the steps between the bands and their gradient (the mel
// spectrogram and its adjoint list their own).
std::vector<KernelPlan> cepstra_adjoint_kernels(const CepstraRequest& r);

}  // namespace ondrel
