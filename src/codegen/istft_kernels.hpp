#pragma once
// The inverse STFT's kernels. Fused: `istft_frames` turns each spectrum row
// into its windowed time samples and adds them into a raw buffer (one FFT of
// M points for even n, one of n points for two frames of odd n), then
// `istft_normalize` divides by the squared-window envelope and crops. Staged,
// for frames whose FFT does not fit one block: a pack (even n) or gather (odd
// n) of the spectrum rows, the library's inverse FFT, a window scale, and
// the normalisation in its frame-row form.
#include <cstdint>
#include <string>

#include "codegen/backend.hpp"
#include "codegen/kernel_sig.hpp"
#include "codegen/kernel_writer.hpp"

namespace ondrel::codegen {

struct IstftPlan {
  int32_t n = 0;
  int32_t hop = 1;
  int prec = 1;     // arithmetic: 1 single, 2 double
  int in_prec = 1;  // the spectrum and the signal in memory: 0 half, or prec
  int window_kind = 0;
  bool deterministic = false;  // frames in rows of their own, summed in order
  int32_t tpf = 32;

  bool odd() const { return n % 2 == 1; }
  int32_t bins() const { return n / 2 + 1; }
  // The complex FFT of a block: M points for even n, n for odd.
  int32_t fft_length() const { return odd() ? n : n / 2; }
};

// Shared bytes of `istft_frames`: its FFT row with the Rader scratch.
uint64_t istft_shared_bytes(const IstftPlan& plan);

// `t0` and `t1`: the first and the last of NF frames of n samples every
// hop that cover the padded position `pos` (an I64 expression).
void covering_frames(KernelWriter& w, const std::string& pos, int32_t n, int32_t hop);

// "istft_frames(Z, yraw, win, twg, NF, out_len, sb, sk, st)".
KernelParams istft_frames_params(const IstftPlan& plan, const Backend& backend);
std::string istft_frames_kernel(const IstftPlan& plan, const Backend& backend);

// "istft_normalize(yraw, y, win, L, pad, NF, out_len)"; `frame_rows` sums
// the frames' own rows in ascending order (the deterministic and the staged
// forms), otherwise it reads the accumulated sample.
KernelParams istft_normalize_params(const IstftPlan& plan, const Backend& backend);
std::string istft_normalize_kernel(const IstftPlan& plan, bool frame_rows, const Backend& backend);

// "ondrel_zpack(Z, z, tw, NF, sb, sk, st, row0)": rows of the packed M-point
// spectrum whose inverse FFT is the real frame (even n); bins 0 and M are
// real, their imaginary parts never count.
KernelParams zpack_params(const IstftPlan& plan, const Backend& backend);
std::string zpack_kernel(const IstftPlan& plan, const Backend& backend);

// "ondrel_zgather(Z, z, NF, sb, sk, st, row0)": dense rows of the NB bins
// (odd n), for the inverse real FFT.
KernelParams zgather_params(const IstftPlan& plan, const Backend& backend);
std::string zgather_kernel(const IstftPlan& plan, const Backend& backend);

// "ondrel_wscale(frames, win, NF)": every frame row times the window.
KernelParams wscale_params(const IstftPlan& plan, const Backend& backend);
std::string wscale_kernel(const IstftPlan& plan, const Backend& backend);

}  // namespace ondrel::codegen
