#pragma once
// The chroma fold over constant-Q magnitudes: each bin's magnitude added to
// its pitch class in a per-thread array of NCHROMA sums, every frame divided
// by its largest class (floored at 1e-30 so that a silent frame gives
// zeros). "ondrel_chroma" stores the quotients; "ondrel_chradj" spreads a
// class gradient back to the bins with the peak held fixed.
#include <string>

#include "codegen/backend.hpp"
#include "codegen/kernel_sig.hpp"

namespace ondrel::codegen {

// `prec` is the compute digit (1 or 2), `out_prec` the result's (0 for half).
KernelParams chroma_params();
std::string chroma_key(int prec, int n_chroma, int out_prec);
std::string chroma_kernel(int prec, int n_chroma, int out_prec, const Backend& backend);

// mag, gmag, g, cls, n_bins, nf: all in the compute type.
KernelParams chradj_params();
std::string chradj_key(int prec, int n_chroma);
std::string chradj_kernel(int prec, int n_chroma, const Backend& backend);

}  // namespace ondrel::codegen
