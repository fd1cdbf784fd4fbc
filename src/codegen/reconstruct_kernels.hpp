#pragma once
// The two element-wise kernels of Griffin-Lim, over planes of `total`
// complex values: the magnitudes times the current phases, and the
// momentum step that turns a re-analysis into new unit phases. `prec` 2 is
// double, anything else float; blocks of 256 threads.
#include <string>

#include "codegen/backend.hpp"
#include "codegen/kernel_sig.hpp"

namespace ondrel::codegen {

// ondrel_gl_mul(S, ang, Zc, total)
KernelParams gl_mul_params(const Backend& backend, int prec);
std::string gl_mul_kernel(int prec, const Backend& backend);

// ondrel_gl_step(Z, prev, ang, alpha, tiny, total)
KernelParams gl_step_params(const Backend& backend, int prec);
std::string gl_step_kernel(int prec, const Backend& backend);

}  // namespace ondrel::codegen
