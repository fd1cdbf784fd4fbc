#pragma once
// The reverse-mode kernels of the STFT and the inverse STFT. Every adjoint
// transforms whole frames of n points forward (a conjugation on the way in
// stands for the inverse transform), one frame a block: the STFT's
// transpose writes each frame's windowed contribution to a raw buffer
// (atomics, or the frame's own row when deterministic) that the crop folds
// back through the reflect padding; the mode adjoint first recomputes the
// frame's spectrum for the chain coefficient; the inverse STFT's adjoint
// divides by the envelope, windows each frame and transposes the real
// inverse FFT. The staged kernels do the same around the library FFT.
#include <cstdint>
#include <string>

#include "codegen/backend.hpp"
#include "codegen/kernel_sig.hpp"
#include "codegen/kernel_writer.hpp"

namespace ondrel::codegen {

struct AdjointPlan {
  int32_t n = 0;
  int32_t hop = 1;
  int32_t pad = 0;  // n / 2 when centred
  int prec = 1;     // 1 float, 2 double
  int window_kind = 0;
  int mode = 0;  // what the spectrum gave: 1 magnitude, 2 power, 3 decibels
  double eps = 1e-10;
  bool deterministic = false;
  int32_t tpf = 256;

  int32_t bins() const { return n / 2 + 1; }
};

// Threads of a fused adjoint block: min(max(n, 32), 256), more where a
// Rader stage needs a thread for each of its butterflies.
int32_t adjoint_threads(int32_t n);

// Shared bytes of the fused kernels: the frame's FFT row with its Rader
// scratch, and behind it the recomputed spectrum (`spectrum`) and `reals`
// further values of the compute type.
uint64_t adjoint_shared_bytes(const AdjointPlan& plan, bool spectrum, int64_t reals = 0);

// "stft_adjoint(gX, graw, win, twg, NF, out_len, sb, sk, st)".
KernelParams stft_adjoint_params(const AdjointPlan& plan, const Backend& backend);
std::string stft_adjoint_kernel(const AdjointPlan& plan, const Backend& backend);

// "stft_adjoint_mode(gS, y, graw, win, twg, NF, SIG_LEN, out_len, sb, sk, st)".
KernelParams stft_adjoint_mode_params(const AdjointPlan& plan, const Backend& backend);
std::string stft_adjoint_mode_kernel(const AdjointPlan& plan, const Backend& backend);

// "stft_adjoint_crop(graw, gx, L, PAD, NF, out_len)": the transpose of the
// reflect padding; `frame_rows` sums the frames' own rows in ascending
// order, otherwise it reads the accumulated sample.
KernelParams crop_params(const AdjointPlan& plan, const Backend& backend);
std::string crop_kernel(const AdjointPlan& plan, bool frame_rows, const Backend& backend);

// "istft_adjoint_pre(gy, g, win, L, pad, NF, out_len)" and
// "istft_adjoint(g, gZ, win, twg, NF, out_len)".
KernelParams istft_adjoint_pre_params(const AdjointPlan& plan, const Backend& backend);
std::string istft_adjoint_pre_kernel(const AdjointPlan& plan, const Backend& backend);
KernelParams istft_adjoint_params(const AdjointPlan& plan, const Backend& backend);
std::string istft_adjoint_kernel(const AdjointPlan& plan, const Backend& backend);

// The staged route, 256 threads a block, rows `row0 + blockIdx.y`:
//   ondrel_gadjpack(gX, z, NF, sb, sk, st, row0)      conjugated, zero-extended rows
//   ondrel_gchain(gS, X, z, NF, sb, sk, st, row0)     the same through the chain coefficient
//   ondrel_gwreal(F, frames, win, NF)                 real parts times the window
//   ondrel_giadjgather(gpad, frames, win, NF, HOPv, out_len, row0)
//   ondrel_giadjstore(spec, gZ, row0)
KernelParams gadjpack_params(const AdjointPlan& plan, const Backend& backend);
std::string gadjpack_kernel(const AdjointPlan& plan, const Backend& backend);
KernelParams gchain_params(const AdjointPlan& plan, const Backend& backend);
std::string gchain_kernel(const AdjointPlan& plan, const Backend& backend);
KernelParams gwreal_params(const AdjointPlan& plan, const Backend& backend);
std::string gwreal_kernel(const AdjointPlan& plan, const Backend& backend);
KernelParams giadjgather_params(const AdjointPlan& plan, const Backend& backend);
std::string giadjgather_kernel(const AdjointPlan& plan, const Backend& backend);
KernelParams giadjstore_params(const AdjointPlan& plan, const Backend& backend);
std::string giadjstore_kernel(const AdjointPlan& plan, const Backend& backend);

// Pieces the mel adjoint shares. The head of a fused adjoint: `extra`
// defines behind NB, and with `reflect` (the kernels that read the signal)
// the reflection and EPS. The frame's passes on `bufA`, which return the
// buffer that holds the result; the forward spectrum of the frame into `Xs`
// (`bufA`, `Xs` and `y` declared); the store of the transposed frame `buf`
// into `graw`. The opening of a staged row kernel: `index` below `count`,
// `row`, and with `names` its signal and frame ("bb tt" or "batch frame").
std::string adjoint_head(const AdjointPlan& plan, const Backend& backend, bool reflect, const std::string& extra);
std::string frame_passes(KernelWriter& w, const AdjointPlan& plan);
void frame_spectrum(KernelWriter& w, const AdjointPlan& plan);
void transpose_frame(KernelWriter& w, const AdjointPlan& plan, const std::string& buf);
std::string staged_head(const AdjointPlan& plan, const Backend& backend, const std::string& defines);
void staged_row(KernelWriter& w, const std::string& index, const std::string& count, const char* batch,
                const char* frame);
// The shared offset of `Xs`: the FFT row and its Rader scratch.
int64_t spectrum_offset(const AdjointPlan& plan);

}  // namespace ondrel::codegen
