#pragma once
// The kernels of the cepstra family as plans, and the steps the forward
// and the adjoint share: the mel spectrogram in decibels the coefficients
// are taken of, and the precision digit of the keys.
#include <cstdint>

#include "codegen/cepstra_kernels.hpp"
#include "cuda_like/launch/launch_record.hpp"
#include "cuda_like/ops/cepstra.hpp"
#include "cuda_like/ops/mel.hpp"
#include "rocm/device_pool.hpp"

namespace ondrel {

// 2 in double, 1 in single.
int cepstra_digit(const CepstraRequest& r);

// The mel request of the bands: power 2, decibels, the request's eps,
// window, framing, precision and stream; no knobs.
MelRequest cepstra_mel(const CepstraRequest& r);

// The bands of every frame, [batch][frame][band] in T, in a pool block of
// the request's stream.
template <class T>
DeviceBuffer cepstra_bands(const CepstraRequest& r, int64_t frames);

codegen::CepstraShape cepstra_shape(const CepstraRequest& r);

// "ondrel_mel" with the DCT behind its band step, for a plan with ncep set.
KernelPlan cepstra_fused_kernel(const StftPlan& p, const CepstraRequest& r);
KernelPlan cepmax_plan(int digit);
KernelPlan cepstra_plan(const codegen::CepstraShape& s);
KernelPlan cepmaxi_plan(int digit);
KernelPlan cepadj_plan(const codegen::CepstraShape& s);
KernelPlan cepcsum_plan(const codegen::CepstraShape& s);

// Blocks of 256 threads that cover `items`.
unsigned cepstra_blocks(int64_t items);

}  // namespace ondrel
