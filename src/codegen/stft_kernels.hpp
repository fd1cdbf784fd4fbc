#pragma once
// The fused STFT kernel "ondrel_stft": each block reads its frames straight
// from the signal (reflecting at centred ends), windows them while loading,
// transforms them in shared memory or registers, unpacks the half-length
// complex result into the real spectrum and stores one output form. The
// spectral statistics and contrast replace the store through a feature hook.
#include <cstdint>
#include <functional>
#include <string>

#include "codegen/backend.hpp"
#include "codegen/kernel_sig.hpp"
#include "codegen/kernel_writer.hpp"

namespace ondrel::codegen {

// The cores a spectral kernel runs its FFT on.
enum StftCore : int { kCoreCt = 0, kCoreWarp = 1, kCoreMixed = 2, kCoreEpt16 = 3, kCoreFourStep = 4 };

// Computed windows of window_kind; kind 0 reads the table `win`.
enum WindowKind : int { kWindowTable = 0, kWindowHann = 1, kWindowHamming = 2, kWindowBlackman = 3, kWindowNone = 4 };

// Every decision of one spectral kernel. Only these fields drive the text.
struct StftPlan {
  int prec = 1;  // arithmetic: 0 half, 1 single, 2 double
  int32_t n = 0;
  int32_t hop = 1;
  int32_t pad = 0;  // left reflection: n / 2 when centred, else 0
  int64_t sig_len = 0;
  int64_t nframes = 0;
  int32_t ept = 8;
  int32_t tpf = 1;
  int32_t fpb = 1;
  int feature = -1;  // -1 plain spectrogram; 0 to 3 statistics; 4 contrast
  int32_t feature_extra = 0;
  int mode = 0;  // 0 complex, 1 magnitude, 2 power, 3 decibels
  double eps = 1e-10;
  bool tw_table = false;
  bool tw_global = false;
  int core = kCoreCt;
  int32_t n1 = 0, n2 = 0;  // split of M for the four-step core
  int in_prec = 1;
  int out_prec = 1;
  bool paired = false;  // odd n: two real frames share one complex FFT of n
  int window_kind = kWindowTable;
  int shp_shift = 4;
  bool shp_on = false;
  // The mel spectrogram's: bands of the filterbank, cepstral coefficients
  // of a fused DCT (0: none), and 1 for magnitudes, else squared magnitudes.
  int32_t n_mels = 0;
  int32_t ncep = 0;
  int32_t power = 2;

  int32_t m() const { return n / 2; }
  int32_t bins() const { return n / 2 + 1; }
  // The length of the complex FFT: n when paired, else M.
  int32_t fft_length() const { return paired ? n : n / 2; }
};

// ROW: complex elements of one frame's shared row on cores 0, 1, 3.
int64_t row_length(const StftPlan& plan);
// TWN: twiddle entries held in shared memory.
int64_t shared_twiddles(const StftPlan& plan);
// The bytes the launch requests, the feature's work area included.
uint64_t shared_bytes(const StftPlan& plan);

// y, out, tw, win, [bt, bq], NFRAMES, SIG_LEN, [fstep, pp, amin, roll].
KernelParams stft_params(const StftPlan& plan, const Backend& backend);

// The epilogue a spectral feature puts in place of the store: it receives
// the writer, the plan and the name of the buffer that holds the frame's
// spectrum (natural order, behind a barrier) and owns the output.
using FeatureHook = std::function<void(KernelWriter& w, const StftPlan& plan, const std::string& buffer)>;

// The kernel text. Throws std::invalid_argument for a four-step plan, which
// the operation routes to its staged path, and std::logic_error for a
// feature plan without a hook.
std::string stft_text(const StftPlan& plan, const Backend& backend, const FeatureHook& feature = {});

// One output statement: `target` = the complex (re, im) or, for modes 1 to
// 3, its magnitude, power or decibels, in `out_prec`; T is the compute type.
std::string store_text(const Backend& backend, int mode, int out_prec, const std::string& t, const std::string& target,
                       const std::string& re, const std::string& im);

// The window's value at the text index j of a frame of n samples: a read of
// the table `win`, or for the computed kinds the periodic window itself.
std::string window_value(const Backend& backend, int prec, int32_t n, int window_kind, const std::string& j);

// "#define EPS" with the value as the kernels print it: six significant
// digits, or seventeen where six would not give the value back.
std::string eps_define(double eps);

}  // namespace ondrel::codegen
