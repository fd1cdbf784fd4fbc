#pragma once
// The reverse-mode rule of the constant-Q transform: the levels walked from
// the deepest up, each octave reversed (output form, basis, STFT, padding)
// and every level's gradient passed up through the transposed half-band
// decimation. For complex output it is the exact transpose and never reads
// the signal. No host synchronisation anywhere, so that a caller may
// capture it into a graph. Float or double only.
#include <vector>

#include "cuda_like/launch/launch_record.hpp"
#include "cuda_like/ops/cqt_plan.hpp"

namespace ondrel {

struct CqtAdjoint {
  CqtCall call;             // prec: 2 double, anything else float (0 is refused by the caller)
  const void* x = nullptr;  // batch x length, the forward signal (read for modes 1 to 3)
  const void* g = nullptr;  // batch x n_bins x frames: complex for mode 0, else real
  void* gx = nullptr;       // batch x length, every element written
};

// The error text of a half-precision adjoint request.
extern const char* const kHalfAdjointText;

// Enqueues the gradient on the call's stream.
void cqt_adjoint(const CqtAdjoint& a);

// The kernels of the adjoint's own steps (the STFT and its adjoint list theirs).
std::vector<KernelPlan> cqt_adjoint_kernels(const CqtCall& c);

}  // namespace ondrel
