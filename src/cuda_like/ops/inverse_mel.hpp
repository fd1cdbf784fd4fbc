#pragma once
// The inverse mel scale between device addresses: each row of n_in mel
// values times a caller's matrix P (n_out rows of n_in, a pseudo-inverse of
// the filterbank), optionally clamped at zero, and its adjoint. P reaches
// the device once per key and is kept for the life of the process under
// that key alone: a new matrix needs a new key. Float or double; there is
// no half form.
#include <cstdint>
#include <string>
#include <vector>

#include "cuda_like/launch/launch_record.hpp"
#include "cuda_like/ops/features.hpp"

namespace ondrel {

struct InverseMelScale {
  const double* p = nullptr;  // n_out rows of n_in, row-major
  int32_t n_out = 0;
  int32_t n_in = 0;
  std::string key;  // the caller's name of P
  bool clamp = false;
};

// out (frames, n_out) from m (frames, n_in): m @ P^T, negatives set to 0
// when clamped.
void inverse_mel_scale(const InverseMelScale& s, const void* m, void* out, int64_t frames, const FeatureCall& call);

// gm (frames, n_in) from g (frames, n_out), the gradient of the output, and
// the forward's input m (read only when clamped, to find where the product
// was negative).
void inverse_mel_scale_adjoint(const InverseMelScale& s, const void* m, const void* g, void* gm, int64_t frames,
                               const FeatureCall& call);

// The products a call compiles: the forward's, or the adjoint's mask (when
// clamped) and transposed product.
std::vector<KernelPlan> inverse_mel_kernels(int32_t n_in, int32_t n_out, int prec, bool clamp, bool adjoint);

}  // namespace ondrel
