#pragma once
// The inverse constant-Q transform's kernels. "ondrel_icqtdual" maps an
// octave's bins through its dual basis to short spectra, zero-padded to the
// full rate's length; "ondrel_icqtola" averages the covering frames into
// the signal, each frame centred on its hop as the forward frame is. The
// solver's: "ondrel_vdot" (one inner product a signal), "ondrel_vaxpby"
// (y = a x + c y with per-signal coefficients), "ondrel_cgalpha" and
// "ondrel_cgbeta" (the step and the direction's weight, per signal, on the
// device). The stop forms of the last two freeze a signal whose residual has
// fallen under its tolerance and count the iterations each signal took.
#include <string>

#include "codegen/backend.hpp"
#include "codegen/kernel_sig.hpp"

namespace ondrel::codegen {

// `prec` is the compute digit: 1 float, 2 double.

// C, Xf, D, nf, half_f, half_d, rows, n_bins, row_lo.
KernelParams icqtdual_params();
std::string icqtdual_key(int prec);
std::string icqtdual_kernel(int prec, const Backend& backend);

// frames, y, len, nf, span, h, scale.
KernelParams icqtola_params(int prec);
std::string icqtola_key(int prec);
std::string icqtola_kernel(int prec, const Backend& backend);

// u, v, out, n; one block of 256 a signal over vdot_shared_bytes.
KernelParams vdot_params();
std::string vdot_key(int prec);
std::string vdot_kernel(int prec, const Backend& backend);
uint64_t vdot_shared_bytes(int prec);

// x, y, a, c, n.
KernelParams vaxpby_params();
std::string vaxpby_key(int prec);
std::string vaxpby_kernel(int prec, const Backend& backend);

// rs, pap, ab_y, ab_r, nb; with `stop` also rs0, iters, busy, tol2.
KernelParams cgalpha_params(int prec, bool stop);
std::string cgalpha_key(int prec, bool stop);
std::string cgalpha_kernel(int prec, bool stop, const Backend& backend);

// rs_new, rs, ab_p, nb; with `stop` also rs0, busy, tol2.
KernelParams cgbeta_params(int prec, bool stop);
std::string cgbeta_key(int prec, bool stop);
std::string cgbeta_kernel(int prec, bool stop, const Backend& backend);

}  // namespace ondrel::codegen
