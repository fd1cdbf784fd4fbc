#pragma once
// The constant-Q transform's kernels. "ondrel_hbdec" halves a level's rate
// with the half-band filter; "ondrel_cqtpad" places a half signal in the
// zero-padded float row; "ondrel_cqtred" applies an octave's basis to
// spectra the STFT wrote out; "ondrel_cqtf" does the frame's FFT and the
// basis in one kernel, the spectrum kept in shared memory. The adjoint's:
// "ondrel_cqtgc" (gradient at the complex bins), "ondrel_cqtradj" (the
// basis transposed), "ondrel_hbadj" (the decimation transposed) and
// "ondrel_cqtaddsl" (the padded gradient's centre added into a level).
#include <cstdint>
#include <string>

#include "codegen/backend.hpp"
#include "codegen/kernel_sig.hpp"
#include "codegen/stft_kernels.hpp"

namespace ondrel::codegen {

// One octave's band sum and its output form. `prec` is the compute digit
// (1 or 2), `out_prec` that of the output (0 for half).
struct CqtForm {
  int prec = 1;
  int out_prec = 1;
  int mode = 0;  // 0 complex, 1 magnitude, 2 power, 3 decibels
  double eps = 1e-10;
};

// "_e" and the 16 hexadecimal digits of eps's bits for decibels, else "".
std::string cqt_eps_suffix(int mode, double eps);

// x, out, taps, n, on: `storage` is the input's digit (0 half).
KernelParams hbdec_params(int compute, int storage);
std::string hbdec_key(int compute, int storage);
std::string hbdec_kernel(int compute, int storage, const Backend& backend);

// x, out, n, plen, pad: `in_prec` is the input's digit.
KernelParams cqtpad_params(int compute, int in_prec);
std::string cqtpad_key(int compute, int in_prec);
std::string cqtpad_kernel(int compute, int in_prec, const Backend& backend);

// S, out, br, bi, nfl, nb, rows, nf, n_bins, row_lo, eps, blo, bhi.
KernelParams cqtred_params(const CqtForm& f, const Backend& backend);
std::string cqtred_key(const CqtForm& f);
std::string cqtred_kernel(const CqtForm& f, const Backend& backend);

// The fused kernel over a power-of-two STFT plan (window kind 4, no pad,
// the signal in the compute type) of cores 0, 1 or 3: F rows of FFT scratch,
// then F spectra of NB bins. The one measure of its shared memory serves
// the route's decline test, the launch check and the text's layout.
uint64_t cqtf_shared_bytes(const StftPlan& plan);
KernelParams cqtf_params(const CqtForm& f, const Backend& backend);
std::string cqtf_key(const StftPlan& plan, const CqtForm& f, int device);
// std::invalid_argument for a plan off cores 0, 1 and 3.
std::string cqtf_text(const StftPlan& plan, const CqtForm& f, const Backend& backend);

// S, gc, g, br, bi, nfl, nb, rows, nf, n_bins, row_lo, eps, blo, bhi; `prec`
// of the form is the digit, out_prec unused.
KernelParams cqtgc_params(const CqtForm& f);
std::string cqtgc_key(const CqtForm& f);
std::string cqtgc_kernel(const CqtForm& f, const Backend& backend);

// gc, gS, br, bi, nfl, nf, nb, rows, klo, khi.
KernelParams cqtradj_params();
std::string cqtradj_key(int prec);
std::string cqtradj_kernel(int prec, const Backend& backend);

// gout, gin, taps, n, on.
KernelParams hbadj_params();
std::string hbadj_key(int prec);
std::string hbadj_kernel(int prec, const Backend& backend);

// gx, glev, plen, pad, n.
KernelParams cqtaddsl_params();
std::string cqtaddsl_key(int prec);
std::string cqtaddsl_kernel(int prec, const Backend& backend);

}  // namespace ondrel::codegen
